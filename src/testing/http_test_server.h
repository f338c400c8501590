#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "platform/url_session.h"
#include "testing/http_test_connection.h"

namespace vondle {

class HttpTestServer;

// One request, as the server's handler sees it, and its hand on the connection: it reads and writes what it likes, and
// so can be slow, wrong, or rude. On the connection's own thread.
class HttpTestExchange {
 public:
  std::string method;
  std::string target;  // "/path?query"
  std::vector<URLHeader> headers;
  int connection = 0;  // which of the server's connections it came over, from 1

  std::optional<std::string_view> header(std::string_view name) const { return findHeader(headers, name); }
  // What Content-Length says less what has been read.
  [[nodiscard]] std::int64_t bodyLeft() const { return bodyLeft_; }
  std::string readBody();                   // all that is left
  std::string readBody(std::size_t limit);  // a piece; empty at the end

  void reply(int status, std::string_view body = {}, std::vector<URLHeader> replyHeaders = {});
  // A head just as given; then write, or chunk and endChunks.
  bool start(int status, const std::vector<URLHeader>& replyHeaders);
  bool write(std::string_view bytes);
  bool chunk(std::string_view bytes);
  bool endChunks();

  void close() { closing_ = true; }  // after the handler
  void reset();                      // likewise, and the peer sees a reset
  // Blocks until HttpTestServer::release, or the server's end.
  void waitForRelease();

 private:
  friend class HttpTestServer;
  HttpTestExchange(HttpTestServer& server, HttpTestConnection& socket) : server_(server), socket_(socket) {}

  HttpTestServer& server_;
  HttpTestConnection& socket_;
  std::int64_t bodyLeft_ = 0;
  bool closing_ = false;
};

// An HTTP/1.1 server of the test's own on 127.0.0.1, one thread a connection, which does what handlers say. With a
// certificate and key (PEM files) it speaks TLS. Any thread; handlers run side by side.
class HttpTestServer {
 public:
  using Handler = std::function<void(HttpTestExchange&)>;
  struct Identity {
    std::string certificateFile;
    std::string keyFile;
  };

  explicit HttpTestServer(std::optional<Identity> identity = std::nullopt);
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  // For targets that begin with this; of several the longest. Without one the answer is 404.
  void handle(std::string prefix, Handler handler) EXCLUDES(lock_);
  [[nodiscard]] std::string url(std::string_view target = "/") const;
  [[nodiscard]] std::string host() const { return "127.0.0.1"; }
  [[nodiscard]] int port() const { return port_; }

  struct Request {
    std::string method;
    std::string target;
    std::vector<URLHeader> headers;
    std::string body;  // as far as the handler has read it
  };
  [[nodiscard]] std::vector<Request> requests() const EXCLUDES(lock_);
  [[nodiscard]] std::int64_t bytesReceived() const { return traffic_.received; }
  [[nodiscard]] std::int64_t bytesSent() const { return traffic_.sent; }

  // Lets every waiting exchange go on, and all that will wait.
  void release() EXCLUDES(lock_);
  // Blocks until as many exchanges wait for their release; false when that takes more than thirty seconds.
  bool waitForWaiting(int count) EXCLUDES(lock_);

 private:
  friend class HttpTestExchange;

  void acceptAll();
  void serve(const std::shared_ptr<HttpTestConnection>& socket, int number);
  bool serveOne(HttpTestConnection& socket, int number);
  Handler handlerFor(const std::string& target) const EXCLUDES(lock_);

  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> tls_;
  int listener_ = -1;
  int port_ = 0;
  HttpTestTraffic traffic_;
  mutable Mutex lock_;
  ConditionVariable changed_;
  std::map<std::string, Handler> handlers_ GUARDED_BY(lock_);
  std::vector<std::shared_ptr<HttpTestConnection>> connections_ GUARDED_BY(lock_);
  std::vector<std::thread> threads_ GUARDED_BY(lock_);
  std::map<const HttpTestExchange*, std::size_t> running_ GUARDED_BY(lock_);  // index into requests_
  std::vector<Request> requests_ GUARDED_BY(lock_);
  int waiting_ GUARDED_BY(lock_) = 0;
  bool released_ GUARDED_BY(lock_) = false;
  bool stopping_ GUARDED_BY(lock_) = false;
  std::thread accepting_;
};

}  // namespace vondle
