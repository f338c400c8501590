#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "base/error.h"
#include "platform/progress.h"
#include "upload/upload_services.h"

namespace vondle {

// A new file for the server.
struct UploadRequest {
  // Must stay unchanged until the completion. Its name must end in the real extension, which decides the preview.
  std::string file;
  std::string to;        // server path of the folder, without a final "/"; empty for the root
  std::string filename;  // in that folder
  std::int64_t size = 0;
  // Under which an upload in parts is saved and resumed, see MultipartResume::identity; none: never.
  std::optional<std::string> resumeID{};
};

// Stores the file's contents on the server, in one request or in parts as the server decides, with a preview where it
// wants one, and tells it that they are there. Completes with their storage key. Cancelling the progress ends it with
// URL_CANCELLED or USER_CANCELLED; other errors: APIError, TransferError, transport errors and those of the file, for
// providerError to put into words. Any thread; returns at once.
void upload(const UploadServices& services, UploadRequest request, std::shared_ptr<Progress> progress,
            Completion<Result<std::string>> completion);

}  // namespace vondle
