#include "service/contents/edited_contents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include "fileprovider/error_codes.h"
#include "platform/log.h"
#include "service/contents/file_copy.h"
#include "service/contents/lost_and_found.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "contents");

// Where files have their second names while they are sent.
constexpr std::string_view SENDING = "/sending";
constexpr std::size_t MAX_EXTENSION = 32;

Error noSuchItem() {
  return {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM};
}

// With its dot; empty when there is none.
std::string extensionOf(const std::string& filename) {
  const auto dot = filename.rfind('.');
  if (dot == std::string::npos || dot == 0 || filename.size() - dot > MAX_EXTENSION) return {};
  const auto extension = filename.substr(dot);
  return extension.find_first_of(std::string_view("/\0", 2)) == std::string::npos ? extension : std::string();
}

timespec timeOf(Timestamp time) {
  const double whole = std::floor(time.secondsSince1970);
  return {.tv_sec = static_cast<time_t>(whole), .tv_nsec = static_cast<long>((time.secondsSince1970 - whole) * 1e9)};
}

}  // namespace

// Makes the contents of one item something that programs can write to: the file that is there, a copy of one that is
// being sent, the downloaded copy (after downloading it), or an empty file; then the queue is told.
class EditedContents::Claim final : public std::enable_shared_from_this<Claim> {
 public:
  Claim(std::shared_ptr<EditedContents> store, Inode inode, bool keepsContents, Request request)
      : store_(std::move(store)), inode_(inode), keepsContents_(keepsContents), request_(request) {}

  void start() {
    ++attempts_;
    const auto attributes = store_->tree_.replica().attributes(inode_);
    if (!attributes || attributes->isFolder) return finish(failure(noSuchItem()));
    modified_ = attributes->modified;
    source_ = store_->find(inode_);
    if (source_ && !source_->isFrozen()) return finish(source_);
    if (!keepsContents_) return startEmpty();
    if (source_) return copy();
    fetch();
  }

  // Nobody waits any more.
  void abandon() {
    isAbandoned_ = true;
    wait_->cancel();
  }

 private:
  void startEmpty() {
    auto file = store_->makeEmpty();
    if (!file) return finish(failure(file.error()));
    record(std::move(*file), std::nullopt);
  }

  void copy() {
    const auto tag = store_->tagWhileSending(source_->number());
    if (!tag) return again();
    store_->copies_->post([self = shared_from_this(), tag] {
      auto file = self->store_->makeEmpty();
      if (!file) return self->finish(failure(file.error()));
      const int number = copyFileContents(self->source_->descriptor(), (*file)->descriptor());
      if (number != 0) return self->finish(failure(Error::posix(number, (*file)->path())));
      (*file)->setModified(timeOf(self->source_->modified()));
      self->record(std::move(*file), tag);
    });
  }

  void fetch() {
    store_->contents_->require(inode_, request_, wait_,
                               [self = shared_from_this()](const Result<std::shared_ptr<const ContentFile>>& result) {
                                 if (!result) return self->finish(failure(result.error()));
                                 self->takeOver();
                               });
  }

  void takeOver() {
    const auto number = store_->newNumber();
    auto path = store_->pathOf(number);
    store_->contents_->giveAway(inode_, path, [self = shared_from_this(), number, path](Result<std::uint64_t> tag) {
      if (!tag && tag.error().is(POSIX_ERROR_DOMAIN, EAGAIN)) return self->again();
      if (!tag) return self->finish(failure(tag.error()));
      self->store_->hasNewNames_ = true;
      self->isTakenOver_ = true;
      auto file = EditedFile::open(path, number);
      if (!file) return self->refused(file.error());
      (*file)->keep(false);
      (*file)->setModified(timeOf(self->modified_));
      self->record(std::move(*file), *tag);
    });
  }

