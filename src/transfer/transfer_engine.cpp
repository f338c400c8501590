#include "transfer/transfer_engine.h"

#include <algorithm>
#include <iterator>

#include "base/utf8.h"
#include "config/plog.h"
#include "platform/url.h"
#include "transfer/checked_add.h"
#include "transfer/throttled_transfer.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

constexpr URLSessionConfiguration SESSION_CONFIGURATION{.timeoutForRequest = seconds(60),
                                                        .timeoutForResource = seconds(86'400)};
constexpr Duration POLL_INTERVAL = seconds(1.0);
constexpr double SHORTEST_WAIT = 0.05;  // seconds; less is not worth a suspension
constexpr std::size_t MAX_BODY_BYTES = 67'108'864;
constexpr std::size_t LOGGED_BODY_BYTES = 400;

// Higher priorities first, then in order of submission.
std::pair<int, std::int64_t> turnOf(const TransferJob& job) {
  return {-job.priority, job.seq};
}

bool mayPassTheLimit(const TransferJob& job) {
  return job.priority >= ThrottledTransfer::viewerPriority;
}

}  // namespace

TransferEngine::TransferEngine(const TransferServices& services)
    : services_(services),
      completionQueue_(services.scheduler.makeSerialQueue("com.ferrow.vondle.completion")),
      pollQueue_(services.scheduler.makeSerialQueue("com.ferrow.vondle.pause")) {}

URLSession& TransferEngine::session() {
  std::call_once(sessionMade_, [this] { session_ = services_.urlLoading.makeSession(SESSION_CONFIGURATION, *this); });
  return *session_;
}

// In the table before anything can happen to the task: the end of a task that is not there would go unnoticed.
void TransferEngine::start(const JobPtr& job) {
  {
    MutexLock hold(lock_);
    job->seq = nextSeq_ = checkedAdd(nextSeq_, 1);
    job->userPaused = services_.limits.paused();
    jobs_.emplace(job->taskID(), job);
    waiting_.emplace(turnOf(*job), job.get());
  }
  attachProgress(job);
  YieldChange change;
  {
    MutexLock hold(lock_);
    startPolling();
    change = pump();
  }
  log(change);
}

void TransferEngine::shutDown() {
  {
    MutexLock hold(lock_);
    ending_ = true;
    poller_.reset();
    while (runningTasks_ > 0) noTaskRuns_.wait(lock_);
  }
  session_.reset();
  while (deliverNext()) {
  }
}

std::function<void()> TransferEngine::whileAlive(std::function<void(TransferEngine&)> work) {
  return [weak = weak_from_this(), work = std::move(work)] {
    if (const auto self = weak.lock()) self->run(work);
  };
}

void TransferEngine::run(const std::function<void(TransferEngine&)>& work) {
  {
    MutexLock hold(lock_);
    if (ending_) return;
    ++runningTasks_;
  }
  work(*this);
  MutexLock hold(lock_);
  if (--runningTasks_ == 0) noTaskRuns_.notify_all();
}

TransferEngine::JobPtr TransferEngine::find(URLTaskID task) {
  MutexLock hold(lock_);
  const auto found = jobs_.find(task);
  return found == jobs_.end() ? nullptr : found->second;
}

void TransferEngine::attachProgress(const JobPtr& job) {
  if (!job->progress) return;
  Progress& progress = *job->progress;
  progress.setCancellationHandler([task = job->task] { task->cancel(); });
  const auto pauseHandler = [engine = weak_from_this(), weak = std::weak_ptr(job)](bool paused) {
    const auto alive = engine.lock();
    const auto held = weak.lock();
    if (alive && held) alive->setPaused(held, &TransferJob::userPaused, paused);
  };
  progress.setPausingHandler([pauseHandler] { pauseHandler(true); });
  progress.setResumingHandler([pauseHandler] { pauseHandler(false); });
  if (progress.isCancelled()) job->task->cancel();
  if (progress.isPaused()) pauseHandler(true);
}

// For a job that is gone this does nothing.
void TransferEngine::setPaused(const JobPtr& job, bool TransferJob::* reason, bool paused) {
  MutexLock hold(lock_);
  if (!jobs_.contains(job->taskID())) return;
  (*job).*reason = paused;
  sync(*job);
}

void TransferEngine::startPolling() {
  if (poller_ || ending_) return;
  poller_ = std::make_unique<RepeatingTimer>(services_.clock, pollQueue_, POLL_INTERVAL,
                                             whileAlive([](TransferEngine& engine) { engine.poll(); }));
}

void TransferEngine::poll() {
  services_.limits.refresh();
  services_.largeUpload.endIfQuiet();
  const bool paused = services_.limits.paused();
  YieldChange change;
  bool changed = false;
  int inFlight = 0;
  {
    MutexLock hold(lock_);
    if (jobs_.empty()) {
      poller_.reset();
      return;
    }
    for (const auto& [identifier, job] : jobs_) {
      job->userPaused = paused;  // over what the progress object says: the user's setting is the authority
      if (!job->started) continue;
      sync(*job);
      ++inFlight;
    }
    if (!paused) change = pump();
    changed = std::exchange(lastLoggedPause_, paused) != paused;
  }
  log(change);
  if (changed) plog.log("transfers %{public}@ (%d in flight)", paused ? "paused" : "resumed", inFlight);
}

TransferEngine::YieldChange TransferEngine::pump() {
  if (ending_) return {};
  const std::int64_t limit = services_.limits.maxConcurrent();
  // Those that may pass the limit stand before all others.
  while (!waiting_.empty()) {
    TransferJob& job = *waiting_.begin()->second;
    if (std::ssize(started_) >= limit && !mayPassTheLimit(job)) break;
    waiting_.erase(waiting_.begin());
    started_.emplace(job.taskID(), &job);
    begin(job);
  }
  return reconcileYielding();
}

void TransferEngine::begin(TransferJob& job) {
  job.started = true;
  if (job.userPaused)
    job.suspended = true;
  else
    job.task->resume();
}

TransferEngine::YieldChange TransferEngine::reconcileYielding() {
  YieldChange change;
  for (const auto& [identifier, job] : started_) change.yield = change.yield || mayPassTheLimit(*job);
  for (const auto& [identifier, job] : started_) {
    if (mayPassTheLimit(*job) || job->yieldPaused == change.yield) continue;
    job->yieldPaused = change.yield;
    sync(*job);
    ++change.count;
  }
  return change;
}

// A job that has not started stays as it was made, suspended: only begin may resume it first.
void TransferEngine::sync(TransferJob& job) {
  if (!job.started || job.suspended == job.isHeld()) return;
  job.suspended = job.isHeld();
  if (job.suspended)
    job.task->suspend();
  else
    job.task->resume();
}

void TransferEngine::log(const YieldChange& change) {
  if (change.count == 0) return;
  plog.info("yield: %{public}@ %d background transfer(s) %{public}@", change.yield ? "suspended" : "resumed",
            change.count, change.yield ? "for a waiting user" : "");
}

void TransferEngine::pace(const JobPtr& job, TokenBucket& bucket, std::int64_t bytes) {
  services_.limits.refresh();
  if (bucket.isUnlimited()) return;
  const double wait = bucket.take(bytes);
  if (wait < SHORTEST_WAIT) return;
  setPaused(job, &TransferJob::pacePaused, true);
  services_.scheduler.global().after(seconds(wait), whileAlive([weak = std::weak_ptr(job)](TransferEngine& engine) {
                                       if (const auto held = weak.lock())
                                         engine.setPaused(held, &TransferJob::pacePaused, false);
                                     }));
}

ResponseDisposition TransferEngine::didReceiveResponse(URLSessionTask& task, const URLResponse& response) {
  const JobPtr job = find(task.identifier());
  if (!job) return ResponseDisposition::cancel;
  job->status = response.status;
  if (const auto etag = response.header("ETag")) job->etag = *etag;
  if (job->kind != TransferJob::Kind::download) return ResponseDisposition::allow;
  job->expected = std::max<std::int64_t>(response.expectedContentLength, 0);
  if (job->progress && job->expected >= 1) job->progress->setTotalUnitCount(job->expected);
  openDestination(*job);
  return ResponseDisposition::allow;
}

void TransferEngine::openDestination(TransferJob& job) {
  job.destination = services_.files.temporaryFolder() + "/" + services_.random.uuid();
  auto opened = services_.files.create(*job.destination);
  if (opened)
    job.handle = std::move(*opened);
  else
    job.openError = std::move(opened.error());
}

void TransferEngine::didReceiveData(URLSessionTask& task, std::span<const std::byte> data) {
  const JobPtr job = find(task.identifier());
  if (!job) return;
  if (job->kind == TransferJob::Kind::download)
    writeToDestination(*job, data);
  else
    appendToBody(*job, data);
  if (job->kind == TransferJob::Kind::upload) return;
  if (job->kind == TransferJob::Kind::download && job->progress) job->progress->setCompletedUnitCount(job->received);
  const auto bytes = static_cast<std::int64_t>(data.size());
  services_.stats.record(bytes, 0);
  pace(job, services_.limits.download, bytes);
}

// After a write that failed there is no use in the rest.
void TransferEngine::writeToDestination(TransferJob& job, std::span<const std::byte> data) {
  if (!job.handle || job.writeError) return;
  auto written = job.handle->write(data);
  if (written) {
    job.received = checkedAdd(job.received, static_cast<std::int64_t>(data.size()));
    return;
  }
  job.writeError = std::move(written.error());
  job.task->cancel();
}

void TransferEngine::appendToBody(TransferJob& job, std::span<const std::byte> data) {
  if (job.bodyError) return;
  if (job.body.size() + data.size() <= MAX_BODY_BYTES) {
    job.body.append(reinterpret_cast<const char*>(data.data()), data.size());
    return;
  }
  job.bodyError = Error(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM, "The server's answer is too long.");
  job.task->cancel();
}

void TransferEngine::didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                                     std::int64_t totalBytesExpectedToSend) {
  const JobPtr job = find(task.identifier());
  if (!job) return;
  if (job->progress && totalBytesExpectedToSend >= 1) {
    job->progress->setTotalUnitCount(totalBytesExpectedToSend);
    job->progress->setCompletedUnitCount(totalBytesSent);
  }
  services_.stats.record(0, bytesSent);
  services_.largeUpload.touch();
  pace(job, services_.limits.upload, bytesSent);
}

