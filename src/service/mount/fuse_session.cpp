#define FUSE_USE_VERSION 314

#include "service/mount/fuse_session.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <unordered_map>
#include <utility>

#include <fuse_lowlevel.h>

#include "base/mutex.h"
#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "mount");

// The kernel asks again only after it was told to forget.
constexpr double VALID_SECONDS = 86'400;

// A read of contents that are not here waits without a thread, so many may wait before one of a ready file is held up.
constexpr unsigned MAX_WAITING_READS = 512;

struct stat statusOf(const NodeAttributes& attributes) {
  struct stat status{};
  status.st_ino = attributes.inode;
  status.st_mode = (attributes.isFolder ? S_IFDIR : S_IFREG) | attributes.permissions;
  status.st_nlink = attributes.isGone ? 0 : 1;  // of a folder: the number of folders in it is not known
  status.st_uid = ::geteuid();
  status.st_gid = ::getegid();
  status.st_size = attributes.size;
  status.st_blksize = 4096;
  status.st_blocks = attributes.size / 512 + (attributes.size % 512 != 0 ? 1 : 0);
  double whole = 0;
  const double fraction = std::modf(attributes.modified.secondsSince1970, &whole);
  // Beyond what a file system's time can hold, and before its zero, programs see the nearest.
  constexpr double LATEST = 9e15;
  status.st_mtim.tv_sec = static_cast<time_t>(std::min(std::max(whole, -LATEST), LATEST)) - (fraction < 0 ? 1 : 0);
  // To the microsecond, which a Timestamp can hold, so that a time is the same wherever it has been.
  const long microseconds = std::lround((fraction < 0 ? fraction + 1 : fraction) * 1e6);
  status.st_mtim.tv_nsec = std::min(microseconds, 999'999L) * 1000;
  status.st_atim = status.st_ctim = status.st_mtim;
  return status;
}

double validSeconds(const NodeAttributes& attributes) {
  return attributes.isVolatile || attributes.areAttributesVolatile ? 0 : VALID_SECONDS;
}

fuse_entry_param entryOf(const NodeAttributes& attributes) {
  fuse_entry_param entry{};
  entry.ino = attributes.inode;
  entry.attr = statusOf(attributes);
  entry.entry_timeout = attributes.isVolatile ? 0 : VALID_SECONDS;
  entry.attr_timeout = validSeconds(attributes);
  return entry;
}

OpenMode modeOf(const fuse_file_info* info) {
  return {.writes = (info->flags & O_ACCMODE) != O_RDONLY, .truncates = (info->flags & O_TRUNC) != 0};
}

AttributeChange changeOf(const struct stat& wanted, int fields) {
  AttributeChange change;
  if (fields & FUSE_SET_ATTR_MODE) change.permissions = wanted.st_mode & ACCESSPERMS;
  if (fields & FUSE_SET_ATTR_SIZE) change.size = wanted.st_size;
  if (fields & FUSE_SET_ATTR_MTIME) change.modified = wanted.st_mtim;
  if (fields & FUSE_SET_ATTR_MTIME_NOW) change.modified = timespec{.tv_sec = 0, .tv_nsec = UTIME_NOW};
  return change;
}

thread_local bool servesRequests = false;
thread_local bool greetsKernel = false;  // the next answer is the one to its first request

fuse_req_t libfuseRequest(void* request) {
  return static_cast<fuse_req_t>(request);
}

}  // namespace

// Owns libfuse's session; lives until the last request is answered.
class FuseChannel : public std::enable_shared_from_this<FuseChannel> {
 public:
  FuseChannel(FuseHandler& handler, Scheduler& scheduler, std::function<void()> ended)
      : handler_(handler), scheduler_(scheduler), ended_(std::move(ended)) {}

  ~FuseChannel() {
    if (session_) fuse_session_destroy(session_);  // closes the device
    if (wakeUp_ >= 0) ::close(wakeUp_);
    if (events_ >= 0) ::close(events_);
  }

