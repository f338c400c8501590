#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

namespace vondle {

// One connection to a server on 127.0.0.1, byte for byte as the test says. Reads give up after 20 seconds.
class RawHttpClient {
 public:
  struct Response {
    int status = 0;                                   // 0: the connection ended before a whole response
    std::map<std::string, std::string> headers = {};  // names in lower case
    std::string body = {};
    [[nodiscard]] std::string header(const std::string& name) const {
      const auto found = headers.find(name);
      return found == headers.end() ? "(none)" : found->second;
    }
  };

  explicit RawHttpClient(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval limit{.tv_sec = 20, .tv_usec = 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawHttpClient() { ::close(socket_); }
  RawHttpClient(const RawHttpClient&) = delete;
  RawHttpClient& operator=(const RawHttpClient&) = delete;

  [[nodiscard]] bool isConnected() const { return connected_; }

  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }
  void finishSending() { ::shutdown(socket_, SHUT_WR); }

  // `withoutBody`: the answer to a HEAD.
  Response receive(bool withoutBody = false) {
    Response response;
    std::size_t end = 0;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
      if (!fill()) return {};
    std::string head = buffer_.substr(0, end + 2);
    buffer_.erase(0, end + 4);
    const int status = head.size() > 12 ? std::atoi(head.c_str() + 9) : 0;
    head.erase(0, head.find("\r\n") + 2);
    while (!head.empty()) {
      const auto line = head.substr(0, head.find("\r\n"));
      head.erase(0, line.size() + 2);
      auto name = line.substr(0, line.find(':'));
      std::ranges::transform(name, name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      const auto value = line.find_first_not_of(' ', name.size() + 1);
      response.headers[name] = value == std::string::npos ? "" : line.substr(value);
    }
    if (status == 100) return receive(withoutBody);
    const auto length = withoutBody ? 0 : std::strtoull(response.header("content-length").c_str(), nullptr, 10);
    while (buffer_.size() < length)
      if (!fill()) return {};
    response.body = buffer_.substr(0, length);
    buffer_.erase(0, length);
    response.status = status;
    return response;
  }

  // True when the server sends nothing more and has ended the connection.
  bool isEnded() { return buffer_.empty() && !fill() && errno != EAGAIN; }

  // One request with a length for its body; `headers` are whole lines.
  Response request(std::string_view method, std::string_view target, std::string_view headers = "",
                   std::string_view body = "") {
    std::string text = std::string(method) + " " + std::string(target) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    text += headers;
    if (!body.empty() || method == "PUT" || method == "POST")
      text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += "\r\n";
    if (!send(text + std::string(body))) return {};
    return receive(method == "HEAD");
  }

 private:
  bool fill() {
    char bytes[65536];
    errno = 0;
    const ssize_t count = ::recv(socket_, bytes, sizeof bytes, 0);
    if (count <= 0) return false;
    buffer_.append(bytes, static_cast<std::size_t>(count));
    return true;
  }

  int socket_;
  bool connected_ = false;
  std::string buffer_;
};

}  // namespace vondle