  void record(std::shared_ptr<EditedFile> file, std::optional<std::uint64_t> madeFrom) {
    const auto number = file->number();
    store_->edits_->editContents(
        inode_, number, madeFrom,
        [self = shared_from_this(), file = std::move(file)](const Result<void>& recorded) {
          if (!recorded) return self->refused(recorded.error());
          self->store_->keep(self->inode_, file);
          self->finish(file);
        },
        // A program that was told that its call was interrupted must not lose what was there.
        [self = shared_from_this()] { return self->keepsContents_ || !self->isAbandoned_; });
  }

  void refused(const Error& error) {
    if (std::exchange(isTakenOver_, false)) store_->contents_->noteAbandoned(inode_);
    if (error.is(POSIX_ERROR_DOMAIN, ESTALE)) return again();
    finish(failure(error));
  }

  // Something has changed meanwhile.
  void again() {
    if (attempts_ >= MAX_ATTEMPTS)
      return finish(
          failure({COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, "The contents changed too often to be written to."}));
    store_->startAfterSending(source_ ? source_->number() : 0, shared_from_this());
  }

  void finish(const Result<std::shared_ptr<EditedFile>>& result) { store_->finished(inode_, isAbandoned_, result); }

  const std::shared_ptr<EditedContents> store_;
  const Inode inode_;
  const bool keepsContents_;
  const Request request_;
  const std::shared_ptr<Progress> wait_ = Progress::make();
  std::atomic<bool> isAbandoned_ = false;
  // Touched by one step at a time.
  Timestamp modified_;
  std::shared_ptr<EditedFile> source_;
  int attempts_ = 0;
  bool isTakenOver_ = false;
};

EditedContents::EditedContents(std::string folder, std::shared_ptr<ContentStore> contents,
                               std::shared_ptr<LocalEdits> edits, Tree& tree, Scheduler& scheduler, const Clock& clock)
    : folder_(std::move(folder)),
      contents_(std::move(contents)),
      edits_(std::move(edits)),
      tree_(tree),
      clock_(clock),
      copies_(scheduler.makeSerialQueue("com.ferrow.vondle.service.copies")),
      syncs_(scheduler.makeSerialQueue("com.ferrow.vondle.service.syncs")) {}

Result<std::shared_ptr<EditedContents>> EditedContents::open(std::string folder, std::shared_ptr<ContentStore> contents,
                                                             std::shared_ptr<LocalEdits> edits, Tree& tree,
                                                             Scheduler& scheduler, const Clock& clock) {
  std::shared_ptr<EditedContents> store(
      new EditedContents(std::move(folder), std::move(contents), std::move(edits), tree, scheduler, clock));
  const auto weak = std::weak_ptr(store);
  store->waiting_ = std::make_shared<WaitingRoom<std::shared_ptr<EditedFile>>>([weak](Inode inode) {
    if (const auto self = weak.lock()) self->abandoned(inode);
  });
  if (auto opened = store->openEdits(); !opened) return std::unexpected(opened.error());
  tree.subscribe([weak](const std::vector<ReplicaChange>& changes) {
    if (const auto self = weak.lock()) self->apply(changes);
  });
  return store;
}

Result<std::set<std::int64_t>> EditedContents::readFolder() {
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (error || ::chmod(folder_.c_str(), 0700) != 0)
    return failure(Error::posix(error ? error.value() : errno, folder_));
  std::filesystem::remove_all(folder_ + std::string(SENDING), error);
  if (!error) std::filesystem::create_directory(folder_ + std::string(SENDING), error);
  if (error) return failure(Error::posix(error.value(), folder_));
  std::set<std::int64_t> numbers;
  std::filesystem::directory_iterator files(folder_, error);
  for (; !error && files != std::filesystem::directory_iterator(); files.increment(error)) {
    const auto name = files->path().filename().native();
    if (const auto number = privateFileNumber(name))
      numbers.insert(*number);
    else if (name.ends_with(ContentStore::UNFINISHED))
      ::unlink(files->path().c_str());
  }
  if (error) return failure(Error::posix(error.value(), folder_));
  return numbers;
}

