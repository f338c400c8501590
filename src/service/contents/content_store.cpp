#include "service/contents/content_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include "fileprovider/error_codes.h"
#include "platform/log.h"
#include "service/contents/file_copy.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "contents");

// A background fetch that has come this far is not begun anew for a program.
constexpr double WORTH_KEEPING = 0.5;

struct ContentName {
  Inode inode = 0;
  std::uint64_t tag = 0;
};

std::optional<ContentName> parseName(std::string_view name) {
  const auto hyphen = name.find('-');
  if (hyphen == std::string_view::npos || name.size() != hyphen + 17) return std::nullopt;
  ContentName parsed;
  const auto* const end = name.data() + name.size();
  if (std::from_chars(name.data(), name.data() + hyphen, parsed.inode).ptr != name.data() + hyphen) return std::nullopt;
  if (std::from_chars(name.data() + hyphen + 1, end, parsed.tag, 16).ptr != end) return std::nullopt;
  return parsed;
}

Error noSuchItem() {
  return {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM};
}
Error broken(std::string description) {
  return {COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, std::move(description)};
}

void saveUse(const ContentFile& file, Timestamp now) {
  const auto whole = static_cast<std::time_t>(now.secondsSince1970);
  const timespec times[] = {{.tv_sec = whole, .tv_nsec = 0}, {.tv_sec = 0, .tv_nsec = UTIME_OMIT}};
  ::futimens(file.descriptor(), times);
}

// 0 or the error number.
int copyFile(const std::string& from, const std::string& to) {
  const int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  const int target = source < 0 ? -1 : ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  int number = target < 0 ? errno : copyFileContents(source, target);
  if (source >= 0) ::close(source);
  if (target >= 0 && ::close(target) != 0 && number == 0) number = errno;
  return number;
}

// The copy has its name only when it is whole.
Result<void> placeCopy(const std::string& from, const std::string& to) {
  const auto unfinished = to + std::string(ContentStore::UNFINISHED);
  int number = copyFile(from, unfinished);
  if (number == 0 && ::rename(unfinished.c_str(), to.c_str()) != 0) number = errno;
  if (number == 0) return {};
  ::unlink(unfinished.c_str());
  return failure(Error::posix(number, to));
}

// Gives the file its place, also from another file system.
Result<void> moveFile(const std::string& from, const std::string& to) {
  if (::chmod(from.c_str(), 0600) != 0) return failure(Error::posix(errno, from));
  if (::rename(from.c_str(), to.c_str()) == 0) return {};
  if (errno != EXDEV) return failure(Error::posix(errno, to));
  auto copied = placeCopy(from, to);
  if (copied) ::unlink(from.c_str());
  return copied;
}

// Gives the file a second place; the first is not written to any more.
Result<void> shareFile(const std::string& from, const std::string& to) {
  ::unlink(to.c_str());
  return ::link(from.c_str(), to.c_str()) == 0 ? Result<void>() : placeCopy(from, to);
}

}  // namespace

// Brings the contents of one item: asks the extension, checks what came, lets the replica know of a newer version, and
// begins anew when the server's contents changed meanwhile or a program cannot wait behind the background.
class ContentStore::Fetch final : public std::enable_shared_from_this<Fetch> {
 public:
  Fetch(std::shared_ptr<ContentStore> store, Inode inode, Request request)
      : store_(std::move(store)), inode_(inode), request_(request) {}

  void start() EXCLUDES(lock_) {
    const auto attributes = replica().attributes(inode_);
    const auto identifier = replica().identifierOf(inode_);
    if (!attributes || attributes->isFolder || !identifier) return finish(failure(noSuchItem()));
    tagAtStart_ = attributes->contentTag;
    identifier_ = *identifier;
    {
      MutexLock hold(lock_);
      isReplaced_ = false;
      progress_ = nullptr;
      ++attempts_;
    }
    room_ = nullptr;
    store_->reserve(inode_, attributes->size, [self = shared_from_this()](Result<Room> room) {
      if (!room) return self->finish(failure(std::move(room.error())));
      self->room_ = std::move(*room);
      // Not on a queue that others wait for, nor on the kernel's thread: the extension reads the keyring before it
      // sends anything.
      self->store_->scheduler_.global().post([self] { self->ask(); });
    });
  }

