#include "storage/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <vector>

#include <fmt/format.h>
#include <httplib.h>

#include "base/mutex.h"
#include "platform/log.h"
#include "storage/count.h"

namespace vondle::storage {
namespace {

constexpr Log slog("com.ferrow.vondle.storage", "http");

constexpr int IDLE_SECONDS = 30;       // between two requests of a connection
constexpr int TRANSFER_SECONDS = 600;  // without a byte; clients pause transfers
constexpr std::size_t MAX_PATH = 512;
constexpr std::size_t CHUNK = 256 * 1024;
// Of a reply: a short one leaves in one piece, its headers with its body.
constexpr std::size_t REPLY_BUFFER = 16 * 1024;
// After an early refusal the rest of the body is read for so long, so that the client gets to see the refusal.
constexpr int LINGER_MILLISECONDS = 2000;

// Of the request that the current thread handles: its body was not read to the end, so nothing can follow it.
thread_local bool bodyIsLeft = false;

bool waitFor(int socket, short events, int milliseconds) {
  pollfd entry{.fd = socket, .events = events, .revents = 0};
  for (;;) {
    const int count = ::poll(&entry, 1, milliseconds);
    if (count > 0) return true;
    if (count == 0 || errno != EINTR) return false;
  }
}

// A connection as the HTTP library reads and writes it, with buffers: what it has written leaves when there is enough
// of it, before more is read, and with flush.
class SocketStream final : public httplib::Stream {
 public:
  explicit SocketStream(int socket) : socket_(socket) {}

  // A request has begun to arrive.
  bool waitForRequest() { return next_ < end_ || waitFor(socket_, POLLIN, IDLE_SECONDS * 1000); }

  bool is_readable() const override { return next_ < end_ || waitFor(socket_, POLLIN, TRANSFER_SECONDS * 1000); }
  bool is_writable() const override { return waitFor(socket_, POLLOUT, TRANSFER_SECONDS * 1000); }

  ssize_t read(char* target, size_t size) override {
    if (next_ == end_) {
      if (!flush() || !waitFor(socket_, POLLIN, TRANSFER_SECONDS * 1000)) return -1;
      const ssize_t count = receive(buffer_.data(), buffer_.size());
      if (count <= 0) return count;
      next_ = 0;
      end_ = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min(size, end_ - next_);
    std::memcpy(target, buffer_.data() + next_, count);
    next_ += count;
    return static_cast<ssize_t>(count);
  }

  ssize_t write(const char* bytes, size_t size) override {
    if (reply_.size() + size <= REPLY_BUFFER) {
      reply_.append(bytes, size);
      return static_cast<ssize_t>(size);
    }
    return flush() ? sendSome(bytes, size) : -1;
  }

  bool flush() {
    std::size_t sent = 0;
    while (sent < reply_.size()) {
      const ssize_t count = sendSome(reply_.data() + sent, reply_.size() - sent);
      if (count <= 0) return false;
      sent += static_cast<std::size_t>(count);
    }
    reply_.clear();
    return true;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override { name(::getpeername, ip, port); }
  void get_local_ip_and_port(std::string& ip, int& port) const override { name(::getsockname, ip, port); }
  socket_t socket() const override { return socket_; }

  // Says that nothing more comes, and reads on for a moment what the client still sends.
  void linger() {
    flush();
    ::shutdown(socket_, SHUT_WR);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(LINGER_MILLISECONDS);
    while (std::chrono::steady_clock::now() < end && waitFor(socket_, POLLIN, LINGER_MILLISECONDS))
      if (receive(buffer_.data(), buffer_.size()) <= 0) break;
  }

 private:
  ssize_t receive(char* target, std::size_t size) const {
    for (;;) {
      const ssize_t count = ::recv(socket_, target, size, 0);
      if (count >= 0 || errno != EINTR) return count;
    }
  }

  ssize_t sendSome(const char* bytes, std::size_t size) {
    if (!is_writable()) return -1;
    for (;;) {
      const ssize_t count = ::send(socket_, bytes, size, MSG_NOSIGNAL);
      if (count >= 0 || errno != EINTR) return count;
    }
  }

  template <class Getter>
  void name(Getter getter, std::string& ip, int& port) const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    std::array<char, INET_ADDRSTRLEN> text{};
    if (getter(socket_, reinterpret_cast<sockaddr*>(&address), &length) != 0 || address.sin_family != AF_INET) return;
    if (::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size())) ip = text.data();
    port = ntohs(address.sin_port);
  }

