#include "crash_points.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <csetjmp>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <random>

#include <sqlite3.h>

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" {
int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int descriptor, const void* bytes, size_t count);
ssize_t __real_pwrite(int descriptor, const void* bytes, size_t count, off_t offset);
int __real_ftruncate(int descriptor, off_t size);
int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __real_rename(const char* from, const char* to);
int __real_link(const char* from, const char* to);
int __real_unlink(const char* path);
ssize_t __real_sendfile(int to, int from, off_t* offset, size_t count);
int __real_futimens(int descriptor, const timespec* times);
}

namespace vondle::sim {
namespace {

std::jmp_buf aliveAt;

timespec timeOf(Timestamp time) {
  const double whole = std::floor(time.secondsSince1970);
  return {.tv_sec = static_cast<time_t>(whole), .tv_nsec = static_cast<long>((time.secondsSince1970 - whole) * 1e9)};
}

// A call that changes something all at once.
template <class Call>
auto change(Call call) {
  if (CrashPoints::isCut()) CrashPoints::die();
  return call();
}

// A call that writes bytes, of which a part may get there.
template <class Call>
auto writing(int descriptor, size_t count, Call call) {
  if (CrashPoints::isCut()) {
    if (count > 1) static_cast<void>(call(count / 2));
    CrashPoints::stamp(descriptor);
    CrashPoints::die();
  }
  const auto result = call(count);
  CrashPoints::stamp(descriptor);
  return result;
}

ssize_t sqliteWrite(int descriptor, const void* bytes, size_t count) {
  return writing(descriptor, count, [&](size_t part) { return __real_write(descriptor, bytes, part); });
}
ssize_t sqliteWriteAt(int descriptor, const void* bytes, size_t count, off_t offset) {
  return writing(descriptor, count, [&](size_t part) { return __real_pwrite(descriptor, bytes, part, offset); });
}
int sqliteTruncate(int descriptor, off_t size) {
  return change([&] { return __real_ftruncate(descriptor, size); });
}
int sqliteUnlink(const char* path) {
  return change([&] { return __real_unlink(path); });
}

}  // namespace

void CrashPoints::install() {
  // A life that ends in the middle of a call leaves its locks behind.
  sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
  sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
  const auto set = [&](const char* name, auto function) {
    files->xSetSystemCall(files, name, reinterpret_cast<sqlite3_syscall_ptr>(function));
  };
  set("write", sqliteWrite);
  set("pwrite", sqliteWriteAt);
  set("pwrite64", sqliteWriteAt);
  set("ftruncate", sqliteTruncate);
  set("unlink", sqliteUnlink);
}

// Nothing here lives across the jump that a destructor would have to end.
bool CrashPoints::survives(const std::function<void()>& life) {
  if (setjmp(aliveAt) != 0) {  // NOLINT(cert-err52-cpp): a process that is killed unwinds nothing
    isAlive_ = isElsewhere_ = false;
    lastChange_ = 0;
    return false;
  }
  isAlive_ = true;
  life();
  isAlive_ = false;
  return true;
}

void CrashPoints::arm(std::uint64_t changes) {
  lastChange_ = changes == 0 ? 0 : changes_ + changes;
}

bool CrashPoints::isCut() {
  if (!isAlive_ || isElsewhere_) return false;
  ++changes_;
  return changes_ == lastChange_;
}

void CrashPoints::die() {
  std::longjmp(aliveAt, 1);  // NOLINT(cert-err52-cpp)
}

void CrashPoints::stamp(int descriptor) {
  struct stat status{};
  if (!clock_ || ::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return;
  const timespec times[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, timeOf(clock_->now())};
  __real_futimens(descriptor, times);
}

}  // namespace vondle::sim

using vondle::sim::CrashPoints;

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
  if (!(flags & O_CREAT)) return __real_open(path, flags);
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  const bool changes = (flags & O_TRUNC) || ::access(path, F_OK) != 0;
  if (!changes) return __real_open(path, flags, mode);
  return vondle::sim::change([&] {
    const int descriptor = __real_open(path, flags, mode);
    if (descriptor >= 0) CrashPoints::stamp(descriptor);
    return descriptor;
  });
}

ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return __real_write(descriptor, bytes, count);
  return vondle::sim::writing(descriptor, count, [&](size_t part) { return __real_write(descriptor, bytes, part); });
}

ssize_t __wrap_pwrite(int descriptor, const void* bytes, size_t count, off_t offset) {
  return vondle::sim::writing(descriptor, count,
                              [&](size_t part) { return __real_pwrite(descriptor, bytes, part, offset); });
}

int __wrap_ftruncate(int descriptor, off_t size) {
  return vondle::sim::change([&] {
    const int result = __real_ftruncate(descriptor, size);
    CrashPoints::stamp(descriptor);
    return result;
  });
}

int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  return vondle::sim::change([&] {
    const int result = __real_fallocate(descriptor, mode, offset, length);
    CrashPoints::stamp(descriptor);
    return result;
  });
}

int __wrap_rename(const char* from, const char* to) {
  return vondle::sim::change([&] { return __real_rename(from, to); });
}

int __wrap_link(const char* from, const char* to) {
  return vondle::sim::change([&] { return __real_link(from, to); });
}

int __wrap_unlink(const char* path) {
  return vondle::sim::change([&] { return __real_unlink(path); });
}

ssize_t __wrap_sendfile(int to, int from, off_t* offset, size_t count) {
  return vondle::sim::writing(to, count, [&](size_t part) { return __real_sendfile(to, from, offset, part); });
}

int __wrap_futimens(int descriptor, const timespec* times) {
  return vondle::sim::change([&] {
    const auto* const clock = CrashPoints::clock();
    if (!clock || times[1].tv_nsec != UTIME_NOW) return __real_futimens(descriptor, times);
    CrashPoints::stamp(descriptor);
    return 0;
  });
}

// The storage service's keys, the same in every run.
int __wrap_RAND_bytes(unsigned char* bytes, int count) {
  static std::mt19937_64 engine;
  for (int i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(engine());
  return 1;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
