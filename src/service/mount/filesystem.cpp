#include "service/mount/filesystem.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "service/error_number.h"

namespace vondle {
namespace {

constexpr Request VIEWER{.isFileViewerRequest = true};

// Positions in a folder: 0 and 1 are the two names every folder has, then come the children.
constexpr std::int64_t FIRST_CHILD = 2;
constexpr std::size_t ENTRIES_AT_ONCE = 64;

NodeAttributes nodeOf(const ItemAttributes& item) {
  unsigned permissions = 0;
  if (item.fileSystemFlags & USER_READABLE) permissions |= 0400;
  if (item.fileSystemFlags & USER_WRITABLE) permissions |= 0200;
  if (item.fileSystemFlags & USER_EXECUTABLE) permissions |= 0100;
  return {.inode = item.inode,
          .isFolder = item.isFolder,
          .size = item.size,
          .modified = item.modified,
          .permissions = permissions};
}

}  // namespace

Filesystem::Filesystem(Tree& tree, FolderListing& listing, ContentStore& contents, const Clock& clock,
                       std::function<void()> used)
    : tree_(tree),
      listing_(listing),
      contents_(contents),
      clock_(clock),
      used_(std::move(used)),
      lastUse_(clock.monotonic().sinceStart.count()) {}

bool Filesystem::begin(FuseRequest& request) {
  lastUse_ = clock_.monotonic().sinceStart.count();
  if (used_) used_();
  if (!isClosed_) return true;
  std::move(request).fail(ENOTCONN);
  return false;
}

void Filesystem::lookup(FuseRequest request, Inode folder, std::string name) {
  if (!begin(request)) return;
  if (name.size() > MAX_LOCAL_NAME) return std::move(request).fail(ENAMETOOLONG);
  whenListed(std::move(request), folder, [folder, name = std::move(name)](Filesystem& self, FuseRequest listed) {
    self.answerLookup(std::move(listed), folder, name);
  });
}

void Filesystem::answerLookup(FuseRequest request, Inode folder, const std::string& name) {
  const auto found = tree_.replica().lookup(folder, name);
  if (found)
    std::move(request).answerEntry(nodeOf(*found));
  else
    std::move(request).answerNoEntry();
}

void Filesystem::attributes(FuseRequest request, Inode inode) {
  if (!begin(request)) return;
  auto item = tree_.replica().attributes(inode);
  if (!item) {
    MutexLock hold(lock_);
    if (const auto open = openFiles_.find(inode); open != openFiles_.end()) item = open->second.attributes;
  }
  if (item)
    std::move(request).answerAttributes(nodeOf(*item));
  else
    std::move(request).fail(ENOENT);
}

void Filesystem::open(FuseRequest request, Inode inode) {
  if (!begin(request)) return;
  const auto item = tree_.replica().attributes(inode);
  if (!item) return std::move(request).fail(ENOENT);
  if (item->isFolder) return std::move(request).fail(EISDIR);
  auto file = contents_.current(inode);
  const bool isHere = file != nullptr;
  bool keepCache = false;
  {
    MutexLock hold(lock_);
    auto& open = openFiles_[inode];
    ++open.count;
    open.attributes = *item;
    if (file) open.file = std::move(file);
    const auto [cached, isNew] = cachedTags_.try_emplace(inode, item->contentTag);
    // Dropping what it has, the kernel would wait for a parked read, and the program with it, beyond killing; the news
    // that is held back for that read brings the same later. A file that is opened for the first time has nothing
    // there.
    keepCache = isNew || cached->second == item->contentTag || parkedReads_.contains(inode);
    cached->second = item->contentTag;
  }
  std::move(request).answerOpenedFile(keepCache, !isHere);
}

void Filesystem::read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) {
  if (!begin(request)) return;
  if (const auto file = fileFor(inode)) return std::move(request).answerContents(*file, offset, size);
  auto wait = Progress::make();
  const int pid = request.pid();
  const auto number = park(request, wait);
  {
    MutexLock hold(lock_);
    parkedReads_[inode].push_back({number, pid});
  }
  contents_.require(inode, VIEWER, wait,
                    [self = shared_from_this(), request = std::move(request), inode, offset, size,
                     number](const Result<std::shared_ptr<const ContentFile>>& result) mutable {
                      const int errorNumber = self->unpark(number, result ? nullptr : &result.error());
                      if (result) {
                        self->keepOpen(inode, *result);
                        std::move(request).answerContents(**result, offset, size);
                      } else {
                        std::move(request).fail(errorNumber);
                      }
                      self->readIsAnswered(inode, number);
                    });
}

