#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/scheduler.h"

namespace vondle {

// Brings an item of the server's trash to a new place though its former place is taken, and restoring leads only there:
// what stands there has another name for as long as it takes. When something fails, the item goes back to the trash and
// the other gets its name back; should that fail, too, both are in the folder, each under a name of its own. All this
// happens on the server alone. Kept alive by what it waits for.
class RestoreAside : public std::enable_shared_from_this<RestoreAside> {
 public:
  struct Wish {
    Item item;                 // in the trash
    std::string formerFolder;  // local names below the top folder, with slashes between; empty: that itself
    ItemIdentifier folder;
    std::string name;  // the server's
  };
  // The items as they are then. EEXIST when nothing is found in the way, or the new place is taken, too.
  using Done = Completion<Result<std::vector<Item>>>;

  // Completes on the queue.
  RestoreAside(ReplicatedExtension& extension, std::shared_ptr<Queue> queue, Wish wish, Done completion);
  void start();

 private:
  void enter(ItemIdentifier folder, std::string below);
  void look(ItemIdentifier folder);
  void stepAside(const std::vector<Item>& there);
  void restore();
  void move();
  void putBack();
  void checkOther();
  void stepBack(Item other);
  // Goes on with what is left to do.
  void failed(Error error, void (RestoreAside::*next)());
  void finish();

  using Changed = std::function<void(RestoreAside&, Result<SavedItem>)>;
  void change(Item item, std::uint32_t fields, Changed next);

  ReplicatedExtension& extension_;
  const std::shared_ptr<Queue> queue_;
  const Wish wish_;
  Done completion_;
  std::optional<Item> other_;  // what was in the way, as it is now
  std::optional<Item> item_;   // out of the trash
  std::optional<Error> error_;
};

}  // namespace vondle
