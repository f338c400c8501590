#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/completion.h"
#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/random_source.h"
#include "platform/repeating_timer.h"
#include "platform/scheduler.h"
#include "platform/url_session.h"
#include "transfer/large_upload.h"
#include "transfer/limits.h"
#include "transfer/stats.h"
#include "transfer/transfer_job.h"

namespace vondle {

// What the engine works with; all of it outlives the engine.
struct TransferServices {
  const Clock& clock;
  Scheduler& scheduler;
  URLLoading& urlLoading;
  Files& files;
  RandomSource& random;
  Limits& limits;
  LargeUpload& largeUpload;
  Stats& stats;
};

// The machinery of ThrottledTransfer: the table of jobs, which of them may run, what holds each back, and what becomes
// of its bytes. A started job's task is suspended exactly while a token bucket, the user or a waiting viewer holds the
// job back. One lock guards the table and those decisions; it is not held while a bucket is charged, a file written or
// a completion called.
class TransferEngine final : public URLSessionDelegate, public std::enable_shared_from_this<TransferEngine> {
 public:
  explicit TransferEngine(const TransferServices& services);

  // Made on first use.
  URLSession& session();
  // Takes a job whose task is still suspended.
  void start(const std::shared_ptr<TransferJob>& job) EXCLUDES(lock_);
  // Waits for what the scheduler runs of it, cancels what is under way and answers all that is unanswered, on this
  // thread. Not from within a completion.
  void shutDown() EXCLUDES(lock_);

  ResponseDisposition didReceiveResponse(URLSessionTask& task, const URLResponse& response) override EXCLUDES(lock_);
  void didReceiveData(URLSessionTask& task, std::span<const std::byte> data) override EXCLUDES(lock_);
  void didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override EXCLUDES(lock_);
  void didComplete(URLSessionTask& task, const std::optional<Error>& error) override EXCLUDES(lock_);

 private:
  using JobPtr = std::shared_ptr<TransferJob>;
  // A change of how background transfers yield, to be logged without the lock.
  struct YieldChange {
    bool yield = false;
    int count = 0;
  };

  // A task for the scheduler that does this unless the end has come.
  std::function<void()> whileAlive(std::function<void(TransferEngine&)> work);
  void run(const std::function<void(TransferEngine&)>& work) EXCLUDES(lock_);

  JobPtr find(URLTaskID task) EXCLUDES(lock_);
  void attachProgress(const JobPtr& job) EXCLUDES(lock_);
  void setPaused(const JobPtr& job, bool TransferJob::* reason, bool paused) EXCLUDES(lock_);
  void startPolling() REQUIRES(lock_);
  void poll() EXCLUDES(lock_);
  [[nodiscard]] YieldChange pump() REQUIRES(lock_);
  [[nodiscard]] YieldChange reconcileYielding() REQUIRES(lock_);
  void begin(TransferJob& job) REQUIRES(lock_);
  void sync(TransferJob& job) REQUIRES(lock_);
  static void log(const YieldChange& change);
  void pace(const JobPtr& job, TokenBucket& bucket, std::int64_t bytes) EXCLUDES(lock_);

  void openDestination(TransferJob& job);
  void writeToDestination(TransferJob& job, std::span<const std::byte> data);
  void appendToBody(TransferJob& job, std::span<const std::byte> data);
  void removeDestination(TransferJob& job);
  Result<TransferOutcome> outcomeOf(TransferJob& job, const std::optional<Error>& error);
  void finish(TransferJob& job, Result<TransferOutcome> result) EXCLUDES(lock_);
  bool deliverNext() EXCLUDES(lock_);

  const TransferServices services_;
  const std::shared_ptr<Queue> completionQueue_;
  const std::shared_ptr<Queue> pollQueue_;
  std::once_flag sessionMade_;
  std::unique_ptr<URLSession> session_;
  Mutex lock_;
  std::map<URLTaskID, JobPtr> jobs_ GUARDED_BY(lock_);
  // The same jobs, each in one of the two, so that many that wait cost nothing when one begins or ends.
  std::map<std::pair<int, std::int64_t>, TransferJob*> waiting_ GUARDED_BY(lock_);  // by turn
  std::map<URLTaskID, TransferJob*> started_ GUARDED_BY(lock_);
  std::unique_ptr<RepeatingTimer> poller_ GUARDED_BY(lock_);  // while there are jobs
  bool lastLoggedPause_ GUARDED_BY(lock_) = false;
  std::int64_t nextSeq_ GUARDED_BY(lock_) = 0;
  bool ending_ GUARDED_BY(lock_) = false;
  int runningTasks_ GUARDED_BY(lock_) = 0;  // of the scheduler's
  ConditionVariable noTaskRuns_;
  std::deque<std::pair<Completion<Result<TransferOutcome>>, Result<TransferOutcome>>> finished_ GUARDED_BY(lock_);
};

}  // namespace vondle