void TransferEngine::didComplete(URLSessionTask& task, const std::optional<Error>& error) {
  JobPtr job;
  YieldChange change;
  {
    MutexLock hold(lock_);
    auto node = jobs_.extract(task.identifier());
    if (!node.empty()) {
      job = std::move(node.mapped());
      waiting_.erase(turnOf(*job));
      started_.erase(job->taskID());
    }
    change = pump();
  }
  log(change);
  if (job) finish(*job, outcomeOf(*job, error));
}

Result<TransferOutcome> TransferEngine::outcomeOf(TransferJob& job, const std::optional<Error>& error) {
  if (job.handle) {
    const auto closed = job.handle->close();
    static_cast<void>(closed);
    job.handle.reset();
  }
  const auto fail = [&](Error reason) {
    removeDestination(job);
    return failure(std::move(reason));
  };
  if (job.writeError) return fail(*job.writeError);
  if (job.bodyError) return fail(*job.bodyError);
  if (error) return fail(*error);
  if (job.status < 200 || job.status > 299) {
    if (job.kind == TransferJob::Kind::upload) {
      const std::string start = job.body.substr(0, LOGGED_BODY_BYTES);
      plog.error("upload rejected with HTTP %d by %{public}@: %{public}@", job.status,
                 hostOf(job.task->originalRequest().url), isUTF8(start) ? start : std::string());
    }
    return fail(TransferError::http(job.status));
  }
  if (job.kind == TransferJob::Kind::download && job.expected >= 1 && job.received != job.expected) {
    plog.log("incomplete download: %lld of %lld bytes", job.received, job.expected);
    Error reason = TransferError::noResponse();
    return fail(job.openError ? reason.withUnderlying(*job.openError) : reason);
  }
  if (job.openError) return fail(*job.openError);
  return TransferOutcome{.destination = job.destination, .body = std::move(job.body), .etag = job.etag};
}

void TransferEngine::removeDestination(TransferJob& job) {
  if (job.destination) static_cast<void>(services_.files.remove(*std::exchange(job.destination, std::nullopt)));
}

void TransferEngine::finish(TransferJob& job, Result<TransferOutcome> result) {
  MutexLock hold(lock_);
  finished_.emplace_back(std::move(*job.completion), std::move(result));
  job.completion.reset();
  hold.unlock();
  completionQueue_->post(whileAlive([](TransferEngine& engine) { engine.deliverNext(); }));
}

bool TransferEngine::deliverNext() {
  MutexLock hold(lock_);
  if (finished_.empty()) return false;
  auto [completion, result] = std::move(finished_.front());
  finished_.pop_front();
  hold.unlock();
  std::move(completion)(std::move(result));
  return true;
}

}  // namespace vondle
