#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "base/mutex.h"
#include "platform/url_session.h"

namespace vondle {

struct URLReply {
  URLResponse response;
  std::string body;
};

// A session for small exchanges: sends a request and completes with the whole reply, held in memory. Any thread may
// send; completions run on the session's thread. A body of more than maxBodyBytes ends the exchange with
// URL_DATA_LENGTH_EXCEEDS_MAXIMUM (see statusOfTooLongReply). Transport errors arrive unchanged; any HTTP status is a
// reply.
class URLDataClient : private URLSessionDelegate {
 public:
  URLDataClient(URLLoading& loading, URLSessionConfiguration configuration, std::int64_t maxBodyBytes);
  ~URLDataClient() override;

  void send(URLRequest request, Completion<Result<URLReply>> completion) EXCLUDES(lock_);

 private:
  struct Exchange;

  ResponseDisposition didReceiveResponse(URLSessionTask& task, const URLResponse& response) override;
  void didReceiveData(URLSessionTask& task, std::span<const std::byte> data) override;
  void didSendBodyData(URLSessionTask&, std::int64_t, std::int64_t, std::int64_t) override {}
  void didComplete(URLSessionTask& task, const std::optional<Error>& error) override;
  Exchange* find(URLTaskID id) EXCLUDES(lock_);

  const std::int64_t maxBodyBytes_;
  Mutex lock_;
  std::map<URLTaskID, std::unique_ptr<Exchange>> exchanges_ GUARDED_BY(lock_);
  std::unique_ptr<URLSession> session_;  // last: its end completes what is left in exchanges_
};

// The HTTP status of a reply that was given up for its length; none for any other error.
std::optional<std::int64_t> statusOfTooLongReply(const Error& error);

}  // namespace vondle