  FuseChannel(const FuseChannel&) = delete;
  FuseChannel& operator=(const FuseChannel&) = delete;

  Result<void> open(int device);
  void serve();

  void stop() {
    stopped_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeUp_, &one, sizeof one);
  }

  [[nodiscard]] fuse_session* session() const { return session_; }

  std::uint64_t noteInterrupt(std::function<void()> interrupted) EXCLUDES(lock_) {
    MutexLock hold(lock_);
    interrupts_[++lastKey_] = std::move(interrupted);
    return lastKey_;
  }

  void forgetInterrupt(std::uint64_t key) EXCLUDES(lock_) {
    std::function<void()> forgotten;  // destroyed with no lock held
    MutexLock hold(lock_);
    if (auto found = interrupts_.extract(key)) forgotten = std::move(found.mapped());
  }

  // libfuse may call this with the request's lock held, so the answer to it comes from another thread.
  void interrupt(std::uint64_t key) EXCLUDES(lock_) {
    std::function<void()> interrupted;
    {
      MutexLock hold(lock_);
      if (auto found = interrupts_.extract(key)) interrupted = std::move(found.mapped());
    }
    if (interrupted) scheduler_.global().post(std::move(interrupted));
  }

  static FuseChannel& of(fuse_req_t request) { return *static_cast<FuseChannel*>(fuse_req_userdata(request)); }
  static FuseRequest wrap(fuse_req_t request) { return {of(request).shared_from_this(), request}; }

 private:
  static void init(void* userdata, fuse_conn_info* connection);
  static fuse_lowlevel_ops operations();
  static void addChanges(fuse_lowlevel_ops& ops);
  static void addExtendedAttributes(fuse_lowlevel_ops& ops);

  // The hooks through which libfuse reaches the device.
  static ssize_t readDevice(int device, void* buffer, std::size_t size, void* userdata);
  static ssize_t writeDevice(int device, iovec* pieces, int count, void*);
  static ssize_t spliceDevice(int from, off_t* fromOffset, int to, off_t* toOffset, std::size_t size, unsigned flags,
                              void*) {
    return ::splice(from, fromOffset, to, toOffset, size, flags);
  }

  FuseHandler& handler_;
  Scheduler& scheduler_;
  const std::function<void()> ended_;
  fuse_session* session_ = nullptr;
  int events_ = -1;
  int wakeUp_ = -1;
  std::atomic<bool> stopped_ = false;
  std::atomic<bool> hasEnded_ = false;
  Mutex lock_;
  std::uint64_t lastKey_ GUARDED_BY(lock_) = 0;
  std::unordered_map<std::uint64_t, std::function<void()>> interrupts_ GUARDED_BY(lock_);
};

Result<void> FuseChannel::open(int device) {
  const auto failed = [device](int number, const char* what) {
    ::close(device);
    return failure(Error::posix(number, what));
  };
  events_ = ::epoll_create1(EPOLL_CLOEXEC);
  wakeUp_ = ::eventfd(0, EFD_CLOEXEC);
  if (events_ < 0 || wakeUp_ < 0) return failed(errno, "epoll");
  // Edge-triggered: one request wakes one thread. The wake-up stays raised and reaches all.
  epoll_event requests{.events = EPOLLIN | EPOLLET, .data = {.fd = device}};
  epoll_event wake{.events = EPOLLIN, .data = {.fd = wakeUp_}};
  if (::fcntl(device, F_SETFL, O_NONBLOCK) != 0 || ::epoll_ctl(events_, EPOLL_CTL_ADD, device, &requests) != 0 ||
      ::epoll_ctl(events_, EPOLL_CTL_ADD, wakeUp_, &wake) != 0)
    return failed(errno, "/dev/fuse");
  char program[] = "vondle-service";
  char* arguments[] = {program, nullptr};
  fuse_args args{.argc = 1, .argv = arguments, .allocated = 0};
  static const fuse_lowlevel_ops OPERATIONS = operations();
  session_ = fuse_session_new(&args, &OPERATIONS, sizeof OPERATIONS, this);
  fuse_opt_free_args(&args);
  if (!session_) return failed(ENOMEM, "libfuse");
  static const fuse_custom_io IO = {
      .writev = writeDevice, .read = readDevice, .splice_receive = spliceDevice, .splice_send = spliceDevice};
  if (const int result = fuse_session_custom_io(session_, &IO, device); result != 0) return failed(-result, "libfuse");
  return {};
}