Result<void> EditedContents::openEdits() {
  auto left = readFolder();
  if (!left) return failure(left.error());
  // The time makes sure that no number comes back, also of a file that has gone.
  const auto lost = lostFiles(folder_);
  lastNumber_ = std::max({static_cast<std::int64_t>(clock_.now().secondsSince1970 * 1000),
                          left->empty() ? 0 : *left->rbegin(), lost.empty() ? 0 : *lost.rbegin()});
  for (const auto& edit : edits_->pending()) {
    if (edit.attempt) {
      left->erase(edit.attempt->contents);
      lastNumber_ = std::max(lastNumber_.load(), edit.attempt->contents);
    }
    if (edit.contents == 0) continue;
    lastNumber_ = std::max(lastNumber_.load(), edit.contents);
    if (left->erase(edit.contents) == 0 && lost.contains(edit.contents)) bringBack(folder_, edit.contents);
    auto file = EditedFile::open(pathOf(edit.contents), edit.contents);
    if (!file) {
      slog.error("what was edited is not there: %{public}@", file.error().localizedDescription());
      continue;
    }
    if (const Inode inode = edits_->inodeOf(edit.id); inode != 0) {
      keep(inode, *file);
    } else {
      (*file)->keep();
      MutexLock hold(lock_);
      hidden_[edit.contents] = *file;
      hasHidden_ = true;
    }
    edits_->describeContents(edit.id, (*file)->size(), (*file)->modified());
  }
  for (const auto& edit : edits_->pending())
    if (edit.attempt && edit.attempt->contents != 0) keepAsSent(edit);
  for (const auto number : *left)
    if (!setAside(folder_, number)) slog.error("a file that no change names stays in %{public}@", pathOf(number));
  if (const auto count = lostFiles(folder_).size(); count > 0)
    slog.error("%d file(s) of changes that the queue does not know are kept in %{public}@", count,
               lostAndFound(folder_));
  return {};
}

void EditedContents::keepAsSent(const Edit& edit) {
  const auto number = edit.attempt->contents;
  const Inode inode = edits_->inodeOf(edit.id);
  auto file = edit.contents == number ? find(inode) : nullptr;
  if (!file)
    if (auto opened = EditedFile::open(pathOf(number), number)) file = *opened;
  if (!file || !file->freeze()) return;
  const auto attributes = tree_.replica().attributes(inode);
  MutexLock hold(lock_);
  sending_[number] = {.file = file,
                      .inode = inode,
                      .contentTag = attributes ? attributes->contentTag : 0,
                      .isSuspended = true,
                      .claims = {}};
}

std::string EditedContents::pathOf(std::int64_t number) const {
  return fmt::format("{}/{}", folder_, number);
}

std::shared_ptr<EditedFile> EditedContents::find(Inode inode) {
  if (count_ > 0) {
    MutexLock hold(lock_);
    if (const auto found = files_.find(inode); found != files_.end()) return found->second;
  }
  return hasHidden_ ? findHidden(inode) : nullptr;
}

std::shared_ptr<EditedFile> EditedContents::findHidden(Inode inode) {
  const auto edit = edits_->ofItem(inode);
  const auto attributes = tree_.replica().attributes(inode);
  if (!edit || edit->contents == 0 || !attributes) return nullptr;
  std::shared_ptr<EditedFile> file;
  bool isBeingSent = false;
  {
    MutexLock hold(lock_);
    // Another may have been quicker.
    if (const auto found = files_.find(inode); found != files_.end()) return found->second;
    auto hidden = hidden_.extract(edit->contents);
    if (!hidden) return nullptr;
    hasHidden_ = !hidden_.empty();
    file = std::move(hidden.mapped());
    files_[inode] = file;
    inodes_[file->number()] = inode;
    count_ = files_.size();
    if (const auto sending = sending_.find(file->number()); sending != sending_.end()) {
      isBeingSent = true;
      sending->second.inode = inode;
      sending->second.contentTag = attributes->contentTag;
    }
  }
  contents_->noteEdited(inode, file->path());
  if (isBeingSent) contents_->noteSending(inode, true);
  return file;
}

