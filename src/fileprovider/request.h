#pragma once

namespace vondle {

// Who wants it: a program or person looking at the folder now, or the service on its own account.
struct Request {
  bool isFileViewerRequest = false;
  bool isSystemRequest = false;
};

}  // namespace vondle
