#include "testing/http_test_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace vondle {

HttpTestConnection::HttpTestConnection(int socket, SSL_CTX* tls, HttpTestTraffic& traffic)
    : socket_(socket), tls_(tls ? SSL_new(tls) : nullptr), traffic_(traffic) {
  if (tls_) SSL_set_fd(tls_, socket_);
}

HttpTestConnection::~HttpTestConnection() {
  SSL_free(tls_);
  ::close(socket_);
}

bool HttpTestConnection::accept() {
  return !tls_ || SSL_accept(tls_) == 1;
}

bool HttpTestConnection::fill() {
  char bytes[65'536];
  const auto n = tls_ ? SSL_read(tls_, bytes, sizeof bytes) : ::recv(socket_, bytes, sizeof bytes, 0);
  if (n <= 0) return false;
  traffic_.received += n;
  buffer_.append(bytes, static_cast<std::size_t>(n));
  return true;
}

std::string HttpTestConnection::readHead() {
  std::size_t end = 0;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
    if (!fill()) return {};
  std::string head = buffer_.substr(0, end + 4);
  buffer_.erase(0, end + 4);
  return head;
}

std::string HttpTestConnection::read(std::size_t limit) {
  if (buffer_.empty() && !fill()) return {};
  std::string bytes = buffer_.substr(0, limit);
  buffer_.erase(0, bytes.size());
  return bytes;
}

bool HttpTestConnection::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto piece = std::min<std::size_t>(bytes.size(), 65'536);
    const auto n = tls_ ? SSL_write(tls_, bytes.data(), static_cast<int>(piece))
                        : ::send(socket_, bytes.data(), piece, MSG_NOSIGNAL);
    if (n <= 0) return false;
    traffic_.sent += n;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

void HttpTestConnection::reset() {
  const linger abrupt{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
}

void HttpTestConnection::shutdown() {
  ::shutdown(socket_, SHUT_RDWR);
}

}  // namespace vondle
