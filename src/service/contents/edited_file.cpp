#include "service/contents/edited_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vondle {
namespace {

constexpr mode_t NEEDED = 0600;
constexpr mode_t DONE_WITH = NEEDED | S_IXUSR;

}  // namespace

Result<std::shared_ptr<EditedFile>> EditedFile::make(std::string path, std::int64_t number) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, DONE_WITH);
  if (descriptor < 0) return failure(Error::posix(errno, path));
  return std::shared_ptr<EditedFile>(new EditedFile(std::move(path), number, descriptor, false));
}

Result<std::shared_ptr<EditedFile>> EditedFile::open(std::string path, std::int64_t number) {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (descriptor < 0) return failure(Error::posix(errno, path));
  return std::shared_ptr<EditedFile>(new EditedFile(std::move(path), number, descriptor, true));
}

EditedFile::~EditedFile() {
  ::close(descriptor_);
  if (!isKept_) ::unlink(path_.c_str());
}

std::int64_t EditedFile::size() const {
  struct stat status{};
  ::fstat(descriptor_, &status);
  return status.st_size;
}

Timestamp EditedFile::modified() const {
  struct stat status{};
  ::fstat(descriptor_, &status);
  return {static_cast<double>(status.st_mtim.tv_sec) + static_cast<double>(status.st_mtim.tv_nsec) / 1e9};
}

void EditedFile::setModified(const timespec& modified) {
  const timespec times[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, modified};
  ::futimens(descriptor_, times);
}

bool EditedFile::beginWrite() {
  MutexLock hold(lock_);
  if (isFrozen_) return false;
  ++leases_;
  return true;
}

void EditedFile::endWrite() {
  MutexLock hold(lock_);
  --leases_;
}

bool EditedFile::freeze() {
  MutexLock hold(lock_);
  if (isFrozen_ || leases_ > 0) return false;
  isFrozen_ = true;
  return true;
}

void EditedFile::thaw() {
  MutexLock hold(lock_);
  isFrozen_ = false;
}

bool EditedFile::isFrozen() const {
  MutexLock hold(lock_);
  return isFrozen_;
}

void EditedFile::noteUse(MonotonicTime now, bool isContents) {
  MutexLock hold(lock_);
  lastUse_ = now;
  if (isContents) hasChanged_ = true;
}

MonotonicTime EditedFile::lastUse() const {
  MutexLock hold(lock_);
  return lastUse_;
}

bool EditedFile::takeChange() {
  MutexLock hold(lock_);
  return std::exchange(hasChanged_, false);
}

void EditedFile::keep(bool isKept) {
  {
    MutexLock hold(lock_);
    isKept_ = isKept;
  }
  ::fchmod(descriptor_, isKept ? NEEDED : DONE_WITH);
}

void EditedFile::markDoneWith() {
  ::fchmod(descriptor_, DONE_WITH);
}

bool EditedFile::isDoneWith(const std::string& path) {
  struct stat status{};
  return ::lstat(path.c_str(), &status) == 0 && (status.st_mode & S_IXUSR) != 0;
}

}  // namespace vondle
