#pragma once

#include <memory>
#include <string>

#include "base/error.h"
#include "storage/api_handlers.h"
#include "storage/content_handlers.h"

namespace vondle::storage {

struct HttpOptions {
  std::string host = "127.0.0.1";
  int port = 0;                // 0: any free one
  std::string publicUrl = {};  // where clients reach the service; empty: as they name it themselves
};

// The service's door: reads HTTP/1.1 requests, hands them to the handlers and streams contents in both directions. One
// thread per connection, up to MAX_CONNECTIONS; further ones wait.
class HttpServer {
 public:
  static constexpr int MAX_CONNECTIONS = 128;

  HttpServer(HttpOptions options, ApiHandlers& api, ContentHandlers& contents);
  ~HttpServer();

  // Takes the address; answers the port.
  Result<int> bind();
  // Serves until stop; false when it could not. Once.
  bool run();
  // Ends run, waiting for it to begin: takes no new connection and cuts those that are open. What was answered before
  // stays done. Any other thread.
  void stop();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace vondle::storage
