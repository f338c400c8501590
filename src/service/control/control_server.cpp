#include "service/control/control_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "service/control/control_protocol.h"

namespace vondle {

namespace {

// Progress is left out while this much waits for a client.
constexpr std::size_t MAX_BACKLOG_FOR_PROGRESS = 64 << 10;

std::string errorLine(std::string_view code, std::string_view message) {
  return json::serialize(json::Object{{"error", message}, {"code", code}}) + "\n";
}

bool isPermitted(int client) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == ::geteuid() || peer.uid == 0;
}

}  // namespace

// The clients, shared with the replies, which may outlive the server. Only the server's thread opens, reads, writes and
// closes descriptors, and never with the lock held.
class ControlServer::Connections {
 public:
  struct Ready {
    std::uint64_t client;
    int descriptor;
    short events;
  };

  explicit Connections(int wake) : wake_(wake) {}
  ~Connections() { ::close(wake_); }
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  [[nodiscard]] int wakeDescriptor() const { return wake_; }

  void wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);  // fails only when already awake
  }

  void stop() EXCLUDES(lock_) {
    {
      const MutexLock guard(lock_);
      stopping_ = true;
    }
    wake();
  }
  bool isStopping() EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    return stopping_;
  }

  std::uint64_t add(int descriptor) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    const auto client = ++lastClient_;
    auto& state = clients_[client];
    state.descriptor = descriptor;
    state.lastUse = ++uses_;
    return client;
  }

  // Room for one more, made if need be by dropping the client that has been idle longest.
  bool makeRoom() EXCLUDES(lock_) {
    std::optional<std::uint64_t> longestIdle;
    {
      const MutexLock guard(lock_);
      if (clients_.size() < control::MAX_CLIENTS) return true;
      for (const auto& [client, state] : clients_) {
        if (state.busy) continue;
        if (!longestIdle || state.lastUse < clients_.at(*longestIdle).lastUse) longestIdle = client;
      }
    }
    if (!longestIdle) return false;
    close(*longestIdle);
    return true;
  }

  // What to wait for, per client.
  std::vector<Ready> interests() EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    std::vector<Ready> result;
    for (const auto& [client, state] : clients_) {
      short events = 0;
      if (!state.out.empty())
        events |= POLLOUT;
      else if (!state.busy && !state.inputEnded)
        events |= POLLIN;
      result.push_back({client, state.descriptor, events});
    }
    return result;
  }

  // The next whole line of a client that is neither busy nor behind with reading; it is busy from now on.
  std::optional<std::string> takeLine(std::uint64_t client) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    auto* state = find(client);
    if (!state || state->busy || !state->out.empty()) return std::nullopt;
    const auto end = state->in.find('\n');
    if (end == std::string::npos) return std::nullopt;
    auto line = state->in.substr(0, end);
    state->in.erase(0, end + 1);
    state->busy = true;
    ++state->request;
    state->lastUse = ++uses_;
    return line;
  }

  // False when the client sends too long a line.
  bool addInput(std::uint64_t client, std::string_view bytes) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    auto* state = find(client);
    if (!state) return true;
    state->in += bytes;
    return state->in.size() <= control::MAX_LINE || state->in.find('\n') < control::MAX_LINE;
  }
  void endInput(std::uint64_t client) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    if (auto* state = find(client)) state->inputEnded = true;
  }
  bool isDone(std::uint64_t client) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    const auto* state = find(client);
    return state && state->inputEnded && !state->busy && state->out.empty();
  }

  std::string takeOutput(std::uint64_t client) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    auto* state = find(client);
    return state ? std::exchange(state->out, {}) : std::string();
  }
  void putOutputBack(std::uint64_t client, std::string_view rest) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    if (auto* state = find(client)) state->out.insert(0, rest);
  }

  [[nodiscard]] std::uint64_t requestOf(std::uint64_t client) EXCLUDES(lock_) {
    const MutexLock guard(lock_);
    const auto* state = find(client);
    return state ? state->request : 0;
  }

  void close(std::uint64_t client) EXCLUDES(lock_) {
    int descriptor = -1;
    std::function<void()> abandoned;
    {
      const MutexLock guard(lock_);
      const auto found = clients_.find(client);
      if (found == clients_.end()) return;
      descriptor = found->second.descriptor;
      if (found->second.busy) abandoned = std::move(found->second.abandoned);
      clients_.erase(found);
    }
    ::close(descriptor);
    if (abandoned) abandoned();
  }

  void closeAll() EXCLUDES(lock_) {
    for (const auto& client : interests()) close(client.client);
  }

  // From replies, on any thread.
  void say(std::uint64_t client, std::uint64_t request, std::string_view line, bool isLast) EXCLUDES(lock_) {
    std::function<void()> dropped;  // destroyed without the lock
    {
      const MutexLock guard(lock_);
      auto* state = find(client);
      if (!state || !state->busy || state->request != request) return;
      if (!isLast && state->out.size() > MAX_BACKLOG_FOR_PROGRESS) return;
      state->out += line;
      if (isLast) {
        state->busy = false;
        dropped = std::move(state->abandoned);
        state->abandoned = nullptr;
      }
    }
    wake();
  }
  void whenAbandoned(std::uint64_t client, std::uint64_t request, std::function<void()> handler) EXCLUDES(lock_) {
    {
      const MutexLock guard(lock_);
      if (auto* state = find(client)) {
        if (state->busy && state->request == request) state->abandoned = std::move(handler);
        return;
      }
    }
    handler();
  }

 private:
  struct Client {
    int descriptor = -1;
    std::string in;
    std::string out;
    bool busy = false;  // a request has no last line yet
    bool inputEnded = false;
    std::uint64_t request = 0;
    std::uint64_t lastUse = 0;
    std::function<void()> abandoned;
  };

  Client* find(std::uint64_t client) REQUIRES(lock_) {
    const auto found = clients_.find(client);
    return found == clients_.end() ? nullptr : &found->second;
  }

  const int wake_;
  Mutex lock_;
  bool stopping_ GUARDED_BY(lock_) = false;
  std::uint64_t lastClient_ GUARDED_BY(lock_) = 0;
  std::uint64_t uses_ GUARDED_BY(lock_) = 0;
  std::map<std::uint64_t, Client> clients_ GUARDED_BY(lock_);
};

