#include "service/contents/lost_and_found.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "service/contents/edited_file.h"

namespace vondle {
namespace {

std::string pathOf(const std::string& folder, std::int64_t number) {
  return fmt::format("{}/{}", folder, number);
}

bool holdsNothingNeeded(const std::string& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT;
  // What was sent and then written to again is one file: the new private file is the former one, by way of the cache.
  const bool hasOtherName = status.st_nlink > 1;
  return status.st_size == 0 || hasOtherName || EditedFile::isDoneWith(path);
}

std::set<std::int64_t> numbersIn(const std::string& folder) {
  std::set<std::int64_t> numbers;
  std::error_code error;
  std::filesystem::directory_iterator files(folder, error);
  for (; !error && files != std::filesystem::directory_iterator(); files.increment(error))
    if (const auto number = privateFileNumber(files->path().filename().native())) numbers.insert(*number);
  return numbers;
}

}  // namespace

std::string lostAndFound(const std::string& folder) {
  return folder + "/lost+found";
}

std::optional<std::int64_t> privateFileNumber(std::string_view name) {
  std::int64_t number = 0;
  const auto* const end = name.data() + name.size();
  if (name.empty() || name[0] == '-') return std::nullopt;
  const auto [last, error] = std::from_chars(name.data(), end, number);
  return last == end && error == std::errc() ? std::optional(number) : std::nullopt;
}

std::set<std::int64_t> lostFiles(const std::string& folder) {
  return numbersIn(lostAndFound(folder));
}

std::size_t countUnclaimed(const std::string& folder, const std::set<std::int64_t>& named) {
  std::size_t count = lostFiles(folder).size();
  for (const auto number : numbersIn(folder))
    if (!named.contains(number) && !holdsNothingNeeded(pathOf(folder, number))) ++count;
  return count;
}

bool setAside(const std::string& folder, std::int64_t number) {
  const auto path = pathOf(folder, number);
  if (holdsNothingNeeded(path)) return ::unlink(path.c_str()) == 0 || errno == ENOENT;
  const auto place = lostAndFound(folder);
  if (::mkdir(place.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, pathOf(place, number).c_str(), RENAME_NOREPLACE) == 0;
}

bool bringBack(const std::string& folder, std::int64_t number) {
  return ::rename(pathOf(lostAndFound(folder), number).c_str(), pathOf(folder, number).c_str()) == 0;
}

}  // namespace vondle