Result<std::shared_ptr<EditedFile>> EditedContents::makeEmpty() {
  const auto number = newNumber();
  hasNewNames_ = true;
  return EditedFile::make(pathOf(number), number);
}

void EditedContents::keep(Inode inode, const std::shared_ptr<EditedFile>& file) {
  file->keep();
  file->noteUse(clock_.monotonic(), false);
  std::shared_ptr<EditedFile> former;
  bool isBeingSent = false;
  {
    MutexLock hold(lock_);
    former = std::exchange(files_[inode], file);
    inodes_[file->number()] = inode;
    if (former) inodes_.erase(former->number());
    isBeingSent = former && sending_.contains(former->number());
    count_ = files_.size();
  }
  contents_->noteEdited(inode, file->path());
  if (former) former->markDoneWith();
  if (former && !isBeingSent) removeLater(former);
}

void EditedContents::require(Inode inode, bool keepsContents, Request request, const std::shared_ptr<Progress>& wait,
                             Answer answer) {
  if (auto file = find(inode); file && !file->isFrozen()) return std::move(answer)(std::move(file));
  if (waiting_->enter(inode, wait, std::move(answer))) begin(inode, keepsContents, request);
}

void EditedContents::begin(Inode inode, bool keepsContents, Request request) {
  const auto claim = std::make_shared<Claim>(shared_from_this(), inode, keepsContents, request);
  {
    MutexLock hold(lock_);
    claims_[inode] = {claim, keepsContents, request};
  }
  claim->start();
  if (waiting_->waitingFor(inode) == 0) claim->abandon();
}

void EditedContents::abandoned(Inode inode) {
  std::shared_ptr<Claim> claim;
  {
    MutexLock hold(lock_);
    if (const auto found = claims_.find(inode); found != claims_.end()) claim = found->second.claim;
  }
  if (claim) claim->abandon();
}

void EditedContents::finished(Inode inode, bool wasAbandoned, const Result<std::shared_ptr<EditedFile>>& result) {
  Claimed claimed;
  {
    MutexLock hold(lock_);
    claimed = std::move(claims_.extract(inode).mapped());
  }
  // Somebody came after the last one had gone.
  if (!result && wasAbandoned && waiting_->waitingFor(inode) > 0)
    return copies_->post(
        [self = shared_from_this(), inode, claimed] { self->begin(inode, claimed.keepsContents, claimed.request); });
  waiting_->settle(inode, result);
}

std::optional<std::uint64_t> EditedContents::tagWhileSending(std::int64_t number) const {
  MutexLock hold(lock_);
  const auto found = sending_.find(number);
  return found == sending_.end() ? std::nullopt : std::optional(found->second.contentTag);
}

void EditedContents::startAfterSending(std::int64_t number, const std::shared_ptr<Claim>& claim) {
  {
    MutexLock hold(lock_);
    if (const auto found = sending_.find(number); found != sending_.end() && !found->second.isSuspended)
      return found->second.claims.push_back(claim);
  }
  copies_->post([claim] { claim->start(); });
}

void EditedContents::copy(std::shared_ptr<const void> source, int descriptor, Answer answer) {
  copies_->post(
      [self = shared_from_this(), source = std::move(source), descriptor, answer = std::move(answer)]() mutable {
        auto file = self->makeEmpty();
        if (file)
          if (const int number = copyFileContents(descriptor, (*file)->descriptor()); number != 0)
            file = failure(Error::posix(number, (*file)->path()));
        std::move(answer)(file);
      });
}

void EditedContents::makeDurable(std::shared_ptr<EditedFile> file, LocalEdits::Done completion) {
  syncs_->post([self = shared_from_this(), file = std::move(file), completion = std::move(completion)]() mutable {
    if (const int number = self->sync(file); number != 0)
      return std::move(completion)(failure(Error::posix(number, self->folder_)));
    self->edits_->makeDurable(std::move(completion));
  });
}

