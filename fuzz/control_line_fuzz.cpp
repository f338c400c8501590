#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "fuzzing.h"
#include "service/control/control_protocol.h"
#include "service/control/control_server.h"

// What a client of the control socket sends, and then ends: each whole line gets exactly one last line, in order.
namespace vondle {
namespace {

class Rig {
 public:
  Rig() {
    auto server = ControlServer::listen(path_, [](const json::Object& request, const auto& reply) {
      REQUIRE(json::text(request, "command"));
      reply->progress(request);
      reply->finish(request);
    });
    REQUIRE(server.has_value());
    server_ = std::move(*server);
  }

  std::string exchange(std::string_view bytes) const {
    const int client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    REQUIRE(::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    std::string answers;
    bool ended = false;
    bool isSent = false;
    while (!ended) {
      if (bytes.empty() && !std::exchange(isSent, true)) ::shutdown(client, SHUT_WR);
      pollfd entry{.fd = client, .events = POLLIN, .revents = 0};
      if (!bytes.empty()) entry.events |= POLLOUT;
      const int ready = ::poll(&entry, 1, 10'000);
      if (ready < 0 && errno == EINTR) continue;  // the fuzzer's own alarm
      REQUIRE(ready == 1);                        // it always goes on
      if (entry.revents & POLLOUT) {
        const auto sent = ::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : bytes.size());
      }
      if (entry.revents & (POLLIN | POLLHUP)) {
        char buffer[4096];
        const auto received = ::recv(client, buffer, sizeof buffer, MSG_DONTWAIT);
        if (received > 0) answers.append(buffer, static_cast<std::size_t>(received));
        ended = received == 0 || (received < 0 && errno != EAGAIN);
      }
    }
    ::close(client);
    return answers;
  }

 private:
  const MemoryFolder folder_;
  const std::string path_ = folder_.path() + "/control";
  std::unique_ptr<ControlServer> server_;
};

}  // namespace

void fuzz(std::string_view bytes) {
  if (bytes.size() > control::MAX_LINE) return;  // a line may be too long, and ends the connection
  static const Rig rig;
  const auto answers = rig.exchange(bytes);
  REQUIRE(answers.empty() || answers.ends_with('\n'));

  std::string_view rest = answers;
  const auto next = [&]() -> json::Object {
    const auto end = rest.find('\n');
    REQUIRE(end != std::string_view::npos);
    auto answer = json::parseObject(rest.substr(0, end));
    REQUIRE(answer.has_value());
    rest.remove_prefix(end + 1);
    return std::move(*answer);
  };
  while (bytes.contains('\n')) {
    const auto request = json::parseObject(bytes.substr(0, bytes.find('\n')));
    bytes.remove_prefix(bytes.find('\n') + 1);
    auto answer = next();
    if (request && json::text(*request, "command")) {
      if (json::object(answer, "progress")) answer = next();
      REQUIRE(json::object(answer, "result"));
    } else {
      REQUIRE(json::text(answer, "code") == control::CODE_MALFORMED);
    }
  }
  REQUIRE(rest.empty());
}

}  // namespace vondle
