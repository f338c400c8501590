#include "storage/content_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

namespace vondle::storage {
namespace {

constexpr std::size_t WRITE_BUFFER = 256 * 1024;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

Result<void> makeFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
    return failure(Error::posix(errno, "cannot make the folder " + path));
  return {};
}

Result<void> syncFolder(const std::string& path) {
  const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen() || ::fsync(folder.get()) != 0) return failure(Error::posix(errno, "cannot sync " + path));
  return {};
}

std::string folderOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

// The two folders above a stored file; with `sync` each is on the disk before anything is put in it.
Result<void> makeFoldersFor(const std::string& path, bool sync) {
  const std::string inner = folderOf(path);
  if (::access(inner.c_str(), F_OK) == 0) return {};
  const std::string outer = folderOf(inner);
  for (const auto& folder : {outer, inner}) {
    if (auto made = makeFolder(folder); !made) return made;
    if (!sync) continue;
    if (auto synced = syncFolder(folderOf(folder)); !synced) return synced;
  }
  return {};
}

Result<void> writeAll(int descriptor, std::string_view bytes, std::int64_t offset, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t count = ::pwrite(descriptor, bytes.data(), bytes.size(), offset);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return failure(Error::posix(count == 0 ? EIO : errno, "cannot write " + path));
    bytes.remove_prefix(static_cast<std::size_t>(count));
    offset += count;
  }
  return {};
}

Result<std::size_t> readFrom(int descriptor, std::int64_t offset, std::span<char> buffer) {
  for (;;) {
    const ssize_t count = ::pread(descriptor, buffer.data(), buffer.size(), offset);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return failure(Error::posix(errno, "cannot read stored contents"));
  }
}

Result<void> removeFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return failure(Error::posix(errno, "cannot remove " + path));
  return {};
}

}  // namespace

StoredFile::~StoredFile() {
  ::close(descriptor_);
}

Result<std::size_t> StoredFile::readAt(std::int64_t offset, std::span<char> buffer) const {
  return readFrom(descriptor_, offset, buffer);
}

ContentStore::Body::~Body() {
  ::close(descriptor_);
}

Result<void> ContentStore::Body::write(std::string_view bytes) {
  hasher_.add(bytes);
  size_ += static_cast<std::int64_t>(bytes.size());
  buffer_ += bytes;
  return buffer_.size() >= WRITE_BUFFER ? flushAll() : Result<void>();
}

Result<void> ContentStore::Body::flushAll() {
  auto written = flush(buffer_);
  buffer_.clear();
  return written;
}

Result<std::string> ContentStore::Body::seal(bool sync) {
  if (auto written = flushAll(); !written) return failure(std::move(written.error()));
  if (sync && ::fsync(descriptor_) != 0) return failure(Error::posix(errno, "cannot sync received contents"));
  return hexadecimal(hasher_.finish());
}

ContentStore::Incoming::~Incoming() {
  if (!placed_) ::unlink(path_.c_str());
}

Result<void> ContentStore::Incoming::flush(std::string_view buffered) {
  return writeAll(descriptor(), buffered, size() - static_cast<std::int64_t>(buffered.size()), path_);
}

Result<void> ContentStore::Incoming::place(bool sync) {
  if (auto made = makeFoldersFor(target_, sync); !made) return made;
  if (::rename(path_.c_str(), target_.c_str()) != 0) return failure(Error::posix(errno, "cannot store " + target_));
  placed_ = true;
  return sync ? syncFolder(folderOf(target_)) : Result<void>();
}

Result<std::size_t> ContentStore::Incoming::readAt(std::int64_t offset, std::span<char> buffer) const {
  return readFrom(descriptor(), offset, buffer);
}

ContentStore::IncomingPart::IncomingPart(std::shared_ptr<Turn> turn, int descriptor, std::int64_t offset)
    : Body(descriptor), turn_(std::move(turn)), offset_(offset) {
  const MutexLock lock(turn_->lock);
  ticket_ = ++turn_->holder;
}

bool ContentStore::IncomingPart::isCurrent() const {
  const MutexLock lock(turn_->lock);
  return turn_->holder == ticket_;
}

Result<void> ContentStore::IncomingPart::flush(std::string_view buffered) {
  // The lock is held while writing, so that a transfer that was taken over cannot write after the one that took over;
  // nobody else uses it.
  const MutexLock lock(turn_->lock);
  if (turn_->holder != ticket_) return failure(Error::posix(ECANCELED, "the part is being sent again"));
  return writeAll(descriptor(), buffered, offset_ + size() - static_cast<std::int64_t>(buffered.size()), "a part");
}