  int socket_;
  std::array<char, 64 * 1024> buffer_{};
  std::size_t next_ = 0;
  std::size_t end_ = 0;
  std::string reply_;
};

std::multimap<std::string, std::string> queryOf(const httplib::Request& request) {
  return {request.params.begin(), request.params.end()};
}

void send(httplib::Response& response, const ApiReply& reply) {
  response.status = reply.status;
  if (!reply.allow.empty()) response.set_header("Allow", reply.allow);
  response.set_header("Cache-Control", "no-store");
  response.set_content(reply.body, "application/json");
}

void send(httplib::Response& response, const Refusal& refusal) {
  send(response, errorReply(refusal.status, refusal.text));
}

std::optional<std::int64_t> lengthOf(const httplib::Request& request) {
  if (request.has_header("Transfer-Encoding") || request.get_header_value_count("Content-Length") != 1)
    return std::nullopt;
  return countIn(request.get_header_value("Content-Length"));
}

bool hasBody(const httplib::Request& request) {
  return request.has_header("Transfer-Encoding") ||
         (request.has_header("Content-Length") && request.get_header_value("Content-Length") != "0");
}

}  // namespace

// The library's server with connections of our own: they can be cut at any time, an unread body ends them, and each
// holds a range header back that the library would apply to replies it does not fit.
class HttpServer::Implementation final : public httplib::Server {
 public:
  Implementation(HttpOptions options, ApiHandlers& api, ContentHandlers& contents)
      : options_(std::move(options)), api_(api), contents_(contents) {
    // Made when serving begins; only from then on can the library be stopped.
    new_task_queue = [this] {
      setState(State::serving);
      return new httplib::ThreadPool(MAX_CONNECTIONS);
    };
    set_tcp_nodelay(true);
    set_keep_alive_timeout(IDLE_SECONDS);
    set_keep_alive_max_count(1'000'000);
    // A port that another program listens on is refused.
    set_socket_options([](int socket) {
      const int yes = 1;
      ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    set_pre_routing_handler([this](const auto& request, auto& response) { return route(request, response); });
    const auto post = [this](const auto& request, auto& response, const auto& reader) {
      receiveApi(request, response, reader);
    };
    Post("/vondle/api/.*", post);
    Put("/vondle/.*", [this](const auto& request, auto& response, const auto& reader) {
      receiveContents(request, response, reader);
    });
    set_error_handler([](const httplib::Request&, httplib::Response& response) {
      if (response.body.empty()) send(response, errorReply(response.status, "the request is not understood"));
    });
    set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
      bodyIsLeft = true;
      send(response, errorReply(500, "the service failed"));
    });
  }

  Result<int> bindAddress() {
    const int port = options_.port == 0                           ? bind_to_any_port(options_.host)
                     : bind_to_port(options_.host, options_.port) ? options_.port
                                                                  : -1;
    if (port < 0) {
      return failure({"VondleStorageError", 0,
                      fmt::format("cannot listen on {}:{}: is the port taken, or the address not of this machine?",
                                  options_.host, options_.port)});
    }
    // The library's queue of five makes clients that come together wait a second.
    ::listen(svr_sock_, SOMAXCONN);
    port_ = port;
    return port;
  }

  bool serve() {
    const bool served = listen_after_bind();
    setState(State::ended);
    return served;
  }

  void cut() {
    {
      MutexLock lock(lock_);
      while (state_ == State::bound) stateChanged_.wait(lock_);
      stopping_ = true;
    }
    stop();
    const MutexLock lock(lock_);
    for (const int socket : sockets_) ::shutdown(socket, SHUT_RDWR);
  }

 private:
  enum class State { bound, serving, ended };

  void setState(State state) EXCLUDES(lock_) {
    const MutexLock lock(lock_);
    state_ = state;
    stateChanged_.notify_all();
  }

  bool process_and_close_socket(socket_t socket) override {
    if (add(socket)) {
      SocketStream stream(socket);
      while (stream.waitForRequest()) {
        bool closed = false;
        bool understood = false;
        bodyIsLeft = false;
        const bool answered = process_request(stream, false, closed, [&](httplib::Request& request) {
          understood = true;
          request.ranges.clear();
          bodyIsLeft = hasBody(request);
        });
        if (!stream.flush()) break;
        if (answered && understood && !closed && !bodyIsLeft) continue;
        if (answered && !closed) stream.linger();
        break;
      }
    }
    remove(socket);
    ::shutdown(socket, SHUT_RDWR);
    ::close(socket);
    return true;
  }

  bool add(int socket) {
    const MutexLock lock(lock_);
    sockets_.insert(socket);
    return !stopping_;
  }
  void remove(int socket) {
    const MutexLock lock(lock_);
    sockets_.erase(socket);
  }

  HandlerResponse route(const httplib::Request& request, httplib::Response& response) {
    const bool reads = request.method == "GET" || request.method == "HEAD";
    const bool isApi = request.path.starts_with("/vondle/api/");
    if (request.path.size() > MAX_PATH) {
      send(response, errorReply(414, "the address is too long"));
    } else if (isApi) {
      if (request.method == "POST") return HandlerResponse::Unhandled;
      send(response, api_.handle(apiRequest(request)));
    } else if (!request.path.starts_with("/vondle/")) {
      send(response, errorReply(404, "there is nothing at this address"));
    } else if (reads) {
      sendContents(request, response);
    } else if (request.method == "PUT") {
      return HandlerResponse::Unhandled;
    } else {
      send(response, errorReply(405, "this address does not take such requests"));
    }
    return HandlerResponse::Handled;
  }

  ApiRequest apiRequest(const httplib::Request& request) const {
    ApiRequest made;
    made.method = request.method;
    made.endpoint = request.path.substr(std::strlen("/vondle/api/"));
    made.query = queryOf(request);
    if (request.has_header("X-API-Key")) made.key = request.get_header_value("X-API-Key");
    made.base = baseFor(request);
    return made;
  }