void FuseChannel::serve() {
  servesRequests = true;
  fuse_buf buffer{};
  while (!fuse_session_exited(session_)) {
    const int size = fuse_session_receive_buf(session_, &buffer);
    if (size == -EINTR) continue;
    if (size <= 0) break;
    fuse_session_process_buf(session_, &buffer);
  }
  std::free(buffer.mem);
  if (!stopped_ && !hasEnded_.exchange(true) && ended_) ended_();
}

ssize_t FuseChannel::readDevice(int device, void* buffer, std::size_t size, void* userdata) {
  const auto& self = *static_cast<FuseChannel*>(userdata);
  while (true) {
    if (self.stopped_) {
      errno = ENODEV;  // libfuse ends the session
      return -1;
    }
    const auto count = ::read(device, buffer, size);
    if (count >= 0 || errno != EAGAIN) return count;
    epoll_event event{};
    ::epoll_wait(self.events_, &event, 1, -1);
  }
}

// No file here has a privilege that writing to it should take away. Where the kernel does not know, it asks for the
// extended attribute of such a privilege before each write; libfuse has no word for it.
ssize_t FuseChannel::writeDevice(int device, iovec* pieces, int count, void*) {
  if (std::exchange(greetsKernel, false) && count == 2 && pieces[1].iov_len >= FUSE_COMPAT_22_INIT_OUT_SIZE)
    static_cast<fuse_init_out*>(pieces[1].iov_base)->flags |= FUSE_HANDLE_KILLPRIV_V2;
  return ::writev(device, pieces, count);
}

void FuseChannel::init(void*, fuse_conn_info* connection) {
  greetsKernel = true;
  // Attributes come with every listing: looking at whole folders is what costs most.
  connection->want |= connection->capable & FUSE_CAP_READDIRPLUS;
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS_AUTO);
  connection->want |= connection->capable & FUSE_CAP_SPLICE_WRITE;
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ);
  // We say when cached contents are no longer true; a new time of modification alone does not.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_AUTO_INVAL_DATA);
  connection->want |= connection->capable & FUSE_CAP_EXPLICIT_INVAL_DATA;
  connection->max_background = MAX_WAITING_READS;
  connection->congestion_threshold = MAX_WAITING_READS / 4 * 3;
}

fuse_lowlevel_ops FuseChannel::operations() {
  fuse_lowlevel_ops ops{};
  ops.init = init;
  ops.lookup = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    of(request).handler_.lookup(wrap(request), parent, name);
  };
  ops.getattr = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    of(request).handler_.attributes(wrap(request), inode);
  };
  ops.open = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    of(request).handler_.open(wrap(request), inode, modeOf(info));
  };
  ops.read = [](fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, fuse_file_info*) {
    of(request).handler_.read(wrap(request), inode, offset, size);
  };
  ops.flush = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    of(request).handler_.flush(wrap(request), inode);
  };
  ops.release = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    of(request).handler_.release(wrap(request), inode, modeOf(info));
  };
  ops.opendir = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    of(request).handler_.openFolder(wrap(request), inode);
  };
  ops.readdirplus = [](fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, fuse_file_info* info) {
    of(request).handler_.readFolder(wrap(request), inode, info->fh, offset, size);
  };
  ops.releasedir = [](fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
    of(request).handler_.releaseFolder(wrap(request), info->fh);
  };
  ops.statfs = [](fuse_req_t request, fuse_ino_t) { of(request).handler_.statistics(wrap(request)); };
  ops.forget = [](fuse_req_t request, fuse_ino_t inode, std::uint64_t) {
    of(request).handler_.forget(inode);
    fuse_reply_none(request);
  };
  ops.forget_multi = [](fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
    for (std::size_t i = 0; i < count; ++i) of(request).handler_.forget(forgets[i].ino);
    fuse_reply_none(request);
  };
  addChanges(ops);
  addExtendedAttributes(ops);
  return ops;
}

