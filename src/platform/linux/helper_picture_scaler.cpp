#include "platform/linux/helper_picture_scaler.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/linux/helper_process.h"

namespace vondle {
namespace {

std::vector<std::string> helperArguments() {
  std::vector<std::string> arguments = {"thumbnails"};
  for (const int side : THUMBNAIL_SIDES) arguments.push_back(std::to_string(side));
  return arguments;
}

std::string_view bytesOf(const std::uint32_t& number) {
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

}  // namespace

// One thread's helper, which ends with it.
class HelperPictureScaler::Worker {
 public:
  explicit Worker(const HelperPictureScaler& scaler) : scaler_(scaler) {}

  std::optional<ScaledPicture> scale(const std::string& picture) {
    const HelperDeadline deadline(scaler_.deadline_);
    if ((!helper_ || count_ >= MAX_PICTURES) && !start()) return std::nullopt;
    ++count_;
    auto scaled = send(picture, deadline) ? receive(deadline) : std::nullopt;
    if (!scaled) helper_.reset();
    return scaled && scaled->empty() ? std::nullopt : scaled;
  }

 private:
  bool start() {
    helper_.reset();
    count_ = 0;
    std::array<int, 2> ends;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
    socket_ = Descriptor(ends[0]);
    const Descriptor its(ends[1]);
    if (auto helper = HelperProcess::start(scaler_.helper_, helperArguments(), its.get(), its.get()))
      helper_.emplace(std::move(*helper));
    return helper_.has_value();
  }

  bool send(const std::string& picture, const HelperDeadline& deadline) const {
    const auto size = static_cast<std::uint32_t>(picture.size());
    return sendAll(bytesOf(size), deadline) && sendAll(picture, deadline);
  }

  bool sendAll(std::string_view bytes, const HelperDeadline& deadline) const {
    while (!bytes.empty()) {
      if (!deadline.waitFor(socket_.get(), POLLOUT, scaler_.closing_)) return false;
      const auto count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  // Empty where the helper says that there is none; none when it failed.
  std::optional<ScaledPicture> receive(const HelperDeadline& deadline) const {
    const auto count = receiveNumber(deadline);
    if (!count || (*count != 0 && *count != std::size(THUMBNAIL_SIDES))) return std::nullopt;
    ScaledPicture scaled;
    for (std::size_t room = MAX_ANSWER_BYTES; scaled.size() < *count;) {
      const auto size = receiveNumber(deadline);
      if (!size || *size > room) return std::nullopt;
      room -= *size;
      auto png = receiveBytes(*size, deadline);
      if (!png) return std::nullopt;
      scaled.push_back(std::move(*png));
    }
    return scaled;
  }

  std::optional<std::uint32_t> receiveNumber(const HelperDeadline& deadline) const {
    std::uint32_t number = 0;
    const auto bytes = receiveBytes(sizeof number, deadline);
    if (!bytes) return std::nullopt;
    bytes->copy(reinterpret_cast<char*>(&number), sizeof number);
    return number;
  }

  std::optional<std::string> receiveBytes(std::size_t size, const HelperDeadline& deadline) const {
    std::string bytes(size, '\0');
    for (std::size_t done = 0; done < size;) {
      if (!deadline.waitFor(socket_.get(), POLLIN, scaler_.closing_)) return std::nullopt;
      const auto count = recv(socket_.get(), bytes.data() + done, size - done, MSG_DONTWAIT);
      if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (count <= 0) return std::nullopt;
      done += static_cast<std::size_t>(count);
    }
    return bytes;
  }

  const HelperPictureScaler& scaler_;
  Descriptor socket_;
  std::optional<HelperProcess> helper_;
  int count_ = 0;
};

HelperPictureScaler::HelperPictureScaler() : HelperPictureScaler(HelperProcess::besideProgram()) {}

HelperPictureScaler::HelperPictureScaler(std::string helper, Duration deadline, Duration linger)
    : helper_(std::move(helper)),
      deadline_(deadline),
      linger_(linger),
      closing_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

HelperPictureScaler::~HelperPictureScaler() {
  eventfd_write(closing_, 1);
  {
    MutexLock hold(lock_);
    isClosed_ = true;
    changed_.notify_all();
    while (threads_ > 0) changed_.wait(lock_);
  }
  close(closing_);
}

void HelperPictureScaler::scale(std::string picture, ScalingCompletion completion) {
  MutexLock hold(lock_);
  jobs_.push_back({std::move(picture), std::move(completion)});
  if (jobs_.size() > static_cast<std::size_t>(idle_) && workers_ < AT_ONCE) {
    ++workers_;
    ++threads_;
    std::thread([this] { run(); }).detach();
  }
  changed_.notify_all();
}

void HelperPictureScaler::run() {
  {
    Worker worker(*this);
    while (auto job = nextJob()) {
      const bool isTooLarge = job->picture.size() > MAX_PICTURE_BYTES;
      auto scaled = isTooLarge || isClosed() ? std::nullopt : worker.scale(job->picture);
      std::move(job->completion)(std::move(scaled));
    }
  }
  MutexLock hold(lock_);
  --threads_;
  changed_.notify_all();  // with the lock held: once it is free, this object may be gone
}

bool HelperPictureScaler::isClosed() {
  MutexLock hold(lock_);
  return isClosed_;
}

// None when there is nothing more to do for a while; then the worker no longer counts.
std::optional<HelperPictureScaler::Job> HelperPictureScaler::nextJob() {
  const auto end = std::chrono::steady_clock::now() + linger_;
  MutexLock hold(lock_);
  ++idle_;
  while (jobs_.empty() && !isClosed_ && changed_.wait_until(lock_, end) != std::cv_status::timeout) {
  }
  --idle_;
  if (jobs_.empty()) {
    --workers_;
    return std::nullopt;
  }
  Job job = std::move(jobs_.front());
  jobs_.pop_front();
  return job;
}

}  // namespace vondle
