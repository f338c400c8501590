#include "nginx.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

namespace vondle::bench {
namespace {

constexpr int ATTEMPTS = 500;
constexpr auto PAUSE = std::chrono::milliseconds(20);

sockaddr_in localAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

int freePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto address = localAddress(0);
  socklen_t length = sizeof address;
  const bool bound = ::bind(socket, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(socket);
  if (!bound) throw std::runtime_error("no port is free");
  return ntohs(address.sin_port);
}

bool answers(int port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto address = localAddress(port);
  const bool connected = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(socket);
  return connected;
}

}  // namespace

Nginx::Nginx(const std::string& workFolder, const std::string& servedFolder) : port_(freePort()) {
  std::filesystem::create_directories(workFolder);
  const std::string configuration = workFolder + "/nginx.conf";
  std::ofstream(configuration) << fmt::format(
      R"(daemon off;
master_process off;
pid {0}/nginx.pid;
error_log {0}/nginx.log;
events {{ worker_connections 256; }}
http {{
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  client_body_temp_path {0}/body;
  proxy_temp_path {0}/proxy;
  fastcgi_temp_path {0}/fastcgi;
  uwsgi_temp_path {0}/uwsgi;
  scgi_temp_path {0}/scgi;
  client_max_body_size 0;
  server {{
    listen 127.0.0.1:{1};
    root {2};
    location /put/ {{
      dav_methods PUT;
      add_header ETag tag;
    }}
    location /vondle/api/ {{
      return 200 '{{"parts":[{{"url":"http://127.0.0.1:{1}/put/$request_id"}}]}}';
    }}
  }}
}}
)",
      workFolder, port_, servedFolder);
  const std::string log = workFolder + "/nginx.log";
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);  // also when this process is killed
    ::execlp("nginx", "nginx", "-e", log.c_str(), "-p", workFolder.c_str(), "-c", configuration.c_str(), nullptr);
    ::_exit(127);
  }
  for (int attempt = 0; attempt < ATTEMPTS && !answers(port_); ++attempt) std::this_thread::sleep_for(PAUSE);
  if (!answers(port_)) throw std::runtime_error("nginx does not answer");
}

Nginx::~Nginx() {
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

std::string Nginx::origin() const {
  return fmt::format("http://127.0.0.1:{}", port_);
}

}  // namespace vondle::bench
