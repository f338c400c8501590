#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "base/json.h"
#include "fileprovider/replicated_extension.h"
#include "platform/scheduler.h"
#include "service/control/control_server.h"

namespace vondle {

// Lists the server's trash for a control client, and brings items back or removes them for good, a few at a time,
// telling how far it is. Only what the trash holds when it begins is touched: elsewhere the same requests would move or
// trash things. Stops when the client goes away. Kept alive by what it waits for.
class TrashOperation : public std::enable_shared_from_this<TrashOperation> {
 public:
  enum class Action { list, restore, remove };

  // Reads the server's changes, so that the folder shows what was brought back.
  using Sync = std::function<void(Completion<std::optional<Error>>)>;

  // No identifiers: everything that is in the trash.
  TrashOperation(ReplicatedExtension& extension, Action action, std::optional<std::vector<std::string>> identifiers,
                 Sync sync, Scheduler& scheduler, std::shared_ptr<ControlReply> reply);

  void start();

 private:
  static constexpr std::size_t AT_ONCE = 4;

  void listed(const Result<std::vector<Item>>& items);
  void tellItems(const std::vector<Item>& items);
  void choose(const std::vector<Item>& items);
  void doMore();
  void begin(const Item& item);
  void ended(const std::string& identifier, const std::optional<Error>& error);
  void note(const std::string& identifier, const Error& error);
  void finish();

  ReplicatedExtension& extension_;
  const Action action_;
  const std::optional<std::vector<std::string>> identifiers_;
  const Sync sync_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<ControlReply> reply_;

  // Used on the queue alone.
  std::deque<Item> left_;
  std::size_t all_ = 0;
  std::size_t running_ = 0;
  std::size_t done_ = 0;
  json::Array failures_;
};

}  // namespace vondle
