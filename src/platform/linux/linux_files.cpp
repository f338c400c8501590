#include "platform/linux/linux_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace vondle {
namespace {

std::unexpected<Error> lastError(const std::string& path) {
  return failure(Error::posix(errno, path));
}

// A file descriptor that closes itself, errors ignored.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }

  explicit operator bool() const { return number_ >= 0; }
  [[nodiscard]] int number() const { return number_; }
  // 0 on success. Linux gives the number up whatever it answers.
  int close() { return ::close(std::exchange(number_, -1)); }

 private:
  int number_;
};

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

Result<void> writeAll(int descriptor, std::span<const std::byte> bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return lastError(path);
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return {};
}

// Up to buffer.size() bytes from there on; fewer only at the end.
Result<std::size_t> readFully(int descriptor, std::int64_t offset, std::span<std::byte> buffer,
                              const std::string& path) {
  std::size_t done = 0;
  while (done < buffer.size()) {
    const ssize_t got = ::pread(descriptor, buffer.data() + done, buffer.size() - done,
                                static_cast<off_t>(offset) + static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return lastError(path);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

Result<Descriptor> openForReading(const std::string& path) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat found;
  if (!file || ::fstat(file.number(), &found) != 0) return lastError(path);
  if (!S_ISREG(found.st_mode)) return failure(Error::posix(S_ISDIR(found.st_mode) ? EISDIR : EINVAL, path));
  return file;
}

Result<void> syncFolder(const std::string& path) {
  const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return lastError(path);
  if (::fsync(folder.number()) != 0 && errno != EINVAL) return lastError(path);  // EINVAL: it keeps folders otherwise
  return {};
}

// Where the bytes of a path lie: behind a symbolic link, if it leads anywhere.
std::string behindLink(const std::string& path) {
  struct stat found;
  if (::lstat(path.c_str(), &found) != 0 || !S_ISLNK(found.st_mode)) return path;
  char* const resolved = ::realpath(path.c_str(), nullptr);
  std::string target = resolved ? resolved : path;
  std::free(resolved);
  return target;
}

class Writer final : public WritableFile {
 public:
  Writer(Descriptor file, std::string path) : file_(std::move(file)), path_(std::move(path)) {}

  Result<void> write(std::span<const std::byte> bytes) override { return writeAll(file_.number(), bytes, path_); }

  Result<void> close() override {
    if (file_.close() != 0) return lastError(path_);
    return {};
  }

 private:
  Descriptor file_;
  const std::string path_;
};

class Reader final : public ReadableFile {
 public:
  Reader(Descriptor file, std::string path) : file_(std::move(file)), path_(std::move(path)) {}

  Result<std::size_t> readAt(std::int64_t offset, std::span<std::byte> buffer) override {
    return readFully(file_.number(), offset, buffer, path_);
  }

 private:
  const Descriptor file_;
  const std::string path_;
};

}  // namespace

Result<std::string> LinuxFiles::read(const std::string& path) {
  const auto file = openForReading(path);
  if (!file) return failure(file.error());
  std::string bytes;
  constexpr std::size_t STEP = 65536;
  while (true) {
    const std::size_t before = bytes.size();
    bytes.resize(before + STEP);
    const auto got = readFully(file->number(), static_cast<std::int64_t>(before),
                               std::as_writable_bytes(std::span(bytes).subspan(before)), path);
    if (!got) return failure(got.error());
    bytes.resize(before + *got);
    if (*got < STEP) return bytes;
  }
}

Result<void> LinuxFiles::writeAtomically(const std::string& path, std::string_view bytes, unsigned permissions) {
  const std::string target = behindLink(path);
  const std::string folder = folderOf(target);
  struct stat old;
  if (::stat(target.c_str(), &old) == 0) {
    if (S_ISDIR(old.st_mode)) return failure(Error::posix(EISDIR, path));
    permissions = old.st_mode & 0777;
  }
  std::string temporary = (folder == "/" ? folder : folder + "/") + ".vondle-XXXXXX";
  Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));  // 0600, so nobody else sees it half made
  if (!file) return lastError(path);
  const auto fill = [&]() -> Result<void> {
    if (auto written = writeAll(file.number(), std::as_bytes(std::span(bytes)), path); !written) return written;
    if (::fchmod(file.number(), permissions) != 0) return lastError(path);
    if (::fsync(file.number()) != 0 || file.close() != 0) return lastError(path);
    if (::rename(temporary.c_str(), target.c_str()) != 0) return lastError(path);
    return {};
  };
  if (auto filled = fill(); !filled) {
    ::unlink(temporary.c_str());
    return filled;
  }
  return syncFolder(folder);
}

