#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/url_session.h"

namespace vondle {

// Notes what a session tells about its tasks, and whether it keeps the order it promises. Any thread may look; hooks
// run on the session's thread, after the call has been noted.
class RecordingDelegate final : public URLSessionDelegate {
 public:
  struct Record {
    std::optional<URLResponse> response;
    std::string body;
    int dataCalls = 0;
    std::int64_t sent = 0;  // the sum of the steps
    std::int64_t totalSent = 0;
    std::int64_t totalToSend = 0;
    bool completed = false;
    std::optional<Error> error;
    std::vector<std::string> mistakes;  // of the session's
  };

  // Set before the first task starts.
  std::function<ResponseDisposition(URLSessionTask&, const URLResponse&)> onResponse;
  std::function<void(URLSessionTask&, std::int64_t bytesSoFar)> onData;
  std::function<void(URLSessionTask&, std::int64_t totalSent)> onSent;
  std::function<void(URLSessionTask&)> onComplete;

  [[nodiscard]] Record of(const URLSessionTask& task) const EXCLUDES(lock_) { return of(task.identifier()); }
  [[nodiscard]] Record of(URLTaskID task) const EXCLUDES(lock_);
  // Blocks until the condition holds, looked at after each call of the session and its hook; false when that takes too
  // long.
  bool waitUntil(const std::function<bool()>& condition) EXCLUDES(lock_);
  bool waitForCompletion(const URLSessionTask& task) EXCLUDES(lock_);

  ResponseDisposition didReceiveResponse(URLSessionTask& task, const URLResponse& response) override EXCLUDES(lock_);
  void didReceiveData(URLSessionTask& task, std::span<const std::byte> data) override EXCLUDES(lock_);
  void didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override EXCLUDES(lock_);
  void didComplete(URLSessionTask& task, const std::optional<Error>& error) override EXCLUDES(lock_);

 private:
  void tellWaiters() EXCLUDES(lock_);
  Record& noted(const URLSessionTask& task, const char* call) REQUIRES(lock_);

  mutable Mutex lock_;
  ConditionVariable changed_;
  std::map<URLTaskID, Record> records_ GUARDED_BY(lock_);
  std::uint64_t calls_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