  // Nobody waits any more.
  void abandon() EXCLUDES(lock_) {
    std::shared_ptr<Progress> progress;
    {
      MutexLock hold(lock_);
      isAbandoned_ = true;
      progress = progress_;
    }
    if (progress) progress->cancel();
  }

  // A program waits for it now.
  void hurry(Request request) EXCLUDES(lock_) {
    const auto running = progress();
    if (running && running->fractionCompleted() >= WORTH_KEEPING) return;
    {
      MutexLock hold(lock_);
      // Not begun yet.
      if (!running && !progress_) request_ = request;
      if (!running || request_.isFileViewerRequest || progress_ != running) return;
      request_ = request;
      isReplaced_ = true;
    }
    running->cancel();
  }

  [[nodiscard]] std::shared_ptr<Progress> progress() const EXCLUDES(lock_) {
    MutexLock hold(lock_);
    return progress_;
  }

 private:
  Replica& replica() { return store_->tree_.replica(); }

  void ask() EXCLUDES(lock_) {
    Request request;
    bool isUnwanted = false;
    {
      MutexLock hold(lock_);
      request = request_;
      isUnwanted = isAbandoned_;
    }
    if (isUnwanted) return finish(failure({COCOA_ERROR_DOMAIN, USER_CANCELLED}));
    auto progress = store_->extension_.fetchContents(
        identifier_, std::nullopt, request,
        [self = shared_from_this()](Result<FetchedContents> result) { self->answered(std::move(result)); });
    {
      MutexLock hold(lock_);
      progress_ = progress;
      isUnwanted = isAbandoned_;
    }
    if (isUnwanted && progress) progress->cancel();
  }

  void answered(Result<FetchedContents> result) EXCLUDES(lock_) {
    if (result) {
      store_->queue_->post(
          [self = shared_from_this(), contents = std::move(*result)]() mutable { self->check(std::move(contents)); });
      return;
    }
    bool isReplaced = false;
    {
      MutexLock hold(lock_);
      isReplaced = isReplaced_ && !isAbandoned_;
    }
    // Through the queue, for an extension that answers at once.
    if (isReplaced) return store_->queue_->post([self = shared_from_this()] { self->start(); });
    if (!replica().attributes(inode_)) return finish(failure(noSuchItem()));
    if (result.error().is(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM)) return askServer(std::move(result.error()));
    finish(failure(std::move(result.error())));
  }

  // The replica knows the item that the extension did not find.
  void askServer(Error notFound) {
    const auto checkServer = store_->serverCheck();
    if (!checkServer) return finish(failure(std::move(notFound)));
    checkServer([self = shared_from_this(), notFound = std::move(notFound)](std::optional<Error> error) mutable {
      self->finish(failure(error ? std::move(*error) : std::move(notFound)));
    });
  }

  void check(FetchedContents contents) {
    contents_ = std::move(contents);
    struct stat status{};
    if (::stat(contents_.path.c_str(), &status) != 0) return discard(Error::posix(errno, contents_.path));
    const Item& item = contents_.item;
    if (item.itemIdentifier != identifier_ || item.isFolder())
      return discard(broken("The contents of another item were delivered."));
    if (item.documentSize.value_or(status.st_size) != status.st_size)
      return discard(broken(fmt::format("{} bytes were delivered instead of {}.", status.st_size, *item.documentSize)));
    tag_ = TreeState::contentTag(item.itemIdentifier.text, item.itemVersion.contentVersion);
    const auto attributes = replica().attributes(inode_);
    if (!attributes) return discard(noSuchItem());
    if (attributes->contentTag == tag_ || attributes->contentTag != tagAtStart_) return keep();
    // Newer than what the replica knows, which has heard nothing since this began.
    store_->tree_.applyUpdates({item},
                               [self = shared_from_this()] { self->store_->queue_->post([self] { self->keep(); }); });
  }