void FuseChannel::addChanges(fuse_lowlevel_ops& ops) {
  ops.create = [](fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* info) {
    of(request).handler_.create(wrap(request), parent, name, mode & ACCESSPERMS, modeOf(info), !(info->flags & O_EXCL));
  };
  ops.mknod = [](fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t) {
    if (!S_ISREG(mode)) return wrap(request).fail(EPERM);
    of(request).handler_.makeFile(wrap(request), parent, name, mode & ACCESSPERMS);
  };
  ops.mkdir = [](fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode) {
    of(request).handler_.makeFolder(wrap(request), parent, name, mode & ACCESSPERMS);
  };
  ops.unlink = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    of(request).handler_.removeFile(wrap(request), parent, name);
  };
  ops.rmdir = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    of(request).handler_.removeFolder(wrap(request), parent, name);
  };
  ops.rename = [](fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
                  unsigned flags) {
    if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return wrap(request).fail(EINVAL);
    of(request).handler_.rename(wrap(request), parent, name, newParent, newName, flags == 0);
  };
  // Neither can be on the server.
  ops.symlink = [](fuse_req_t request, const char*, fuse_ino_t, const char*) { wrap(request).fail(EPERM); };
  ops.link = [](fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) { wrap(request).fail(EPERM); };
  ops.setattr = [](fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int fields, fuse_file_info*) {
    const bool isForeign = ((fields & FUSE_SET_ATTR_UID) && wanted->st_uid != ::geteuid()) ||
                           ((fields & FUSE_SET_ATTR_GID) && wanted->st_gid != ::getegid());
    if (isForeign) return wrap(request).fail(EPERM);
    of(request).handler_.change(wrap(request), inode, changeOf(*wanted, fields));
  };
  ops.write = [](fuse_req_t request, fuse_ino_t inode, const char* data, std::size_t size, off_t offset,
                 fuse_file_info* info) {
    // Pages of a mapping have their places also in a file that is open for appending.
    const bool isAppend = (info->flags & O_APPEND) && !info->writepage;
    of(request).handler_.write(wrap(request), inode, {data, size}, offset, isAppend);
  };
  ops.fallocate = [](fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t length, fuse_file_info*) {
    of(request).handler_.allocate(wrap(request), inode, mode, offset, length);
  };
  ops.fsync = [](fuse_req_t request, fuse_ino_t inode, int, fuse_file_info*) {
    of(request).handler_.sync(wrap(request), inode);
  };
  ops.fsyncdir = ops.fsync;
}

// Listing them is left out: the kernel asks once and knows that there is nothing to list.
void FuseChannel::addExtendedAttributes(fuse_lowlevel_ops& ops) {
  // The kernel and `ls -l` ask for others over and over; EOPNOTSUPP makes `ls` ask once.
  static constexpr auto IS_OF_USERS = [](std::string_view name) { return name.starts_with("user."); };
  ops.getxattr = [](fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t room) {
    if (!IS_OF_USERS(name)) return wrap(request).fail(EOPNOTSUPP);
    of(request).handler_.readAttribute(wrap(request), inode, name, room);
  };
  ops.setxattr = [](fuse_req_t request, fuse_ino_t inode, const char* name, const char* value, std::size_t size,
                    int flags) {
    if (!IS_OF_USERS(name)) return wrap(request).fail(EOPNOTSUPP);
    of(request).handler_.setAttribute(wrap(request), inode, name, std::string(value, size), flags);
  };
  ops.removexattr = [](fuse_req_t request, fuse_ino_t inode, const char* name) {
    if (!IS_OF_USERS(name)) return wrap(request).fail(EOPNOTSUPP);
    of(request).handler_.setAttribute(wrap(request), inode, name, std::nullopt, 0);
  };
}

