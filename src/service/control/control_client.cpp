#include "service/control/control_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "service/control/control_protocol.h"

namespace vondle {

namespace {

std::int64_t nowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Result<ControlClient> ControlClient::connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return failure(Error::posix(ENAMETOOLONG, "the control socket's path"));
  std::memcpy(address.sun_path, path.data(), path.size());
  ControlClient client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (client.descriptor_ < 0) return failure(Error::posix(errno, "making a socket"));
  if (::connect(client.descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return failure(Error::posix(errno, "reaching the service"));
  }
  return client;
}

ControlClient::ControlClient(ControlClient&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      buffer_(std::move(other.buffer_)),
      lastCode_(std::move(other.lastCode_)) {}

ControlClient::~ControlClient() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

Result<json::Object> ControlClient::request(const json::Object& request, std::optional<Duration> timeLimit,
                                            const std::function<void(const json::Object&)>& progress) {
  lastCode_.clear();
  std::optional<std::int64_t> deadline;
  if (timeLimit)
    deadline = nowMilliseconds() + std::chrono::duration_cast<std::chrono::milliseconds>(*timeLimit).count();

  const auto line = json::serialize(request) + "\n";
  for (std::size_t sent = 0; sent < line.size();) {
    const auto count = ::send(descriptor_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure(Error::posix(errno == EPIPE ? ECONNRESET : errno, "asking the service"));
    sent += static_cast<std::size_t>(count);
  }
  while (true) {
    const auto text = readLine(deadline);
    if (!text) return failure(text.error());
    const auto reply = json::parseObject(*text);
    if (!reply) return failure(Error(ERROR_DOMAIN, 0, "the service gave an answer that is not understood"));
    if (const auto* part = json::object(*reply, "progress")) {
      if (progress) progress(*part);
    } else if (const auto* result = json::object(*reply, "result")) {
      return *result;
    } else {
      lastCode_ = json::text(*reply, "code").value_or(control::CODE_FAILED);
      return failure(Error(ERROR_DOMAIN, 0, std::string(json::text(*reply, "error").value_or("the request failed"))));
    }
  }
}

Result<std::string> ControlClient::readLine(std::optional<std::int64_t> deadlineMilliseconds) {
  while (true) {
    if (const auto end = buffer_.find('\n'); end != std::string::npos) {
      auto line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    pollfd wanted{descriptor_, POLLIN, 0};
    int wait = -1;
    if (deadlineMilliseconds) {
      const auto left = *deadlineMilliseconds - nowMilliseconds();
      if (left <= 0) return failure(Error::posix(ETIMEDOUT, "waiting for the service"));
      wait = static_cast<int>(std::min<std::int64_t>(left, 1 << 30));
    }
    const int ready = ::poll(&wanted, 1, wait);
    if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
    std::array<char, 16 << 10> bytes{};
    const auto count = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return failure(Error::posix(count == 0 ? ECONNRESET : errno, "the service ended; its answer"));
    buffer_.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace vondle