// 0 or the error number.
int EditedContents::sync(const std::shared_ptr<EditedFile>& file) {
  if (file && ::fdatasync(file->descriptor()) != 0) return errno;
  if (!hasNewNames_.exchange(false)) return 0;
  const int folder = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int number = folder >= 0 && ::fsync(folder) == 0 ? 0 : errno;
  if (folder >= 0) ::close(folder);
  if (number != 0) hasNewNames_ = true;
  return number;
}

void EditedContents::openedForWriting(Inode inode) {
  MutexLock hold(lock_);
  ++writers_[inode];
}

void EditedContents::closedForWriting(Inode inode) {
  std::shared_ptr<EditedFile> file;
  {
    MutexLock hold(lock_);
    if (const auto found = writers_.find(inode); found != writers_.end() && --found->second == 0) writers_.erase(found);
    if (const auto found = files_.find(inode); found != files_.end()) file = found->second;
  }
  if (file) file->noteUse(clock_.monotonic(), false);
}

bool EditedContents::tellOfChange(Inode inode) {
  const auto file = find(inode);
  if (!file || !file->takeChange()) return false;
  edits_->touchContents(inode, file->size(), file->modified());
  return true;
}

std::optional<Timestamp> EditedContents::busyUntil(Inode inode, Duration settle, Duration settleWhileOpen) const {
  bool isOpen = false;
  std::shared_ptr<EditedFile> file;
  {
    MutexLock hold(lock_);
    isOpen = writers_.contains(inode);
    if (const auto found = files_.find(inode); found != files_.end()) file = found->second;
  }
  if (!file) return std::nullopt;
  const auto left = (isOpen ? settleWhileOpen : settle) - (clock_.monotonic() - file->lastUse());
  if (left <= Duration::zero()) return std::nullopt;
  return Timestamp{clock_.now().secondsSince1970 + inSeconds(left)};
}

Result<EditedContents::Outgoing> EditedContents::beginSending(std::int64_t number, const std::string& filename) {
  std::shared_ptr<EditedFile> file;
  Inode inode = 0;
  bool isCurrent = false, isAsSent = false;
  {
    MutexLock hold(lock_);
    if (const auto found = inodes_.find(number); found != inodes_.end()) {
      isCurrent = true;
      inode = found->second;
      file = files_.at(inode);
    } else if (const auto hidden = hidden_.find(number); hidden != hidden_.end()) {
      file = hidden->second;
    }
    if (const auto found = sending_.find(number); found != sending_.end()) {
      isAsSent = true;
      file = found->second.file;
    }
  }
  // One that is there is about to be told of.
  if (!file) return failure(Error::posix(::access(pathOf(number).c_str(), F_OK) == 0 ? EBUSY : ENOENT, pathOf(number)));
  const bool isHidden = inode == 0;
  const auto attributes = tree_.replica().attributes(inode);
  if (!isAsSent) {
    if (!isHidden && tellOfChange(inode)) return failure(Error::posix(EBUSY, "the file was written to just now"));
    if ((!isHidden && !attributes) || !file->freeze())
      return failure(Error::posix(EBUSY, "the file is being written to"));
  }
  Outgoing outgoing{.path = fmt::format("{}{}/{}{}", folder_, SENDING, number, extensionOf(filename)),
                    .number = number,
                    .size = file->size(),
                    .modified = file->modified()};
  ::unlink(outgoing.path.c_str());
  if (::link(file->path().c_str(), outgoing.path.c_str()) != 0) {
    const int errorNumber = errno;
    if (!isAsSent) file->thaw();
    return failure(Error::posix(errorNumber, outgoing.path));
  }
  {
    MutexLock hold(lock_);
    if (isAsSent)
      sending_.at(number).isSuspended = false;
    else
      sending_[number] = {.file = file,
                          .inode = inode,
                          .contentTag = attributes ? attributes->contentTag : 0,
                          .isSuspended = false,
                          .claims = {}};
  }
  if (isCurrent) contents_->noteSending(inode, true);
  return outgoing;
}

