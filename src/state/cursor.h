#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/files.h"

namespace vondle {

// How far the server's change feed has been followed, kept in "cursor.json" in the container of the application group.
// Nothing is kept in memory. Any thread.
class Cursor {
 public:
  explicit Cursor(Files& files) : files_(files) {}
  static Cursor& shared();

  // None when there is no container.
  std::optional<std::string> fileURL();
  // 0, "never followed", also when the file is missing or broken.
  std::int64_t load();
  // A failure leaves the old file and is not reported: the next save catches up.
  void save(std::int64_t cursor);

 private:
  Files& files_;
};

}  // namespace vondle
