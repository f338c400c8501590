#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "base/error.h"
#include "platform/progress.h"
#include "upload/upload_services.h"

namespace vondle {

// A file that goes up in one request, and its preview beside it.
struct SingleUpload {
  std::string file;  // its name must end in the real extension, which decides the preview
  std::string name;  // for log lines
  std::string url;
  std::string contentType;
  std::optional<std::string> thumb;  // where the preview may go
};

// Sends both side by side and waits for both. Completes, on a thread of the scheduler, with whether the preview was
// stored, or with the engine's error when the contents were not; a preview that fails fails nothing. Any thread.
void sendInOneRequest(const UploadServices& services, SingleUpload upload, std::shared_ptr<Progress> progress,
                      Completion<Result<bool>> completion);

}  // namespace vondle