  void keep() {
    const auto attributes = replica().attributes(inode_);
    if (!attributes) return discard(noSuchItem());
    if (attributes->contentTag != tag_) return again();
    const auto path = store_->pathOf(inode_, tag_);
    ::mkdir(store_->folder_.c_str(), 0700);  // which may have been removed to make room
    if (auto moved = moveFile(contents_.path, path); !moved) return discard(std::move(moved.error()));
    finish(ContentFile::open(path, tag_));
  }

  // The contents changed on the server while they were fetched.
  void again() EXCLUDES(lock_) {
    ::unlink(contents_.path.c_str());
    bool isAbandoned = false;
    int attempts = 0;
    {
      MutexLock hold(lock_);
      isAbandoned = isAbandoned_;
      attempts = attempts_;
    }
    if (isAbandoned) return finish(failure({COCOA_ERROR_DOMAIN, USER_CANCELLED}));
    if (attempts >= MAX_ATTEMPTS) return finish(failure(broken("The contents changed too often to be fetched.")));
    start();
  }

  void discard(Error error) {
    ::unlink(contents_.path.c_str());
    finish(failure(std::move(error)));
  }

  void finish(const Result<std::shared_ptr<const ContentFile>>& result) EXCLUDES(lock_) {
    Request request;
    bool isAbandoned = false;
    {
      MutexLock hold(lock_);
      request = request_;
      isAbandoned = isAbandoned_;
    }
    store_->finished(inode_, shared_from_this(), request, isAbandoned, result);
    room_ = nullptr;
  }

  const std::shared_ptr<ContentStore> store_;
  const Inode inode_;
  // Touched by one step at a time.
  ItemIdentifier identifier_;
  Room room_;
  std::uint64_t tagAtStart_ = 0;
  FetchedContents contents_;
  std::uint64_t tag_ = 0;

  mutable Mutex lock_;
  Request request_ GUARDED_BY(lock_);
  std::shared_ptr<Progress> progress_ GUARDED_BY(lock_);
  int attempts_ GUARDED_BY(lock_) = 0;
  bool isAbandoned_ GUARDED_BY(lock_) = false;
  bool isReplaced_ GUARDED_BY(lock_) = false;
};

ContentStore::ContentStore(std::string folder, Tree& tree, ReplicatedExtension& extension, LastErrors& errors,
                           Scheduler& scheduler, const Clock& clock)
    : folder_(std::move(folder)),
      tree_(tree),
      extension_(extension),
      errors_(errors),
      clock_(clock),
      scheduler_(scheduler),
      queue_(scheduler.makeSerialQueue("com.ferrow.vondle.service.contents")) {}

Result<std::shared_ptr<ContentStore>> ContentStore::open(std::string folder, Tree& tree, ReplicatedExtension& extension,
                                                         LastErrors& errors, Scheduler& scheduler, const Clock& clock) {
  std::shared_ptr<ContentStore> store(new ContentStore(std::move(folder), tree, extension, errors, scheduler, clock));
  store->waiting_ =
      std::make_shared<WaitingRoom<std::shared_ptr<const ContentFile>>>([weak = std::weak_ptr(store)](Inode inode) {
        if (const auto self = weak.lock()) self->abandoned(inode);
      });
  if (auto scanned = store->scan(); !scanned) return std::unexpected(scanned.error());
  return store;
}

