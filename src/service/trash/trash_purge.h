#pragma once

#include <memory>

#include "service/trash/trash.h"

namespace vondle {

// Removes one item of the trash for good: what the server has never seen here, anything else there, once it has
// arrived. Runs on the trash's queue; kept alive by what it waits for.
class TrashPurge : public std::enable_shared_from_this<TrashPurge> {
 public:
  TrashPurge(std::shared_ptr<Trash> trash, std::uint64_t number, Trash::Done completion);
  void start();

 private:
  void dropped(const Result<void>& result);
  void waitUntilSent();
  void confirm();
  void ask();
  void purged();
  void finish(Result<void> result);

  const std::shared_ptr<Trash> trash_;
  const std::uint64_t number_;
  const MonotonicTime startedAt_;
  std::string errorBefore_;  // why the server does not have it in the trash, so far
  Trash::Done completion_;
};

}  // namespace vondle
