#include "service/mount/extended_attributes.h"

#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "base/mutex.h"
#include "fileprovider/error_codes.h"
#include "service/control/control_text.h"
#include "service/item_text.h"

namespace vondle {
namespace {

constexpr std::string_view STATE = "user.vondle.state";
constexpr std::string_view IDENTIFIER = "user.vondle.id";
constexpr std::string_view VERSION = "user.vondle.version";
constexpr std::string_view POLICY = "user.vondle.policy";
constexpr std::string_view SHARED = "user.vondle.shared";
constexpr std::string_view OWNER = "user.vondle.owner";
constexpr std::array NAMES = {STATE, IDENTIFIER, VERSION, POLICY, SHARED, OWNER};

constexpr std::string_view KEEP = "keep";
constexpr std::string_view DEFAULT = "default";

Error noSuchAttribute() {
  return Error::posix(ENODATA, "it has no such attribute");
}

// What a program wants that sets an attribute, or removes it.
Result<KeepAction::Kind> wanted(std::string_view name, const std::optional<std::string>& value, int flags) {
  if (std::ranges::find(NAMES, name) == NAMES.end())
    return failure(value ? Error::posix(EOPNOTSUPP, "such attributes cannot be kept") : noSuchAttribute());
  if (name != POLICY) return failure(Error::posix(EPERM, "it can only be read"));
  if (!value) return KeepAction::Kind::stopKeeping;
  if ((flags & XATTR_CREATE) != 0) return failure(Error::posix(EEXIST, "it is there"));
  if (*value == KEEP) return KeepAction::Kind::keep;
  if (*value == DEFAULT) return KeepAction::Kind::stopKeeping;
  return failure(Error::posix(EINVAL, "neither \"keep\" nor \"default\""));
}

// Given by whoever comes first.
class FirstAnswer {
 public:
  explicit FirstAnswer(Completion<std::optional<Error>> completion) : completion_(std::move(completion)) {}

  void give(std::optional<Error> error) EXCLUDES(lock_) {
    std::optional<Completion<std::optional<Error>>> completion;
    {
      MutexLock hold(lock_);
      completion.swap(completion_);
    }
    if (completion) std::move (*completion)(std::move(error));
  }

 private:
  Mutex lock_;
  std::optional<Completion<std::optional<Error>>> completion_ GUARDED_BY(lock_);
};

}  // namespace

ExtendedAttributes::ExtendedAttributes(Tree& tree, ContentStore& contents, Scheduler& scheduler, Keep keep)
    : tree_(tree),
      contents_(contents),
      queue_(scheduler.makeSerialQueue("extended attributes")),
      keep_(std::move(keep)) {}

void ExtendedAttributes::read(Inode inode, std::string name, Completion<Result<std::string>> completion) {
  // Most of it is in the database.
  queue_->post([self = shared_from_this(), inode, name = std::move(name),
                completion = std::move(completion)]() mutable { std::move(completion)(self->valueOf(inode, name)); });
}

Result<std::string> ExtendedAttributes::valueOf(Inode inode, std::string_view name) const {
  const auto& replica = tree_.replica();
  const auto attributes = replica.attributes(inode);
  if (!attributes) return failure(Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
  if (name == STATE && !attributes->isFolder) return std::string(stateText(contents_.state(inode)));
  if (std::ranges::find(NAMES, name) == NAMES.end()) return failure(noSuchAttribute());
  const auto item = replica.item(inode);
  if (!item) return failure(noSuchAttribute());
  if (name == IDENTIFIER) return controlText(item->itemIdentifier.text);
  if (name == VERSION) return controlText(item->itemVersion.contentVersion);
  if (name == POLICY) return std::string(policyText(inode, replica.keptBy(inode), item->contentPolicy));
  if (name == SHARED && item->isShared) return std::string(sharingText(item->isSharedByCurrentUser));
  if (name == OWNER && item->ownerNameComponents)
    if (auto owner = controlText(ownerText(*item->ownerNameComponents)); !owner.empty()) return owner;
  return failure(noSuchAttribute());
}

void ExtendedAttributes::write(Inode inode, const std::string& name, const std::optional<std::string>& value, int flags,
                               const std::shared_ptr<Progress>& wait, Completion<std::optional<Error>> completion) {
  const auto kind = wanted(name, value, flags);
  if (!kind) return std::move(completion)(kind.error());
  if (inode == ROOT_INODE) return std::move(completion)(Error::posix(EPERM, "the folder as a whole has no policy"));
  const auto answer = std::make_shared<FirstAnswer>(std::move(completion));
  const auto cancelled = [answer] { answer->give(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED)); };
  wait->setCancellationHandler(cancelled);
  if (wait->isCancelled()) return cancelled();
  keep_(inode, *kind, [answer](std::optional<Error> error) { answer->give(std::move(error)); });
}

}  // namespace vondle
