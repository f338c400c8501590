#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "base/error.h"
#include "base/json.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "upload/upload_services.h"

namespace vondle {

// Sends one large file as numbered parts, three at a time, each to an address of its own, tries failed parts again for
// as long as that makes sense, and has the server join them. With a resume id, every part that was taken is saved, and
// an upload of the same id that is saved already is taken over. Kept alive by what it waits for.
//
// Created and started on any thread (creating reads and writes the saved uploads); everything else happens on its
// queue. Takes the progress's cancellation handler. Completes once, with the storage key; errors as those of upload().
class MultipartUpload final : public std::enable_shared_from_this<MultipartUpload> {
 public:
  struct Job {
    std::string file;  // must stay unchanged; its name must end in the real extension when there is a `thumb`
    std::string key;
    std::string uploadID;
    std::int64_t size = 0;      // of the file, bytes
    std::int64_t partSize = 1;  // bytes, at least 1
    bool notify = true;         // tell the server that the contents are there, and send a preview before that
    std::optional<std::string> resumeID{};
    std::optional<std::string> thumb{};  // where the preview may go
  };

  MultipartUpload(const UploadServices& services, Job job, std::shared_ptr<Progress> progress,
                  Completion<Result<std::string>> completion);

  void start();

 private:
  // One part on its way, whatever number of tries it takes.
  struct Part {
    std::int64_t number;
    std::int64_t length;
    std::shared_ptr<Progress> child;
    int attempt = 0;
  };

  void adoptSavedParts(const std::string& resumeID);
  void pumpSoon();
  void pump();
  void issue(std::int64_t number);
  void request(Part part);
  void send(Part part, const Result<json::Object>& answer);
  void put(Part part, std::string url, std::string file);
  void answered(Part part, Result<std::string> etag);
  void retry(Part part, Error error);
  void retryWhenNotPaused(Part part, Error error);
  void join();
  void complete(const Result<json::Object>& answer);
  void done();
  void unreadable(const Error& error);
  void fail(const Error& error);
  void abandon();
  void forget();
  void finish(Result<std::string> key);

  [[nodiscard]] std::int64_t offsetOf(std::int64_t number) const;
  [[nodiscard]] std::int64_t lengthOf(std::int64_t number) const;
  [[nodiscard]] json::Object aboutThisUpload() const;
  // A temporary file of exactly the part's bytes.
  Result<std::string> slice(const Part& part);

  const UploadServices services_;
  const Job job_;
  const std::shared_ptr<Progress> progress_;
  Completion<Result<std::string>> completion_;
  const std::shared_ptr<Queue> queue_;
  const std::int64_t count_;  // of parts
  std::int64_t next_ = 1;
  int running_ = 0;
  bool finished_ = false;
  std::map<std::int64_t, std::string> etags_;  // of the parts that the server has, by number
};

}  // namespace vondle
