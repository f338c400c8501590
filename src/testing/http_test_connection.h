#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

namespace vondle {

// What passed through a test server's sockets, heads included, TLS not.
struct HttpTestTraffic {
  std::atomic<std::int64_t> received = 0;
  std::atomic<std::int64_t> sent = 0;
};

// One accepted connection, plain or TLS, with blocking reads and writes on the one thread that serves it. Any thread
// may shut it down.
class HttpTestConnection {
 public:
  HttpTestConnection(int socket, SSL_CTX* tls, HttpTestTraffic& traffic);
  ~HttpTestConnection();
  HttpTestConnection(const HttpTestConnection&) = delete;
  HttpTestConnection& operator=(const HttpTestConnection&) = delete;

  bool accept();  // the TLS handshake, where there is one
  // Up to and with the empty line; empty when the peer is gone.
  std::string readHead();
  // 1 to limit bytes; none when the peer is gone.
  std::string read(std::size_t limit);
  bool write(std::string_view bytes);  // all of them; false when the peer is gone
  void reset();                        // an abrupt end: the peer sees a reset
  void shutdown();

 private:
  bool fill();

  const int socket_;
  SSL* const tls_;
  HttpTestTraffic& traffic_;
  std::string buffer_;  // read ahead
};

}  // namespace vondle
