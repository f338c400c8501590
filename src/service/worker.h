#pragma once

#include "service/service.h"

namespace vondle {

// The worker process: serves the folder until it is told to stop, and tells the supervisor through the status
// descriptor how it went. Call it with SIGTERM, SIGINT and SIGHUP blocked, before any thread is started. Does not
// return.
[[noreturn]] void runWorker(const ServiceOptions& options, int statusDescriptor);

}  // namespace vondle