bool FolderPage::add(const std::string& name, const NodeAttributes& attributes, std::int64_t next) {
  const auto entry = entryOf(attributes);
  const auto size =
      fuse_add_direntry_plus(nullptr, bytes_.data() + used_, bytes_.size() - used_, name.c_str(), &entry, next);
  if (size > bytes_.size() - used_) return false;
  used_ += size;
  return true;
}

FuseRequest::FuseRequest(std::shared_ptr<FuseChannel> channel, void* request)
    : channel_(std::move(channel)), request_(request) {}

FuseRequest::FuseRequest(FuseRequest&& other) noexcept
    : channel_(std::move(other.channel_)),
      request_(std::exchange(other.request_, nullptr)),
      interruptKey_(std::exchange(other.interruptKey_, 0)) {}

FuseRequest::~FuseRequest() {
  if (!request_) return;
  slog.error("a request of the kernel's was dropped unanswered");
  std::move(*this).fail(EIO);
}

void* FuseRequest::take() {
  if (interruptKey_ != 0) channel_->forgetInterrupt(std::exchange(interruptKey_, 0));
  return std::exchange(request_, nullptr);
}

void FuseRequest::fail(int errorNumber) && {
  fuse_reply_err(libfuseRequest(take()), errorNumber);
}

void FuseRequest::succeed() && {
  fuse_reply_err(libfuseRequest(take()), 0);
}

void FuseRequest::answerEntry(const NodeAttributes& attributes) && {
  const auto entry = entryOf(attributes);
  fuse_reply_entry(libfuseRequest(take()), &entry);
}

void FuseRequest::answerNoEntry() && {
  fuse_entry_param entry{};
  entry.entry_timeout = VALID_SECONDS;
  fuse_reply_entry(libfuseRequest(take()), &entry);
}

void FuseRequest::answerAttributes(const NodeAttributes& attributes) && {
  const auto status = statusOf(attributes);
  fuse_reply_attr(libfuseRequest(take()), &status, validSeconds(attributes));
}

void FuseRequest::answerOpenedFolder(std::uint64_t handle) && {
  fuse_file_info info{};
  info.fh = handle;
  fuse_reply_open(libfuseRequest(take()), &info);
}

void FuseRequest::answerOpenedFile(bool keepCache, bool tellOfClosing) && {
  fuse_file_info info{};
  info.keep_cache = keepCache ? 1 : 0;
  info.noflush = tellOfClosing ? 0 : 1;
  fuse_reply_open(libfuseRequest(take()), &info);
}

int FuseRequest::pid() const {
  return fuse_req_ctx(libfuseRequest(request_))->pid;
}

void FuseRequest::answerCreatedFile(const NodeAttributes& attributes, bool keepCache) && {
  const auto entry = entryOf(attributes);
  fuse_file_info info{};
  info.keep_cache = keepCache ? 1 : 0;
  fuse_reply_create(libfuseRequest(take()), &entry, &info);
}

void FuseRequest::answerContents(const ContentFile& file, std::int64_t offset, std::size_t size) && {
  answerRange(file.descriptor(), file.size(), offset, size);
}

void FuseRequest::answerContents(const EditedFile& file, std::int64_t offset, std::size_t size) && {
  answerRange(file.descriptor(), file.size(), offset, size);
}

void FuseRequest::answerRange(int descriptor, std::int64_t end, std::int64_t offset, std::size_t size) {
  const auto request = libfuseRequest(take());
  if (offset >= end) {
    fuse_reply_buf(request, nullptr, 0);
    return;
  }
  const auto rest = static_cast<std::uint64_t>(end - offset);
  fuse_bufvec pieces{};
  pieces.count = 1;
  pieces.buf[0].size = static_cast<std::size_t>(std::min<std::uint64_t>(size, rest));
  pieces.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  pieces.buf[0].fd = descriptor;
  pieces.buf[0].pos = offset;
  // Copied out of the file's pages: to move them would take them from the cache of the file, and costs more.
  // libfuse keeps a pipe for each thread that splices, and can give it back only when the thread ends before the
  // session.
  fuse_reply_data(request, &pieces, servesRequests ? fuse_buf_copy_flags{} : FUSE_BUF_NO_SPLICE);
}

