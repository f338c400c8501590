#include "service/local_copies.h"

#include <cerrno>
#include <filesystem>

#include "config/paths.h"
#include "service/edits/edit_store.h"

namespace vondle {

Result<std::vector<Edit>> unsentEdits(const ServiceFolders& folders) {
  std::error_code ignored;
  if (!std::filesystem::exists(folders.editDatabase(), ignored)) return {};
  auto store = EditStore::open(folders.editDatabase());
  if (!store) return failure(store.error());
  return store->edits();
}

Result<void> removeLocalCopies(const ServiceFolders& folders, Files& files, UnsentEdits unsent) {
  if (unsent == UnsentEdits::keep) {
    const auto edits = unsentEdits(folders);
    if (!edits) return failure(edits.error());
    if (!edits->empty()) return failure(Error::posix(EBUSY, "removing what is not on the server yet"));
  }
  // The edits last: whatever is left behind is safe.
  std::vector<std::string> paths;
  for (const auto& database : {folders.replicaDatabase(), folders.editDatabase()}) {
    for (const auto* suffix : {"", "-wal", "-shm"}) paths.push_back(database + suffix);
  }
  paths.insert(paths.begin(), {folders.anchorFile(), folders.contentFiles()});
  paths.push_back(folders.editedFiles());
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
