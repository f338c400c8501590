#include "service/edits/local_edits.h"

#include <cerrno>
#include <utility>

namespace vondle {
namespace {

Error readOnly() {
  return Error::posix(EROFS, "cannot change the folder");
}

}  // namespace

LocalEdits::LocalEdits(EditStore store, Tree& tree, const Clock& clock, RandomSource& random)
    : store_(std::move(store)), tree_(tree), clock_(clock), random_(random) {}

Result<std::shared_ptr<LocalEdits>> LocalEdits::open(const std::string& databasePath, Tree& tree, const Clock& clock,
                                                     RandomSource& random) {
  auto store = EditStore::open(databasePath);
  if (!store) return failure(store.error());
  return std::shared_ptr<LocalEdits>(new LocalEdits(std::move(*store), tree, clock, random));
}

void LocalEdits::createFile(Inode /*folder*/, std::string /*name*/, std::int64_t /*contents*/, bool /*isExecutable*/,
                            Made completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::createFolder(Inode /*folder*/, std::string /*name*/, Made completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::rename(Inode /*fromFolder*/, std::string /*fromName*/, Inode /*toFolder*/, std::string /*toName*/,
                        bool /*mayReplace*/, Done completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::removeFile(Inode /*folder*/, std::string /*name*/, Done completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::removeFolder(Inode /*folder*/, std::string /*name*/, Done completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::editContents(Inode /*inode*/, std::int64_t /*contents*/, std::optional<std::uint64_t> /*madeFrom*/,
                              Done completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::touchContents(Inode /*inode*/, std::int64_t /*size*/, Timestamp /*modified*/) {}
void LocalEdits::describeContents(EditID /*id*/, std::int64_t /*size*/, Timestamp /*modified*/) {}
void LocalEdits::setModified(Inode /*inode*/, Timestamp /*modified*/, Made completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::setPermissions(Inode /*inode*/, bool /*isWritable*/, bool /*isExecutable*/, Made completion) {
  std::move(completion)(failure(readOnly()));
}
void LocalEdits::makeDurable(Done completion) {
  std::move(completion)({});
}
std::vector<Edit> LocalEdits::pending() const {
  return {};
}
std::size_t LocalEdits::pendingCount() const {
  return 0;
}
std::optional<Edit> LocalEdits::find(EditID /*id*/) const {
  return std::nullopt;
}
std::optional<Edit> LocalEdits::ofItem(Inode /*inode*/) const {
  return std::nullopt;
}
Inode LocalEdits::inodeOf(EditID /*id*/) const {
  return 0;
}
void LocalEdits::onChange(std::function<void()> changed) {
  changed_ = std::move(changed);
}
void LocalEdits::beginSending(EditID /*id*/, Completion<std::optional<Edit>> completion) {
  std::move(completion)(std::nullopt);
}
void LocalEdits::abandonSending(EditID /*id*/) {}
void LocalEdits::succeeded(const Edit& /*sent*/, std::uint32_t /*fields*/, SavedItem /*saved*/,
                           Completion<Outcome> completion) {
  std::move(completion)({});
}
void LocalEdits::deleted(const Edit& /*sent*/, Done completion) {
  std::move(completion)({});
}
void LocalEdits::failed(const Edit& /*sent*/, std::string /*error*/, std::optional<Timestamp> /*nextTry*/,
                        Done completion) {
  std::move(completion)({});
}
void LocalEdits::itemVanished(const Edit& /*sent*/, Done completion) {
  std::move(completion)({});
}
void LocalEdits::renameAside(const Edit& /*sent*/, Done completion) {
  std::move(completion)({});
}
void LocalEdits::undelete(const Edit& /*sent*/, Done completion) {
  std::move(completion)({});
}
void LocalEdits::retryAll() {}

}  // namespace vondle