Result<void> ContentStore::scan() {
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (error || ::chmod(folder_.c_str(), 0700) != 0)
    return failure(Error::posix(error ? error.value() : errno, folder_));
  std::filesystem::directory_iterator files(folder_, error);
  if (error) return failure(Error::posix(error.value(), folder_));
  for (; files != std::filesystem::directory_iterator(); files.increment(error)) {
    if (error) return failure(Error::posix(error.value(), folder_));
    std::error_code failed;
    if (!files->is_regular_file(failed) || files->is_symlink(failed)) continue;
    const auto name = parseName(files->path().filename().native());
    const auto attributes = name ? tree_.replica().attributes(name->inode) : std::nullopt;
    struct stat status{};
    const bool isThere = ::lstat(files->path().c_str(), &status) == 0;
    // The size shows a file that power loss has cut short.
    if (attributes && !attributes->isFolder && attributes->contentTag == name->tag && isThere &&
        attributes->size == status.st_size) {
      const Timestamp lastUse{static_cast<double>(status.st_atim.tv_sec)};
      MutexLock hold(lock_);
      auto& record = records_[name->inode];
      record.state = ContentState::clean;
      record.tag = name->tag;
      record.size = status.st_size;
      record.lastUse = record.savedUse = lastUse;
      bytesHere_ += record.size;
    } else if (name || files->path().native().ends_with(UNFINISHED)) {
      std::filesystem::remove(files->path(), failed);
    }
  }
  return {};
}

std::string ContentStore::pathOf(Inode inode, std::uint64_t tag) const {
  return fmt::format("{}/{}-{:016x}", folder_, inode, tag);
}

std::shared_ptr<const ContentFile> ContentStore::current(Inode inode) {
  const auto attributes = tree_.replica().attributes(inode);
  if (!attributes) return nullptr;
  const auto now = clock_.now();
  bool isUseNews = false;
  std::shared_ptr<const ContentFile> file;
  {
    MutexLock hold(lock_);
    const auto found = records_.find(inode);
    if (found == records_.end() || found->second.state != ContentState::clean ||
        found->second.tag != attributes->contentTag)
      return nullptr;
    isUseNews = noteUse(found->second, now);
    file = found->second.file.lock();
  }
  if (!file) file = openCurrent(inode, attributes->contentTag);
  if (file && isUseNews) saveUse(*file, now);
  return file;
}

std::shared_ptr<const ContentFile> ContentStore::openCurrent(Inode inode, std::uint64_t tag) {
  const auto file = ContentFile::open(pathOf(inode, tag), tag);
  MutexLock hold(lock_);
  const auto found = records_.find(inode);
  const bool isAsBefore =
      found != records_.end() && found->second.state == ContentState::clean && found->second.tag == tag;
  if (file) {
    if (isAsBefore) found->second.file = *file;
    return *file;
  }
  // Otherwise they have just been dropped.
  if (isAsBefore) {
    slog.error("contents that should be here are not: %{public}@", file.error().localizedDescription());
    move(inode, ContentEvent::evicted);
  }
  return nullptr;
}

bool ContentStore::noteUse(Record& record, Timestamp now) {
  record.lastUse = now;
  const bool isNews = std::abs(now.secondsSince1970 - record.savedUse.secondsSince1970) >= inSeconds(USE_ACCURACY);
  if (isNews) record.savedUse = now;
  return isNews;
}

void ContentStore::require(Inode inode, Request request, const std::shared_ptr<Progress>& wait, ContentAnswer answer) {
  std::optional<Error> closed;
  {
    MutexLock hold(lock_);
    closed = closed_;
  }
  if (closed) return std::move(answer)(failure(std::move(*closed)));
  const auto attributes = tree_.replica().attributes(inode);
  if (!attributes || attributes->isFolder) return std::move(answer)(failure(noSuchItem()));
  if (auto file = current(inode)) return std::move(answer)(std::move(file));
  if (const auto path = privatePathOf(inode))
    return std::move(answer)(ContentFile::open(*path, attributes->contentTag));
  if (waiting_->enter(inode, wait, std::move(answer))) return begin(inode, request);
  if (!request.isFileViewerRequest) return;
  if (const auto fetch = fetchOf(inode)) fetch->hurry(request);
}