Result<FileAttributes> LinuxFiles::attributes(const std::string& path) {
  struct stat found;
  if (::stat(path.c_str(), &found) != 0) return lastError(path);
  const Timestamp modified{static_cast<double>(found.st_mtim.tv_sec) +
                           static_cast<double>(found.st_mtim.tv_nsec) / 1e9};
  return FileAttributes{found.st_size, modified, S_ISDIR(found.st_mode), found.st_mode & 0777U};
}

Result<void> LinuxFiles::setPermissions(const std::string& path, unsigned permissions) {
  if (::chmod(path.c_str(), permissions & 0777) != 0) return lastError(path);
  return {};
}

Result<void> LinuxFiles::remove(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return lastError(path);
  return {};
}

Result<void> LinuxFiles::rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return lastError(from);
  return {};
}

Result<void> LinuxFiles::hardLink(const std::string& from, const std::string& to) {
  if (::link(from.c_str(), to.c_str()) != 0) return lastError(from);
  return {};
}

Result<void> LinuxFiles::createFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) return {};
  if (errno == ENOENT && path.find_last_of('/') != std::string::npos && path != "/") {
    if (auto above = createFolder(folderOf(path)); !above) return above;
    if (::mkdir(path.c_str(), 0700) == 0) return {};
  }
  if (errno != EEXIST) return lastError(path);
  struct stat found;
  if (::stat(path.c_str(), &found) != 0) return lastError(path);
  if (!S_ISDIR(found.st_mode)) return failure(Error::posix(EEXIST, path));
  return {};
}

Result<std::unique_ptr<WritableFile>> LinuxFiles::create(const std::string& path) {
  Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600));
  if (!file) return lastError(path);
  return std::make_unique<Writer>(std::move(file), path);
}

Result<std::unique_ptr<ReadableFile>> LinuxFiles::open(const std::string& path) {
  auto file = openForReading(path);
  if (!file) return failure(file.error());
  return std::make_unique<Reader>(*std::move(file), path);
}

Result<DiskSpace> LinuxFiles::space(const std::string& path) {
  struct statvfs found;
  if (::statvfs(path.c_str(), &found) != 0) return lastError(path);
  const auto block = static_cast<std::int64_t>(found.f_frsize);
  return DiskSpace{.size = block * static_cast<std::int64_t>(found.f_blocks),
                   .free = block * static_cast<std::int64_t>(found.f_bavail)};
}

std::string LinuxFiles::temporaryFolder() {
  const std::string home = users_.homeOfCurrentUser().value_or(users_.fallbackHome());
  std::string folder = home + "/.local/share/vondle/temporary";
  return createFolder(folder) ? folder : "/tmp";
}

std::optional<std::string> LinuxFiles::applicationGroupContainer(std::string_view group) {
  const auto home = users_.homeOfCurrentUser();
  if (!home || group.empty() || group.starts_with('.') || group.contains('/')) return std::nullopt;
  std::string folder = *home + "/.local/share/" + std::string(group);
  if (!createFolder(folder)) return std::nullopt;
  return folder;
}

}  // namespace vondle