void EditedContents::suspendSending(const Outgoing& outgoing) {
  ::unlink(outgoing.path.c_str());
  Inode inode = 0;
  bool isCurrent = false;
  std::vector<std::shared_ptr<Claim>> claims;
  {
    MutexLock hold(lock_);
    const auto found = sending_.find(outgoing.number);
    if (found == sending_.end()) return;
    inode = found->second.inode;
    isCurrent = inodes_.contains(outgoing.number);
    found->second.isSuspended = true;
    claims = std::exchange(found->second.claims, {});
  }
  if (isCurrent) contents_->noteSending(inode, false);
  startAll(claims);
}

void EditedContents::dropUnasked() {
  std::set<std::int64_t> unasked;
  {
    MutexLock hold(lock_);
    for (const auto& [number, sending] : sending_)
      if (sending.isSuspended && !inodes_.contains(number) && !hidden_.contains(number)) unasked.insert(number);
  }
  if (unasked.empty()) return;
  for (const auto& edit : edits_->pending())
    if (edit.attempt) unasked.erase(edit.attempt->contents);
  std::vector<std::shared_ptr<EditedFile>> files;
  {
    MutexLock hold(lock_);
    for (const auto number : unasked) {
      const auto found = sending_.find(number);
      if (found == sending_.end() || !found->second.isSuspended) continue;
      files.push_back(found->second.file);
      sending_.erase(found);
    }
  }
  for (const auto& file : files) {
    file->markDoneWith();
    removeLater(file);
  }
}

void EditedContents::noteSent(const Outgoing& outgoing) {
  MutexLock hold(lock_);
  if (const auto found = sending_.find(outgoing.number); found != sending_.end()) found->second.file->markDoneWith();
}

void EditedContents::endSending(const Outgoing& outgoing, const LocalEdits::Outcome& outcome,
                                bool serverHasTheseBytes) {
  ::unlink(outgoing.path.c_str());
  std::shared_ptr<EditedFile> file;
  Inode inode = 0;
  bool isCurrent = false;
  bool isHidden = false;
  {
    MutexLock hold(lock_);
    const auto found = sending_.find(outgoing.number);
    if (found == sending_.end()) return;
    file = found->second.file;
    inode = found->second.inode;
    isCurrent = inodes_.contains(outgoing.number);
    if (outcome.isContentsDone) {
      hidden_.erase(outgoing.number);
      hasHidden_ = !hidden_.empty();
    }
    isHidden = hidden_.contains(outgoing.number);
  }
  if (isHidden) {
    file->keep();
    file->thaw();
    return sendingEnded(outgoing.number);
  }
  if (!isCurrent) {
    removeLater(file);
    return sendingEnded(outgoing.number);
  }
  if (!outcome.isContentsDone) {
    file->keep();
    file->thaw();
    contents_->noteSending(inode, false);
    return sendingEnded(outgoing.number);
  }
  file->markDoneWith();
  if (!serverHasTheseBytes || outcome.inode != inode) return letGo(inode, file, std::nullopt);
  // What the name and the size of a downloaded copy tell of it must be true also after power loss.
  syncs_->post([self = shared_from_this(), inode, file, tag = outcome.contentTag] {
    ::fdatasync(file->descriptor());
    self->contents_->takeBack(inode, tag, file->path(), [self, inode, file, tag] { self->letGo(inode, file, tag); });
  });
}

void EditedContents::letGo(Inode inode, const std::shared_ptr<EditedFile>& file, std::optional<std::uint64_t> tag) {
  bool isCurrent = false;
  Settled settled;
  {
    MutexLock hold(lock_);
    isCurrent = inodes_.erase(file->number()) > 0;
    if (isCurrent) files_.erase(inode);
    count_ = files_.size();
    settled = settled_;
  }
  if (isCurrent && !tag) contents_->noteAbandoned(inode);
  removeLater(file);
  if (isCurrent && settled) settled(inode, tag);
  sendingEnded(file->number());
}

