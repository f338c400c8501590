#include "testing/http_test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace vondle {
namespace {

std::string headText(int status, const std::vector<URLHeader>& headers) {
  std::string head = fmt::format("HTTP/1.1 {} Reason\r\n", status);
  for (const URLHeader& header : headers) head += header.name + ": " + header.value + "\r\n";
  return head + "\r\n";
}

}  // namespace

std::string HttpTestExchange::readBody() {
  std::string body;
  while (true) {
    const std::string piece = readBody(65'536);
    if (piece.empty()) return body;
    body += piece;
  }
}

std::string HttpTestExchange::readBody(std::size_t limit) {
  if (bodyLeft_ <= 0) return {};
  std::string piece = socket_.read(std::min(limit, static_cast<std::size_t>(bodyLeft_)));
  bodyLeft_ -= static_cast<std::int64_t>(piece.size());
  if (piece.empty()) closing_ = true;
  MutexLock hold(server_.lock_);
  server_.requests_[server_.running_.at(this)].body += piece;
  return piece;
}

void HttpTestExchange::reply(int status, std::string_view body, std::vector<URLHeader> replyHeaders) {
  replyHeaders.push_back({"Content-Length", std::to_string(body.size())});
  if (start(status, replyHeaders) && method != "HEAD") write(body);
}

bool HttpTestExchange::start(int status, const std::vector<URLHeader>& replyHeaders) {
  return write(headText(status, replyHeaders));
}

bool HttpTestExchange::write(std::string_view bytes) {
  if (socket_.write(bytes)) return true;
  closing_ = true;
  return false;
}

bool HttpTestExchange::chunk(std::string_view bytes) {
  return write(fmt::format("{:x}\r\n", bytes.size())) && write(bytes) && write("\r\n");
}

bool HttpTestExchange::endChunks() {
  return write("0\r\n\r\n");
}

void HttpTestExchange::reset() {
  socket_.reset();
  closing_ = true;
  bodyLeft_ = 0;
}

void HttpTestExchange::waitForRelease() {
  MutexLock hold(server_.lock_);
  ++server_.waiting_;
  server_.changed_.notify_all();
  while (!server_.released_ && !server_.stopping_) server_.changed_.wait(server_.lock_);
  --server_.waiting_;
}

HttpTestServer::HttpTestServer(std::optional<Identity> identity) : tls_(nullptr, &SSL_CTX_free) {
  if (identity) {
    tls_.reset(SSL_CTX_new(TLS_server_method()));
    if (SSL_CTX_use_certificate_chain_file(tls_.get(), identity->certificateFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls_.get(), identity->keyFile.c_str(), SSL_FILETYPE_PEM) != 1)
      throw std::runtime_error("the test server can't read its certificate or key");
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener_, 256) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("the test server can't listen");
  port_ = ntohs(address.sin_port);
  accepting_ = std::thread([this] { acceptAll(); });
}

HttpTestServer::~HttpTestServer() {
  std::vector<std::shared_ptr<HttpTestConnection>> connections;
  {
    MutexLock hold(lock_);
    stopping_ = true;
    connections = connections_;
  }
  changed_.notify_all();
  ::shutdown(listener_, SHUT_RDWR);
  accepting_.join();
  ::close(listener_);
  std::vector<std::thread> threads;
  {
    MutexLock hold(lock_);
    connections = connections_;
    threads = std::move(threads_);
  }
  for (const auto& connection : connections) connection->shutdown();
  for (std::thread& thread : threads) thread.join();
}

void HttpTestServer::handle(std::string prefix, Handler handler) {
  MutexLock hold(lock_);
  handlers_[std::move(prefix)] = std::move(handler);
}

std::string HttpTestServer::url(std::string_view target) const {
  return fmt::format("{}://127.0.0.1:{}{}", tls_ ? "https" : "http", port_, target);
}

std::vector<HttpTestServer::Request> HttpTestServer::requests() const {
  MutexLock hold(lock_);
  return requests_;
}

void HttpTestServer::release() {
  {
    MutexLock hold(lock_);
    released_ = true;
  }
  changed_.notify_all();
}

bool HttpTestServer::waitForWaiting(int count) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  MutexLock hold(lock_);
  while (waiting_ < count)
    if (changed_.wait_until(lock_, limit) == std::cv_status::timeout) return waiting_ >= count;
  return true;
}

void HttpTestServer::acceptAll() {
  for (int number = 1;; ++number) {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto connection = std::make_shared<HttpTestConnection>(socket, tls_.get(), traffic_);
    MutexLock hold(lock_);
    if (stopping_) return;
    connections_.push_back(connection);
    threads_.emplace_back([this, connection, number] { serve(connection, number); });
  }
}

void HttpTestServer::serve(const std::shared_ptr<HttpTestConnection>& socket, int number) {
  sigset_t brokenPipe;  // a client that is gone is an error, not a signal
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  if (socket->accept())
    while (serveOne(*socket, number)) {
    }
  socket->shutdown();
  MutexLock hold(lock_);
  std::erase(connections_, socket);
}

// True when the connection can serve another request.
bool HttpTestServer::serveOne(HttpTestConnection& socket, int number) {
  const std::string head = socket.readHead();
  if (head.empty()) return false;
  HttpTestExchange exchange(*this, socket);
  exchange.connection = number;
  std::size_t lineStart = 0;
  while (lineStart < head.size()) {
    const auto lineEnd = head.find("\r\n", lineStart);
    const std::string line = head.substr(lineStart, lineEnd - lineStart);
    const auto colon = line.find(": ");
    if (lineStart == 0) {
      const auto blank = line.find(' ');
      exchange.method = line.substr(0, blank);
      exchange.target = line.substr(blank + 1, line.rfind(' ') - blank - 1);
    } else if (!line.empty()) {
      exchange.headers.push_back(
          {line.substr(0, line.find(':')), colon == std::string::npos ? std::string() : line.substr(colon + 2)});
    }
    lineStart = lineEnd + 2;
  }
  if (const auto length = exchange.header("Content-Length")) exchange.bodyLeft_ = std::stoll(std::string(*length));
  {
    MutexLock hold(lock_);
    running_[&exchange] = requests_.size();
    requests_.push_back({exchange.method, exchange.target, exchange.headers, {}});
  }
  if (const Handler handler = handlerFor(exchange.target))
    handler(exchange);
  else
    exchange.reply(404, "not found");
  while (!exchange.closing_ && !exchange.readBody(65'536).empty()) {
  }
  MutexLock hold(lock_);
  running_.erase(&exchange);
  return !exchange.closing_ && !stopping_;
}

HttpTestServer::Handler HttpTestServer::handlerFor(const std::string& target) const {
  MutexLock hold(lock_);
  for (auto handler = handlers_.rbegin(); handler != handlers_.rend(); ++handler)
    if (target.starts_with(handler->first)) return handler->second;
  return nullptr;
}

}  // namespace vondle
