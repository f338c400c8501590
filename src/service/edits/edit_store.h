#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/linux/sqlite.h"
#include "service/edits/edit.h"

namespace vondle {

// The edit queue on disk, in a SQLite database of its own. What is written survives the end of the process at once and
// power loss after makeDurable. A missing database is made; one that is damaged or of a newer version is an error that
// names it and is left as it is: nothing here can be had again. One thread at a time.
class EditStore {
 public:
  static Result<EditStore> open(const std::string& path);

  // Ordered by id.
  Result<std::vector<Edit>> edits();
  Result<std::vector<LocalAttributes>> attributes();
  // Never used before, also not by an edit that has gone.
  [[nodiscard]] EditID newID();
  // All of it or nothing; what is removed goes first.
  Result<void> write(const EditBatch& batch);
  Result<void> makeDurable();

 private:
  explicit EditStore(std::string path);
  Result<void> prepare();
  Result<void> check();

  std::string path_;
  // unique_ptrs: the statements must go first, and moving the store must not move the database under them.
  std::unique_ptr<sqlite::Database> database_;
  std::unique_ptr<sqlite::Statement> put_, remove_, putAttributes_, removeAttributes_;
  EditID nextID_ = 1;
};

}  // namespace vondle