  // Only names of this machine are taken over from the client; others could lead it anywhere.
  std::string baseFor(const httplib::Request& request) const {
    if (!options_.publicUrl.empty()) return options_.publicUrl;
    const std::string named = request.get_header_value("Host");
    const auto colon = named.find(':');
    const std::string host = named.substr(0, colon);
    const bool hasPlainPort =
        colon == std::string::npos || named.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    if (hasPlainPort && (host == "127.0.0.1" || host == "localhost")) return "http://" + named;
    return fmt::format("http://{}:{}", options_.host, port_);
  }

  static ContentRequest contentRequest(const httplib::Request& request) {
    return {.method = request.method,
            .path = request.path,
            .query = queryOf(request),
            .hasApiKey = request.has_header("X-API-Key")};
  }

  void receiveContents(const httplib::Request& request, httplib::Response& response,
                       const httplib::ContentReader& reader) {
    if (request.has_header("Content-Encoding") || request.is_multipart_form_data()) {
      send(response, errorReply(415, "contents are sent as they are"));
      return;
    }
    auto receiver =
        contents_.upload(contentRequest(request), lengthOf(request), request.get_header_value("Content-Type"));
    if (!receiver) {
      send(response, receiver.error());
      return;
    }
    Answer<void> written;
    const bool whole = reader([&](const char* bytes, std::size_t count) {
      written = (*receiver)->write({bytes, count});
      return written.has_value();
    });
    if (!written) {
      send(response, written.error());
      return;
    }
    if (!whole) {
      send(response, errorReply(400, "the body ended early"));
      return;
    }
    bodyIsLeft = false;
    const auto etag = (*receiver)->finish();
    if (!etag) {
      send(response, etag.error());
      return;
    }
    response.status = 200;
    response.set_header("ETag", *etag);
  }

  void receiveApi(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader) {
    auto made = apiRequest(request);
    if (request.has_header("Content-Encoding") || request.is_multipart_form_data()) {
      send(response, errorReply(415, "the body is plain JSON"));
      return;
    }
    bool tooLong = false;
    const bool whole = reader([&](const char* bytes, std::size_t count) {
      tooLong = made.body.size() + count > MAX_API_BODY;
      if (!tooLong) made.body.append(bytes, count);
      return !tooLong;
    });
    if (tooLong) {
      send(response, errorReply(413, "the body is longer than 1 MiB"));
    } else if (!whole) {
      send(response, errorReply(400, "the body ended early"));
    } else {
      bodyIsLeft = false;
      send(response, api_.handle(made));
    }
  }

  void sendContents(const httplib::Request& request, httplib::Response& response) {
    auto download = contents_.download(contentRequest(request));
    if (!download) {
      send(response, download.error());
      return;
    }
    const std::shared_ptr<StoredFile> file = std::move(download->file);
    response.set_header("ETag", download->etag);
    response.set_header("Accept-Ranges", "bytes");
    response.set_header("Cache-Control", "private");
    response.set_header("X-Content-Type-Options", "nosniff");
    const auto range = rangeOf(request.get_header_value("Range"), file->size());
    if (!range) {
      response.set_header("Content-Range", fmt::format("bytes */{}", file->size()));
      send(response, range.error());
      return;
    }
    std::int64_t first = 0;
    std::int64_t length = file->size();
    response.status = 200;
    if (*range) {
      first = (*range)->first;
      length = (*range)->second - first + 1;
      response.status = 206;
      response.set_header("Content-Range", fmt::format("bytes {}-{}/{}", first, (*range)->second, file->size()));
    }
    if (length == 0) {
      response.set_content("", download->contentType);
      return;
    }
    response.set_content_provider(static_cast<std::size_t>(length), download->contentType,
                                  [file, first](std::size_t offset, std::size_t count, httplib::DataSink& sink) {
                                    std::vector<char> buffer(std::min(count, CHUNK));
                                    const auto read = file->readAt(first + static_cast<std::int64_t>(offset), buffer);
                                    if (!read) slog.error("%{public}@", read.error().localizedDescription());
                                    return read && *read > 0 && sink.write(buffer.data(), *read);
                                  });
  }

  const HttpOptions options_;
  int port_ = 0;
  ApiHandlers& api_;
  ContentHandlers& contents_;
  Mutex lock_;
  ConditionVariable stateChanged_;
  State state_ GUARDED_BY(lock_) = State::bound;
  std::set<int> sockets_ GUARDED_BY(lock_);
  bool stopping_ GUARDED_BY(lock_) = false;
};

HttpServer::HttpServer(HttpOptions options, ApiHandlers& api, ContentHandlers& contents)
    : implementation_(std::make_unique<Implementation>(std::move(options), api, contents)) {}
HttpServer::~HttpServer() = default;

Result<int> HttpServer::bind() {
  return implementation_->bindAddress();
}
bool HttpServer::run() {
  return implementation_->serve();
}
void HttpServer::stop() {
  implementation_->cut();
}

}  // namespace vondle::storage