void ContentStore::begin(Inode inode, Request request) {
  const auto fetch = std::make_shared<Fetch>(shared_from_this(), inode, request);
  std::string stale, edited;
  bool isBegun = false;
  {
    MutexLock hold(lock_);
    const auto found = records_.find(inode);
    if (found != records_.end() && found->second.state == ContentState::clean) {
      stale = pathOf(inode, found->second.tag);
      move(inode, ContentEvent::changed);
    }
    isBegun = move(inode, ContentEvent::wanted);
    if (isBegun)
      records_[inode].fetch = fetch;
    else
      edited = records_[inode].privatePath;
  }
  if (!stale.empty()) removeLater(std::move(stale));
  if (!isBegun) return waiting_->settle(inode, ContentFile::open(edited, 0));
  fetch->start();
  if (waiting_->waitingFor(inode) == 0) fetch->abandon();
}

void ContentStore::checkServerWith(ServerCheck check) {
  MutexLock hold(lock_);
  checkServer_ = std::move(check);
}

ContentStore::ServerCheck ContentStore::serverCheck() const {
  MutexLock hold(lock_);
  return checkServer_;
}

void ContentStore::reserveWith(Reserve reserve) {
  MutexLock hold(lock_);
  reserve_ = std::move(reserve);
}

void ContentStore::reserve(Inode inode, std::int64_t bytes, Completion<Result<Room>> answer) {
  Reserve reserve;
  {
    MutexLock hold(lock_);
    reserve = reserve_;
  }
  if (reserve) return reserve(inode, bytes, std::move(answer));
  std::move(answer)(Room());
}

void ContentStore::abandoned(Inode inode) {
  if (const auto fetch = fetchOf(inode)) fetch->abandon();
}

bool ContentStore::take(Inode inode, const std::shared_ptr<Fetch>& fetch,
                        const Result<std::shared_ptr<const ContentFile>>& result) {
  MutexLock hold(lock_);
  const auto found = records_.find(inode);
  if (found == records_.end() || found->second.fetch != fetch) {
    return found != records_.end() && result && found->second.tag == (*result)->tag();
  }
  move(inode, result ? ContentEvent::arrived : ContentEvent::failed);
  if (!result) return true;
  auto& record = found->second;
  record.tag = (*result)->tag();
  record.size = (*result)->size();
  record.lastUse = record.savedUse = clock_.now();  // the file is new
  record.file = *result;
  record.fetch = nullptr;
  bytesHere_ += record.size;
  return true;
}

void ContentStore::finished(Inode inode, const std::shared_ptr<Fetch>& fetch, Request request, bool wasAbandoned,
                            const Result<std::shared_ptr<const ContentFile>>& result) {
  if (!take(inode, fetch, result) && result) removeLater(pathOf(inode, (*result)->tag()));
  if (result) {
    errors_.forget(inode);
  } else if (wasAbandoned && waiting_->waitingFor(inode) > 0) {
    // Somebody came after the last one had gone.
    queue_->post([self = shared_from_this(), inode, request] { self->begin(inode, request); });
    return;
  } else if (!wasAbandoned) {
    errors_.note(inode, result.error(), clock_.now());
  }
  waiting_->settle(inode, result);
}

std::optional<Error> ContentStore::evict(Inode inode) {
  std::string path;
  {
    MutexLock hold(lock_);
    const auto found = records_.find(inode);
    if (found == records_.end()) return std::nullopt;
    path = pathOf(inode, found->second.tag);
    const bool isFetched = found->second.state == ContentState::fetching;
    if (!move(inode, ContentEvent::evicted))
      return Error::posix(EBUSY,
                          isFetched ? "the contents are being fetched" : "the contents are not on the server yet");
  }
  removeLater(std::move(path));
  return std::nullopt;
}

std::vector<CachedFile> ContentStore::cachedFiles() const {
  std::vector<CachedFile> files;
  MutexLock hold(lock_);
  files.reserve(records_.size());
  for (const auto& [inode, record] : records_) {
    if (record.state == ContentState::clean)
      files.push_back(
          {.inode = inode, .bytes = record.size, .lastUse = record.lastUse, .isOpen = !record.file.expired()});
  }
  return files;
}

bool ContentStore::evictUnused(Inode inode, Timestamp lastUse) {
  std::string path;
  {
    MutexLock hold(lock_);
    const auto found = records_.find(inode);
    if (found == records_.end() || found->second.state != ContentState::clean || found->second.lastUse != lastUse ||
        !found->second.file.expired())
      return false;
    path = pathOf(inode, found->second.tag);
    move(inode, ContentEvent::evicted);
  }
  removeLater(std::move(path));
  return true;
}

