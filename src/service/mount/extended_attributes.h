#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/completion.h"
#include "base/error.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/contents/content_store.h"
#include "service/follow/keep_action.h"
#include "service/inode.h"
#include "service/replica/tree.h"

namespace vondle {

// What scripts and file managers read of an item, in the words of `vondle info`, and have only where that says them:
//   user.vondle.state    where the contents of a file are      user.vondle.policy   whether it is kept downloaded
//   user.vondle.id       its identifier                        user.vondle.shared   "by you" or "with you"
//   user.vondle.version  the version of its contents           user.vondle.owner    who shares it
// Setting the policy to "keep" or "default" keeps the item downloaded or stops that; removing it is setting it to
// "default". Nothing else can be set.
//
// None is listed, as is usual for attributes that a file system makes: who copies a file copies those that are listed,
// and on the copy they would be wrong, or make copying back fail.
//
// Any thread.
class ExtendedAttributes : public std::enable_shared_from_this<ExtendedAttributes> {
 public:
  using Keep = std::function<void(Inode, KeepAction::Kind, Completion<std::optional<Error>>)>;

  ExtendedAttributes(Tree& tree, ContentStore& contents, Scheduler& scheduler, Keep keep);

  // Answers on a queue's thread. ENODATA for a name that the item does not have.
  void read(Inode inode, std::string name, Completion<Result<std::string>> completion);
  // Answers when that is done, or with USER_CANCELLED when the wait is cancelled before (what was begun goes on). No
  // value removes the attribute; the flags are those of setxattr. ENODATA and EOPNOTSUPP for removing and setting what
  // there is not, EPERM for what cannot be changed, EINVAL for another value.
  void write(Inode inode, const std::string& name, const std::optional<std::string>& value, int flags,
             const std::shared_ptr<Progress>& wait, Completion<std::optional<Error>> completion);

 private:
  [[nodiscard]] Result<std::string> valueOf(Inode inode, std::string_view name) const;

  Tree& tree_;
  ContentStore& contents_;
  const std::shared_ptr<Queue> queue_;
  const Keep keep_;
};

}  // namespace vondle
