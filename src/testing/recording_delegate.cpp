#include "testing/recording_delegate.h"

namespace vondle {

RecordingDelegate::Record RecordingDelegate::of(URLTaskID task) const {
  MutexLock hold(lock_);
  const auto found = records_.find(task);
  return found == records_.end() ? Record() : found->second;
}

bool RecordingDelegate::waitUntil(const std::function<bool()>& condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::uint64_t seen = 0;
  while (true) {
    {
      MutexLock hold(lock_);
      seen = calls_;
    }
    if (condition()) return true;
    MutexLock hold(lock_);
    while (calls_ == seen)
      if (changed_.wait_until(lock_, limit) == std::cv_status::timeout) return false;
  }
}

bool RecordingDelegate::waitForCompletion(const URLSessionTask& task) {
  return waitUntil([&] {
    MutexLock hold(lock_);
    const auto found = records_.find(task.identifier());
    return found != records_.end() && found->second.completed;
  });
}

RecordingDelegate::Record& RecordingDelegate::noted(const URLSessionTask& task, const char* call) {
  Record& record = records_[task.identifier()];
  if (record.completed) record.mistakes.push_back(std::string(call) + " after the end");
  return record;
}

void RecordingDelegate::tellWaiters() {
  {
    MutexLock hold(lock_);
    ++calls_;
  }
  changed_.notify_all();
}

ResponseDisposition RecordingDelegate::didReceiveResponse(URLSessionTask& task, const URLResponse& response) {
  {
    MutexLock hold(lock_);
    Record& record = noted(task, "a response");
    if (record.response) record.mistakes.emplace_back("a second response");
    record.response = response;
  }
  const auto disposition = onResponse ? onResponse(task, response) : ResponseDisposition::allow;
  tellWaiters();
  return disposition;
}

void RecordingDelegate::didReceiveData(URLSessionTask& task, std::span<const std::byte> data) {
  std::int64_t soFar = 0;
  {
    MutexLock hold(lock_);
    Record& record = noted(task, "data");
    if (!record.response) record.mistakes.emplace_back("data before the response");
    if (data.empty()) record.mistakes.emplace_back("empty data");
    record.body.append(reinterpret_cast<const char*>(data.data()), data.size());
    ++record.dataCalls;
    soFar = static_cast<std::int64_t>(record.body.size());
  }
  if (onData) onData(task, soFar);
  tellWaiters();
}

void RecordingDelegate::didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                                        std::int64_t totalBytesExpectedToSend) {
  {
    MutexLock hold(lock_);
    Record& record = noted(task, "sent bytes");
    if (bytesSent <= 0 || totalBytesSent > totalBytesExpectedToSend) record.mistakes.emplace_back("odd sent counts");
    record.sent += bytesSent;
    record.totalSent = totalBytesSent;
    record.totalToSend = totalBytesExpectedToSend;
  }
  if (onSent) onSent(task, totalBytesSent);
  tellWaiters();
}

void RecordingDelegate::didComplete(URLSessionTask& task, const std::optional<Error>& error) {
  {
    MutexLock hold(lock_);
    Record& record = noted(task, "an end");
    record.completed = true;
    record.error = error;
  }
  if (onComplete) onComplete(task);
  tellWaiters();
}

}  // namespace vondle
