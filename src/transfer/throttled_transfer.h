#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/completion.h"
#include "platform/progress.h"
#include "platform/url_session.h"
#include "transfer/transfer_engine.h"

namespace vondle {

// The one way in which contents travel: every download, upload, part and small fetch is submitted here, waits for its
// turn (Limits::maxConcurrent at once, in order of submission), is paced against the user's limits, obeys his pause and
// its progress object, and yields to a transfer that somebody waits for, which starts at once.
//
// Any thread may submit; submitting never blocks. Each completion is called exactly once, on one serial queue, in the
// order in which the transfers end. Errors: TransferError; those of the session, unchanged; that of a file which can't
// be written. Ending the object cancels what runs and answers it before it returns; by then nothing may be submitted,
// and it must not come from a completion.
class ThrottledTransfer {
 public:
  // The priority of a transfer that a user is waiting for. Background work is 0, or 1 to go before other background
  // work.
  static constexpr int viewerPriority = 2;

  static ThrottledTransfer& shared();

  explicit ThrottledTransfer(const TransferServices& services);
  ~ThrottledTransfer();
  ThrottledTransfer(const ThrottledTransfer&) = delete;
  ThrottledTransfer& operator=(const ThrottledTransfer&) = delete;

  // Into a temporary file that belongs to the caller from then on. The size counts for the progress until the server
  // says better. A body of another length than announced fails with noResponse, a file that can't be written with its
  // error; then no file remains.
  void download(std::string url, std::shared_ptr<Progress> progress, std::int64_t size, int priority,
                Completion<Result<std::string>> completion);
  // A small answer, in memory; paced as a download. More than 64 MiB fail with URL_DATA_LENGTH_EXCEEDS_MAXIMUM.
  void fetchData(std::string url, Completion<Result<std::string>> completion);
  // Sends the file as the request's body; completes with the body of the server's answer.
  void upload(URLRequest request, std::string file, std::shared_ptr<Progress> progress,
              Completion<Result<std::string>> completion);
  // The same for one part of a larger upload; completes with the answer's "ETag", without one fails with noResponse.
  void uploadPart(URLRequest request, std::string file, std::shared_ptr<Progress> progress,
                  Completion<Result<std::string>> completion);

  // Marks a progress object as that of a file being downloaded or uploaded, which can be cancelled and paused.
  static void describe(Progress& progress, FileOperationKind kind);

 private:
  void submitUpload(URLRequest request, std::string file, std::int64_t size, std::shared_ptr<Progress> progress,
                    Completion<Result<TransferOutcome>> completion);
  [[nodiscard]] std::int64_t sizeOf(const std::string& file) const;

  const TransferServices services_;
  const std::shared_ptr<TransferEngine> engine_;
};

}  // namespace vondle