void ContentStore::giveAway(Inode inode, std::string path, GivenAway completion) {
  queue_->post(
      [self = shared_from_this(), inode, path = std::move(path), completion = std::move(completion)]() mutable {
        std::uint64_t tag = 0;
        {
          MutexLock hold(self->lock_);
          const auto found = self->records_.find(inode);
          if (found != self->records_.end() && found->second.state == ContentState::clean) tag = found->second.tag;
        }
        if (tag == 0) return std::move(completion)(failure(Error::posix(EAGAIN, "the contents are not here")));
        const auto moved = moveFile(self->pathOf(inode, tag), path);
        {
          MutexLock hold(self->lock_);
          if (moved) {
            self->becomeEdited(inode, std::move(path));
          } else if (moved.error().is(POSIX_ERROR_DOMAIN, ENOENT)) {
            self->move(inode, ContentEvent::evicted);
          }
        }
        if (moved) return std::move(completion)(tag);
        const bool isGone = moved.error().is(POSIX_ERROR_DOMAIN, ENOENT);
        std::move(completion)(failure(isGone ? Error::posix(EAGAIN, "the contents are not here") : moved.error()));
      });
}

void ContentStore::noteEdited(Inode inode, std::string path) {
  std::string stale;
  {
    MutexLock hold(lock_);
    const auto found = records_.find(inode);
    if (found != records_.end() && found->second.state == ContentState::clean) stale = pathOf(inode, found->second.tag);
    becomeEdited(inode, std::move(path));
  }
  if (!stale.empty()) removeLater(std::move(stale));
}

void ContentStore::noteSending(Inode inode, bool isSending) {
  MutexLock hold(lock_);
  move(inode, isSending ? ContentEvent::sent : ContentEvent::kept);
}

void ContentStore::takeBack(Inode inode, std::uint64_t tag, std::string path, Completion<> completion) {
  queue_->post(
      [self = shared_from_this(), inode, tag, path = std::move(path), completion = std::move(completion)]() mutable {
        const auto place = self->pathOf(inode, tag);
        ::mkdir(self->folder_.c_str(), 0700);
        const auto shared = shareFile(path, place);
        const auto file = shared ? ContentFile::open(place, tag) : failure(shared.error());
        bool isTaken = false;
        {
          MutexLock hold(self->lock_);
          isTaken = file && self->move(inode, ContentEvent::saved);
          if (isTaken) {
            auto& record = self->records_[inode];
            record.tag = tag;
            record.size = (*file)->size();
            static_cast<void>(self->noteUse(record, self->clock_.now()));
            record.file = *file;
            record.privatePath.clear();
            self->bytesHere_ += record.size;
          }
        }
        if (isTaken) saveUse(**file, self->clock_.now());
        // They are on the server, and can be had again from there.
        if (!isTaken) {
          ::unlink(place.c_str());
          self->noteAbandoned(inode);
        }
        std::move(completion)();
      });
}

void ContentStore::noteAbandoned(Inode inode) {
  Abandoned heard;
  {
    MutexLock hold(lock_);
    if (move(inode, ContentEvent::abandoned)) heard = abandoned_;
  }
  if (heard) heard(inode);
}

void ContentStore::onAbandoned(Abandoned heard) {
  MutexLock hold(lock_);
  abandoned_ = std::move(heard);
}

void ContentStore::becomeEdited(Inode inode, std::string path) {
  move(inode, ContentEvent::edited);
  auto& record = records_[inode];
  // A fetch that is under way brings something to those who wait for it, and nothing else.
  record = Record();
  record.state = ContentState::edited;
  record.privatePath = std::move(path);
}

std::optional<std::string> ContentStore::privatePathOf(Inode inode) const {
  MutexLock hold(lock_);
  const auto found = records_.find(inode);
  if (found == records_.end() || found->second.privatePath.empty()) return std::nullopt;
  return found->second.privatePath;
}

