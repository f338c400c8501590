#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "platform/files.h"
#include "platform/progress.h"
#include "platform/url_session.h"

namespace vondle {

// What a transfer that went well has brought.
struct TransferOutcome {
  std::optional<std::string> destination;  // the temporary file of a download
  std::string body;
  std::optional<std::string> etag;
};

// One transfer of the engine's.
struct TransferJob {
  enum class Kind { download, fetch, upload };

  // Set before the job is known to anybody else.
  Kind kind = Kind::download;
  int priority = 0;
  std::shared_ptr<Progress> progress;
  std::shared_ptr<URLSessionTask> task;  // created suspended
  std::optional<Completion<Result<TransferOutcome>>> completion;

  // Under the engine's lock.
  std::int64_t seq = 0;      // order of submission
  bool started = false;      // counts against the limit from then on
  bool pacePaused = false;   // held back by the token bucket until a wake-up
  bool userPaused = false;   // held back by the user
  bool yieldPaused = false;  // held back for a transfer that a user is waiting for
  bool suspended = false;    // the engine has suspended the task

  // Of the session's thread alone.
  std::int64_t status = 0;  // 0: no HTTP response
  std::optional<std::string> etag;
  std::optional<std::string> destination;
  std::unique_ptr<WritableFile> handle;  // open for writing into the destination
  std::optional<Error> openError;
  std::optional<Error> writeError;
  std::optional<Error> bodyError;
  std::int64_t received = 0;  // bytes written to the handle
  std::int64_t expected = 0;  // as announced; 0: unknown
  std::string body;           // of fetches, and the answers to uploads

  [[nodiscard]] URLTaskID taskID() const { return task->identifier(); }
  [[nodiscard]] bool isHeld() const { return pacePaused || userPaused || yieldPaused; }
};

}  // namespace vondle
