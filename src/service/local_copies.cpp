#include "service/local_copies.h"

#include <filesystem>

#include "config/paths.h"

namespace vondle {

Result<void> removeLocalCopies(const ServiceFolders& folders, Files& files) {
  auto paths = {folders.replicaDatabase(), folders.replicaDatabase() + "-wal", folders.replicaDatabase() + "-shm",
                folders.anchorFile(), folders.contentFiles()};
  for (const auto& path : paths) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) return failure(Error::posix(error.value(), "removing " + path));
  }
  // The extension's own note of how far it has read the account's changes.
  if (const auto container = files.applicationGroupContainer(APPLICATION_GROUP)) {
    const auto cursor = *container + "/cursor.json";
    if (files.exists(cursor)) return files.remove(cursor);
  }
  return {};
}

}  // namespace vondle