void ContentStore::apply(const std::vector<ReplicaChange>& changes) {
  std::vector<std::string> stale;
  std::vector<std::shared_ptr<Fetch>> unwanted;
  {
    MutexLock hold(lock_);
    for (const auto& change : changes) {
      const auto inode = change.inode;
      const bool isRemoved = change.kind == ReplicaChange::Kind::itemRemoved;
      if (change.kind != ReplicaChange::Kind::contentsChanged && !isRemoved) continue;
      const auto found = records_.find(inode);
      if (found == records_.end()) continue;
      if (found->second.state == ContentState::clean) stale.push_back(pathOf(inode, found->second.tag));
      if (found->second.fetch && isRemoved) unwanted.push_back(found->second.fetch);
      move(inode, ContentEvent::changed);
    }
  }
  for (auto& path : stale) removeLater(std::move(path));
  for (const auto& fetch : unwanted)
    if (const auto progress = fetch->progress()) progress->cancel();
}

ContentState ContentStore::state(Inode inode) const {
  MutexLock hold(lock_);
  const auto found = records_.find(inode);
  return found == records_.end() ? ContentState::absent : found->second.state;
}

std::int64_t ContentStore::bytesHere() const {
  MutexLock hold(lock_);
  return bytesHere_;
}

std::int64_t ContentStore::bytesHere(Inode inode) const {
  std::string edited;
  {
    MutexLock hold(lock_);
    const auto found = records_.find(inode);
    if (found == records_.end()) return 0;
    if (found->second.state == ContentState::clean) return found->second.size;
    edited = found->second.privatePath;
  }
  struct stat status{};
  return !edited.empty() && ::stat(edited.c_str(), &status) == 0 ? status.st_size : 0;
}

std::size_t ContentStore::filesHere() const {
  MutexLock hold(lock_);
  std::size_t count = 0;
  for (const auto& [inode, record] : records_) count += record.state == ContentState::clean ? 1 : 0;
  return count;
}

std::vector<ContentTransfer> ContentStore::transfers() const {
  std::vector<std::pair<Inode, std::shared_ptr<Fetch>>> fetches;
  {
    MutexLock hold(lock_);
    for (const auto& [inode, record] : records_)
      if (record.fetch) fetches.emplace_back(inode, record.fetch);
  }
  std::vector<ContentTransfer> transfers;
  for (const auto& [inode, fetch] : fetches)
    transfers.push_back({inode, fetch->progress(), waiting_->waitingFor(inode) > 0});
  return transfers;
}

std::shared_ptr<Progress> ContentStore::progressOf(Inode inode) const {
  const auto fetch = fetchOf(inode);
  return fetch ? fetch->progress() : nullptr;
}

void ContentStore::close(Error error) {
  std::vector<std::shared_ptr<Fetch>> fetches;
  {
    MutexLock hold(lock_);
    closed_ = error;
    for (const auto& [inode, record] : records_)
      if (record.fetch) fetches.push_back(record.fetch);
  }
  waiting_->settleAll(failure(error));
  for (const auto& fetch : fetches) fetch->abandon();
}

std::shared_ptr<ContentStore::Fetch> ContentStore::fetchOf(Inode inode) const {
  MutexLock hold(lock_);
  const auto found = records_.find(inode);
  return found == records_.end() ? nullptr : found->second.fetch;
}

bool ContentStore::move(Inode inode, ContentEvent event) {
  const auto found = records_.find(inode);
  const auto before = found == records_.end() ? ContentState::absent : found->second.state;
  const auto after = contentStateAfter(before, event);
  if (!after) return false;
  if (before == ContentState::clean && *after != ContentState::clean) bytesHere_ -= found->second.size;
  if (*after == ContentState::absent)
    records_.erase(inode);
  else
    records_[inode].state = *after;
  return true;
}

void ContentStore::removeLater(std::string path) {
  queue_->post([path = std::move(path)] { ::unlink(path.c_str()); });
}

}  // namespace vondle
