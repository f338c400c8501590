#include "service/local_copies.h"

#include <cerrno>
#include <filesystem>
#include <set>
#include <utility>

#include "config/paths.h"
#include "service/contents/lost_and_found.h"
#include "service/edits/edit_store.h"

namespace vondle {

Result<Unsent> findUnsent(const ServiceFolders& folders) {
  Unsent unsent;
  std::error_code ignored;
  if (std::filesystem::exists(folders.editDatabase(), ignored)) {
    auto store = EditStore::open(folders.editDatabase());
    if (!store) return failure(store.error());
    auto edits = store->edits();
    if (!edits) return failure(edits.error());
    unsent.edits = std::move(*edits);
  }
  std::set<std::int64_t> named;
  for (const auto& edit : unsent.edits) {
    named.insert(edit.contents);
    if (edit.attempt) named.insert(edit.attempt->contents);
  }
  unsent.lostFiles = countUnclaimed(folders.editedFiles(), named);
  return unsent;
}

Result<void> removeLocalCopies(const ServiceFolders& folders, Files& files, UnsentEdits unsent) {
  if (unsent == UnsentEdits::keep) {
    const auto found = findUnsent(folders);
    if (!found) return failure(found.error());
    if (!found->isNothing()) return failure(Error::posix(EBUSY, "removing what is not on the server yet"));
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