Result<ContentStore> ContentStore::open(const std::string& root) {
  ContentStore store(root);
  for (const char* folder : {"/contents", "/thumbs", "/incoming", "/parts"})
    if (auto made = makeFolder(root + folder); !made) return failure(std::move(made.error()));
  std::error_code error;
  for (const auto& left : std::filesystem::directory_iterator(root + "/incoming", error))
    if (auto removed = removeFile(left.path().string()); !removed) return failure(std::move(removed.error()));
  if (error) return failure(Error::posix(error.value(), "cannot read " + root + "/incoming"));
  return store;
}

std::string ContentStore::pathOf(Kind kind, std::string_view key) const {
  return fmt::format("{}/{}/{}/{}/{}", root_, kind == Kind::contents ? "contents" : "thumbs", key.substr(0, 2),
                     key.substr(2, 2), key);
}

std::string ContentStore::partsPath(std::string_view key) const {
  return fmt::format("{}/parts/{}", root_, key);
}

Result<std::unique_ptr<ContentStore::Incoming>> ContentStore::receive(Kind kind, std::string_view key) const {
  // Two transfers of the same key do not disturb each other; the one that ends last stays.
  std::string path = fmt::format("{}/incoming/{}", root_, randomName());
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) return failure(Error::posix(errno, "cannot make " + path));
  return std::unique_ptr<Incoming>(new Incoming(std::move(path), pathOf(kind, key), descriptor));
}

Result<std::unique_ptr<StoredFile>> ContentStore::read(Kind kind, std::string_view key) const {
  const std::string path = pathOf(kind, key);
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return failure(Error::posix(errno, "cannot open " + path));
  struct stat found{};
  auto file = std::make_unique<StoredFile>(descriptor, ::fstat(descriptor, &found) == 0 ? found.st_size : 0);
  return file;
}

bool ContentStore::has(Kind kind, std::string_view key) const {
  return ::access(pathOf(kind, key).c_str(), F_OK) == 0;
}

Result<void> ContentStore::remove(std::string_view key) const {
  for (const auto& path : {pathOf(Kind::contents, key), pathOf(Kind::thumb, key), partsPath(key)})
    if (auto removed = removeFile(path); !removed) return removed;
  return {};
}

Result<std::unique_ptr<ContentStore::IncomingPart>> ContentStore::receivePart(std::string_view key, std::int64_t number,
                                                                              std::int64_t offset) const {
  const std::string path = partsPath(key);
  const bool isFirst = ::access(path.c_str(), F_OK) != 0;
  // Renamed by a try of assembling that came to nothing: a new file would lose the other parts.
  if (isFirst && has(Kind::contents, key) && ::rename(pathOf(Kind::contents, key).c_str(), path.c_str()) != 0)
    return failure(Error::posix(errno, "cannot take back " + path));
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (descriptor < 0) return failure(Error::posix(errno, "cannot open " + path));
  if (isFirst)
    if (auto synced = syncFolder(folderOf(path)); !synced) {
      ::close(descriptor);
      return failure(std::move(synced.error()));
    }
  std::shared_ptr<IncomingPart::Turn> turn;
  {
    const MutexLock lock(turns_->lock);
    std::erase_if(turns_->byPart, [](const auto& entry) { return entry.second.expired(); });
    auto& known = turns_->byPart[{std::string(key), number}];
    turn = known.lock();
    if (!turn) known = turn = std::make_shared<IncomingPart::Turn>();
  }
  return std::unique_ptr<IncomingPart>(new IncomingPart(std::move(turn), descriptor, offset));
}

Result<void> ContentStore::assemble(std::string_view key, std::int64_t size) const {
  const std::string path = partsPath(key);
  const std::string target = pathOf(Kind::contents, key);
  struct stat found{};
  if (::stat(path.c_str(), &found) != 0) {
    // Renamed by an earlier try whose answer was lost.
    if (errno == ENOENT && has(Kind::contents, key)) return syncFolder(folderOf(target));
    return failure(Error::posix(errno, "cannot examine " + path));
  }
  if (found.st_size != size) return failure({POSIX_ERROR_DOMAIN, EIO, "the parts do not make up the whole: " + path});
  if (auto made = makeFoldersFor(target, true); !made) return made;
  if (::rename(path.c_str(), target.c_str()) != 0) return failure(Error::posix(errno, "cannot store " + target));
  return syncFolder(folderOf(target));
}

Result<void> ContentStore::syncAll() const {
  const Descriptor folder(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen() || ::syncfs(folder.get()) != 0) return failure(Error::posix(errno, "cannot sync " + root_));
  return {};
}

}  // namespace vondle::storage