class ControlServer::Reply : public ControlReply {
 public:
  Reply(std::shared_ptr<Connections> connections, std::uint64_t client)
      : connections_(std::move(connections)), client_(client), request_(connections_->requestOf(client)) {}
  // A request that nobody answered gets an answer all the same.
  ~Reply() override { fail(control::CODE_FAILED, "the service gave no answer"); }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  void progress(const json::Object& progress) override {
    say(json::serialize(json::Object{{"progress", progress}}) + "\n", false);
  }
  void finish(const json::Object& result) override {
    say(json::serialize(json::Object{{"result", result}}) + "\n", true);
  }
  void fail(std::string_view code, std::string_view message) override { say(errorLine(code, message), true); }
  void whenAbandoned(std::function<void()> handler) override {
    connections_->whenAbandoned(client_, request_, std::move(handler));
  }

 private:
  void say(const std::string& line, bool isLast) { connections_->say(client_, request_, line, isLast); }

  const std::shared_ptr<Connections> connections_;
  const std::uint64_t client_;
  const std::uint64_t request_;
};

Result<std::unique_ptr<ControlServer>> ControlServer::listen(const std::string& path, Handler handler) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return failure(Error::posix(ENAMETOOLONG, "the control socket's path " + path));
  }
  std::memcpy(address.sun_path, path.data(), path.size());

  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener < 0) return failure(Error::posix(errno, "making the control socket"));
  ::unlink(path.c_str());
  // Until chmod has run, the folder, which is 0700, keeps others out.
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0600) != 0 || ::listen(listener, static_cast<int>(control::MAX_CLIENTS)) != 0) {
    auto error = Error::posix(errno, "opening the control socket " + path);
    ::close(listener);
    return failure(std::move(error));
  }
  const int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) {
    auto error = Error::posix(errno, "making an event descriptor");
    ::close(listener);
    return failure(std::move(error));
  }
  return std::unique_ptr<ControlServer>(new ControlServer(path, listener, wake, std::move(handler)));
}