std::shared_ptr<const ContentFile> Filesystem::fileFor(Inode inode) {
  const auto item = tree_.replica().attributes(inode);
  {
    MutexLock hold(lock_);
    const auto open = openFiles_.find(inode);
    if (open != openFiles_.end() && open->second.file) {
      // A file that was deleted stays readable for those who have it open; one that changed is read anew.
      if (!item || item->contentTag == open->second.file->tag()) return open->second.file;
    }
  }
  auto file = item ? contents_.current(inode) : nullptr;
  if (file) keepOpen(inode, file);
  return file;
}

void Filesystem::keepOpen(Inode inode, const std::shared_ptr<const ContentFile>& file) {
  MutexLock hold(lock_);
  if (const auto open = openFiles_.find(inode); open != openFiles_.end()) open->second.file = file;
}

// A program that is killed while the kernel reads ahead for it does not interrupt that read: all that is heard of it is
// that it closes the file. So a thread that closes while a read of its own is parked no longer waits for it.
void Filesystem::flush(FuseRequest request, Inode inode) {
  const int pid = request.pid();
  std::vector<std::shared_ptr<Progress>> waits;
  {
    MutexLock hold(lock_);
    if (const auto reads = parkedReads_.find(inode); reads != parkedReads_.end())
      for (const auto& read : reads->second)
        if (const auto wait = parked_.find(read.number); pid != 0 && read.pid == pid && wait != parked_.end())
          waits.push_back(wait->second);
  }
  std::move(request).succeed();
  for (const auto& wait : waits) wait->cancel();
}

void Filesystem::release(FuseRequest request, Inode inode) {
  {
    MutexLock hold(lock_);
    const auto open = openFiles_.find(inode);
    if (open != openFiles_.end() && --open->second.count == 0) openFiles_.erase(open);
  }
  std::move(request).succeed();
}

void Filesystem::openFolder(FuseRequest request, Inode folder) {
  if (!begin(request)) return;
  whenListed(std::move(request), folder, [](Filesystem& self, FuseRequest listed) {
    std::uint64_t handle = 0;
    {
      MutexLock hold(self.lock_);
      handle = ++self.lastFolder_;
      self.openFolders_[handle] = nullptr;
    }
    std::move(listed).answerOpenedFolder(handle);
  });
}

void Filesystem::readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                            std::size_t room) {
  if (!begin(request)) return;
  Snapshot snapshot;
  if (offset > 0) {
    MutexLock hold(lock_);
    if (const auto open = openFolders_.find(handle); open != openFolders_.end()) snapshot = open->second;
  }
  if (snapshot) return answerPage(std::move(request), folder, snapshot, offset, room);
  whenListed(std::move(request), folder, [folder, handle, offset, room](Filesystem& self, FuseRequest listed) {
    const auto children = std::make_shared<const std::vector<Inode>>(self.tree_.replica().children(folder));
    {
      MutexLock hold(self.lock_);
      if (const auto open = self.openFolders_.find(handle); open != self.openFolders_.end()) open->second = children;
    }
    self.answerPage(std::move(listed), folder, children, offset, room);
  });
}

void Filesystem::answerPage(FuseRequest request, Inode folder, const Snapshot& snapshot, std::int64_t offset,
                            std::size_t room) {
  const auto& replica = tree_.replica();
  FolderPage page(room);
  const auto self = replica.attributes(folder);
  if (!self) return std::move(request).fail(ENOENT);
  bool fits = true;
  if (offset < 1) fits = page.add(".", nodeOf(*self), 1);
  if (fits && offset < FIRST_CHILD)
    fits = page.add("..", nodeOf(replica.attributes(self->parent).value_or(*self)), FIRST_CHILD);
  const std::span<const Inode> children(*snapshot);
  auto position = static_cast<std::size_t>(std::max(offset, FIRST_CHILD) - FIRST_CHILD);
  while (fits && position < children.size()) {
    const auto chunk = children.subspan(position, std::min(ENTRIES_AT_ONCE, children.size() - position));
    for (const auto& entry : replica.entries(folder, chunk)) {
      // Those that have gone since the snapshot are not among the entries.
      while (children[position] != entry.attributes.inode) ++position;
      fits = page.add(entry.name, nodeOf(entry.attributes), static_cast<std::int64_t>(position) + 1 + FIRST_CHILD);
      if (!fits) break;
      ++position;
    }
    if (fits) position = static_cast<std::size_t>(chunk.data() - children.data()) + chunk.size();
  }
  std::move(request).answerFolder(page);
}

