#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "base/error.h"
#include "base/json.h"
#include "base/mutex.h"

namespace vondle {

// The answer to one request of a control client. Any thread. What is said after the last line, or after the client has
// gone, is dropped.
class ControlReply {
 public:
  virtual ~ControlReply() = default;
  virtual void progress(const json::Object& progress) = 0;  // left out while the client does not read
  virtual void finish(const json::Object& result) = 0;
  virtual void fail(std::string_view code, std::string_view message) = 0;
  // Called once, on the server's thread, when the client goes away before the last line; at once if it has gone.
  virtual void whenAbandoned(std::function<void()> handler) = 0;
};

// Serves the control socket on one thread of its own; see control_protocol.h. A client that stalls, floods or sends
// rubbish costs its own connection at most.
class ControlServer {
 public:
  // Runs on the server's thread and must return quickly.
  using Handler = std::function<void(const json::Object& request, std::shared_ptr<ControlReply> reply)>;

  // Replaces a socket left at the path by an earlier process: hold the instance lock. The socket is 0600.
  static Result<std::unique_ptr<ControlServer>> listen(const std::string& path, Handler handler);

  // Ends the thread, then the connections; open requests are abandoned.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  class Connections;
  class Reply;

  ControlServer(std::string path, int listener, int wake, Handler handler);
  void run();
  void acceptClient();
  void serve(std::uint64_t client);
  void handleLine(std::uint64_t client, std::string line);

  const std::string path_;
  const int listener_;
  const Handler handler_;
  const std::shared_ptr<Connections> connections_;
  std::thread thread_;  // last: runs from the end of construction
};

}  // namespace vondle