ControlServer::ControlServer(std::string path, int listener, int wake, Handler handler)
    : path_(std::move(path)),
      listener_(listener),
      handler_(std::move(handler)),
      connections_(std::make_shared<Connections>(wake)),
      thread_([this] { run(); }) {}

ControlServer::~ControlServer() {
  connections_->stop();
  thread_.join();
  ::close(listener_);
  ::unlink(path_.c_str());
  connections_->closeAll();
}

void ControlServer::run() {
  while (!connections_->isStopping()) {
    const auto clients = connections_->interests();
    std::vector<pollfd> descriptors = {{connections_->wakeDescriptor(), POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const auto& client : clients) descriptors.push_back({client.descriptor, client.events, 0});
    if (::poll(descriptors.data(), descriptors.size(), -1) < 0) continue;

    if (descriptors[0].revents) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto read = ::read(connections_->wakeDescriptor(), &count, sizeof count);
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
      const auto events = descriptors[i + 2].revents;
      if (events & (POLLHUP | POLLERR | POLLNVAL) && !(events & POLLIN))
        connections_->close(clients[i].client);
      else if (events)
        serve(clients[i].client);
    }
    // Requests that came while an earlier one of the same client was being answered.
    for (const auto& client : clients) {
      while (auto line = connections_->takeLine(client.client)) handleLine(client.client, std::move(*line));
      if (connections_->isDone(client.client)) connections_->close(client.client);
    }
    if (descriptors[1].revents) acceptClient();
  }
  // The last words, as far as they can be said without waiting.
  for (const auto& client : connections_->interests()) {
    if (client.events & POLLOUT) serve(client.client);
  }
}

void ControlServer::acceptClient() {
  const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) {
    // Without free descriptors the listener stays readable: wait rather than spin.
    if (errno == EMFILE || errno == ENFILE) ::poll(nullptr, 0, 100);
    return;
  }
  if (!isPermitted(client)) {
    ::close(client);
  } else if (!connections_->makeRoom()) {
    const auto line = errorLine(control::CODE_BUSY, "too many commands are running; try again later");
    ::send(client, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::close(client);
  } else {
    connections_->add(client);
  }
}

void ControlServer::serve(std::uint64_t client) {
  int descriptor = -1;
  short interest = 0;
  for (const auto& each : connections_->interests()) {
    if (each.client != client) continue;
    descriptor = each.descriptor;
    interest = each.events;
  }
  if (descriptor < 0) return;

  if (interest & POLLOUT) {
    const auto output = connections_->takeOutput(client);
    const auto sent = ::send(descriptor, output.data(), output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return connections_->close(client);
    connections_->putOutputBack(client, std::string_view(output).substr(sent > 0 ? static_cast<std::size_t>(sent) : 0));
    return;
  }
  if (interest & POLLIN) {
    std::array<char, 16 << 10> buffer{};
    const auto received = ::recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (received < 0) {
      if (errno != EAGAIN && errno != EINTR) connections_->close(client);
    } else if (received == 0) {
      connections_->endInput(client);
    } else if (!connections_->addInput(client, {buffer.data(), static_cast<std::size_t>(received)})) {
      connections_->close(client);
    }
  }
}

void ControlServer::handleLine(std::uint64_t client, std::string line) {
  auto reply = std::make_shared<Reply>(connections_, client);
  const auto request = json::parseObject(line);
  if (!request || !json::text(*request, "command")) {
    reply->fail(control::CODE_MALFORMED, "expected a JSON object with \"command\"");
    return;
  }
  handler_(*request, reply);
}

}  // namespace vondle