void Filesystem::releaseFolder(FuseRequest request, std::uint64_t handle) {
  {
    MutexLock hold(lock_);
    openFolders_.erase(handle);
  }
  std::move(request).succeed();
}

void Filesystem::statistics(FuseRequest request) {
  if (!begin(request)) return;
  // The room that downloaded contents have.
  struct statvfs status{};
  SpaceStatistics space{.items = tree_.replica().itemCount()};
  if (::statvfs(contents_.folder().c_str(), &status) == 0)
    space = {
        .blockSize = status.f_frsize, .blocks = status.f_blocks, .freeBlocks = status.f_bavail, .items = space.items};
  std::move(request).answerStatistics(space);
}

void Filesystem::forget(Inode inode) {
  MutexLock hold(lock_);
  cachedTags_.erase(inode);
}

void Filesystem::whenListed(FuseRequest request, Inode folder, std::function<void(Filesystem&, FuseRequest)> next) {
  const auto item = tree_.replica().attributes(folder);
  if (!item) return std::move(request).fail(ENOENT);
  if (!item->isFolder) return std::move(request).fail(ENOTDIR);
  if (item->isListed) return next(*this, std::move(request));
  auto wait = Progress::make();
  const auto number = park(request, wait);
  listing_.require(folder, VIEWER, wait,
                   [self = shared_from_this(), request = std::move(request), next = std::move(next),
                    number](std::optional<Error> error) mutable {
                     const int errorNumber = self->unpark(number, error ? &*error : nullptr);
                     if (error) return std::move(request).fail(errorNumber);
                     next(*self, std::move(request));
                   });
}

std::uint64_t Filesystem::park(FuseRequest& request, const std::shared_ptr<Progress>& wait) {
  request.onInterrupt([wait] { wait->cancel(); });
  std::uint64_t number = 0;
  {
    MutexLock hold(lock_);
    number = ++lastParked_;
    parked_[number] = wait;
  }
  if (isClosed_) wait->cancel();
  return number;
}

int Filesystem::unpark(std::uint64_t number, const Error* error) {
  {
    MutexLock hold(lock_);
    parked_.erase(number);
  }
  if (isClosed_) return ENOTCONN;
  return error ? errorNumber(*error) : 0;
}

void Filesystem::readIsAnswered(Inode inode, std::uint64_t number) {
  bool tell = false;
  {
    MutexLock hold(lock_);
    const auto reads = parkedReads_.find(inode);
    std::erase_if(reads->second, [number](const ParkedRead& read) { return read.number == number; });
    if (!reads->second.empty()) return;
    parkedReads_.erase(reads);
    tell = heldBack_.erase(inode) > 0;
  }
  if (tell && later_) later_({{ReplicaChange::Kind::contentsChanged, 0, {}, inode}});
}

std::vector<ReplicaChange> Filesystem::apply(const std::vector<ReplicaChange>& changes) {
  std::vector<ReplicaChange> now;
  std::vector<Inode> changedOpen;
  {
    MutexLock hold(lock_);
    for (const auto& change : changes) {
      const bool isContents = change.kind == ReplicaChange::Kind::contentsChanged;
      if ((isContents || change.kind == ReplicaChange::Kind::attributesChanged) && openFiles_.contains(change.inode))
        changedOpen.push_back(change.inode);
      if (isContents && parkedReads_.contains(change.inode))
        heldBack_.insert(change.inode);
      else
        now.push_back(change);
    }
  }
  for (const Inode inode : changedOpen) {
    const auto item = tree_.replica().attributes(inode);
    MutexLock hold(lock_);
    if (const auto open = openFiles_.find(inode); item && open != openFiles_.end()) open->second.attributes = *item;
  }
  return now;
}

void Filesystem::close() {
  isClosed_ = true;
  std::vector<std::shared_ptr<Progress>> waits;
  {
    MutexLock hold(lock_);
    for (const auto& [number, wait] : parked_) waits.push_back(wait);
  }
  for (const auto& wait : waits) wait->cancel();
}

}  // namespace vondle