void EditedContents::sendingEnded(std::int64_t number) {
  std::vector<std::shared_ptr<Claim>> claims;
  {
    MutexLock hold(lock_);
    if (auto ended = sending_.extract(number)) claims = std::move(ended.mapped().claims);
  }
  startAll(claims);
}

void EditedContents::startAll(const std::vector<std::shared_ptr<Claim>>& claims) {
  for (const auto& claim : claims) copies_->post([claim] { claim->start(); });
}

void EditedContents::apply(const std::vector<ReplicaChange>& changes) {
  for (const auto& change : changes) {
    if (change.kind != ReplicaChange::Kind::itemRemoved) continue;
    const auto file = takeOut(change.inode);
    if (!file) continue;
    contents_->noteAbandoned(change.inode);
    if (keepIfNeeded(file)) continue;
    bool isBeingSent = false;
    {
      MutexLock hold(lock_);
      isBeingSent = sending_.contains(file->number());
    }
    file->markDoneWith();
    if (!isBeingSent) removeLater(file);
  }
  dropUnasked();
}

std::shared_ptr<EditedFile> EditedContents::takeOut(Inode inode) {
  MutexLock hold(lock_);
  auto found = files_.extract(inode);
  if (!found) return nullptr;
  inodes_.erase(found.mapped()->number());
  count_ = files_.size();
  return std::move(found.mapped());
}

// The user put it, or a folder above it, into the trash: it still goes up.
bool EditedContents::keepIfNeeded(const std::shared_ptr<EditedFile>& file) {
  if (std::ranges::none_of(edits_->pending(), [&](const Edit& edit) { return edit.contents == file->number(); }))
    return false;
  MutexLock hold(lock_);
  hidden_[file->number()] = file;
  hasHidden_ = true;
  return true;
}

std::shared_ptr<EditedFile> EditedContents::findNumber(std::int64_t number) {
  MutexLock hold(lock_);
  if (const auto hidden = hidden_.find(number); hidden != hidden_.end()) return hidden->second;
  const auto found = inodes_.find(number);
  return found == inodes_.end() ? nullptr : files_.at(found->second);
}

void EditedContents::dropUnnamed() {
  std::set<std::int64_t> named;
  for (const auto& edit : edits_->pending()) named.insert(edit.contents);
  std::vector<std::shared_ptr<EditedFile>> files;
  {
    MutexLock hold(lock_);
    for (auto next = hidden_.begin(); next != hidden_.end();) {
      const auto each = next++;
      if (named.contains(each->first)) continue;
      if (!sending_.contains(each->first)) files.push_back(each->second);
      hidden_.erase(each);
    }
    hasHidden_ = !hidden_.empty();
  }
  for (const auto& file : files) {
    file->markDoneWith();
    removeLater(file);
  }
}

void EditedContents::removeLater(const std::shared_ptr<EditedFile>& file) {
  bool isFirst = false;
  {
    MutexLock hold(lock_);
    isFirst = removals_.empty();
    removals_.push_back(file->path());
  }
  if (!isFirst) return;
  syncs_->after(REMOVAL_DELAY, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->removeNow();
  });
}

void EditedContents::removeNow() {
  std::vector<std::string> paths;
  {
    MutexLock hold(lock_);
    paths = std::exchange(removals_, {});
  }
  edits_->makeDurable([self = shared_from_this(), paths = std::move(paths)](const Result<void>& durable) mutable {
    // They are removed at the next start.
    if (!durable)
      return slog.error("files that are no longer needed stay: %{public}@", durable.error().localizedDescription());
    self->syncs_->post([paths = std::move(paths)] {
      for (const auto& path : paths) ::unlink(path.c_str());
    });
  });
}

void EditedContents::onSettled(Settled settled) {
  MutexLock hold(lock_);
  settled_ = std::move(settled);
}

}  // namespace vondle
