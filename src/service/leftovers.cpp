#include "service/leftovers.h"

#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/log.h"

namespace vondle {

namespace {

constexpr Log LOG("com.ferrow.vondle.service", "service");

}  // namespace

void removeLeftovers(const std::string& folder, std::string_view prefix) {
  std::error_code error;
  std::vector<std::filesystem::path> leftovers;
  for (std::filesystem::directory_iterator files(folder, error), end; !error && files != end; files.increment(error)) {
    std::error_code unknown;
    if (files->path().filename().native().starts_with(prefix) &&
        files->symlink_status(unknown).type() == std::filesystem::file_type::regular)
      leftovers.push_back(files->path());
  }
  std::size_t removed = 0;
  for (const auto& path : leftovers) removed += std::filesystem::remove(path, error) ? 1 : 0;
  if (removed > 0) LOG.log("removed %d unfinished file(s) in %{public}@", removed, folder);
}

}  // namespace vondle