void FuseRequest::answerBytes(std::string_view bytes) && {
  fuse_reply_buf(libfuseRequest(take()), bytes.data(), bytes.size());
}

void FuseRequest::answerWritten(std::size_t bytes) && {
  fuse_reply_write(libfuseRequest(take()), bytes);
}

void FuseRequest::answerFolder(const FolderPage& page) && {
  fuse_reply_buf(libfuseRequest(take()), page.bytes().data(), page.bytes().size());
}

void FuseRequest::answerAttribute(std::string_view value, std::size_t room) && {
  const auto request = libfuseRequest(take());
  if (room == 0)
    fuse_reply_xattr(request, value.size());
  else if (value.size() > room)
    fuse_reply_err(request, ERANGE);
  else
    fuse_reply_buf(request, value.data(), value.size());
}

void FuseRequest::answerStatistics(const SpaceStatistics& statistics) && {
  struct statvfs status{};
  status.f_bsize = status.f_frsize = statistics.blockSize;
  status.f_blocks = statistics.blocks;
  status.f_bfree = status.f_bavail = statistics.freeBlocks;
  status.f_files = statistics.items;
  status.f_namemax = 255;
  fuse_reply_statfs(libfuseRequest(take()), &status);
}

void FuseRequest::onInterrupt(std::function<void()> interrupted) {
  interruptKey_ = channel_->noteInterrupt(std::move(interrupted));
  // A number and no pointer: the interrupt may come while the request is being answered.
  fuse_req_interrupt_func(
      libfuseRequest(request_),
      [](fuse_req_t request, void* key) { FuseChannel::of(request).interrupt(reinterpret_cast<std::uintptr_t>(key)); },
      reinterpret_cast<void*>(static_cast<std::uintptr_t>(interruptKey_)));
}

FuseSession::FuseSession(std::shared_ptr<FuseChannel> channel) : channel_(std::move(channel)) {}

Result<std::unique_ptr<FuseSession>> FuseSession::open(int device, FuseHandler& handler, Scheduler& scheduler,
                                                       std::function<void()> ended) {
  auto channel = std::make_shared<FuseChannel>(handler, scheduler, std::move(ended));
  if (auto opened = channel->open(device); !opened) return std::unexpected(opened.error());
  return std::unique_ptr<FuseSession>(new FuseSession(std::move(channel)));
}

FuseSession::~FuseSession() {
  stop();
}

void FuseSession::serve() {
  for (int i = 0; i < THREADS; ++i) threads_.emplace_back([channel = channel_] { channel->serve(); });
}

void FuseSession::stop() {
  channel_->stop();
  for (auto& thread : std::exchange(threads_, {})) thread.join();
}

// The kernel answers ENOENT when it remembers nothing of it, which is as good.

void FuseSession::forgetEntry(Inode folder, const std::string& name) {
  fuse_lowlevel_notify_inval_entry(channel_->session(), folder, name.c_str(), name.size());
}

void FuseSession::forgetItem(Inode folder, const std::string& name, Inode inode) {
  const int result = fuse_lowlevel_notify_delete(channel_->session(), folder, inode, name.c_str(), name.size());
  if (result != 0 && result != -ENOENT) forgetEntry(folder, name);
}

void FuseSession::forgetAttributes(Inode inode) {
  fuse_lowlevel_notify_inval_inode(channel_->session(), inode, -1, 0);
}

void FuseSession::forgetContents(Inode inode) {
  fuse_lowlevel_notify_inval_inode(channel_->session(), inode, 0, 0);
}

}  // namespace vondle
