#include "platform/url_data_client.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace vondle {
namespace {

constexpr std::string_view HTTP_STATUS_DOMAIN = "VondleHTTPStatus";

}  // namespace

std::optional<std::int64_t> statusOfTooLongReply(const Error& error) {
  if (!error.is(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM) || !error.underlying ||
      !error.underlying->isIn(HTTP_STATUS_DOMAIN))
    return std::nullopt;
  return error.underlying->code;
}

struct URLDataClient::Exchange {
  explicit Exchange(Completion<Result<URLReply>> itsCompletion) : completion(std::move(itsCompletion)) {}

  Completion<Result<URLReply>> completion;
  URLReply reply;
  bool tooLarge = false;
};

URLDataClient::URLDataClient(URLLoading& loading, URLSessionConfiguration configuration, std::int64_t maxBodyBytes)
    : maxBodyBytes_(maxBodyBytes), session_(loading.makeSession(configuration, *this)) {}

URLDataClient::~URLDataClient() = default;

void URLDataClient::send(URLRequest request, Completion<Result<URLReply>> completion) {
  auto task = session_->dataTask(std::move(request));
  {
    MutexLock hold(lock_);
    exchanges_.emplace(task->identifier(), std::make_unique<Exchange>(std::move(completion)));
  }
  task->resume();
}

// The session's thread alone touches an exchange after send, so the pointer stays good without the lock.
URLDataClient::Exchange* URLDataClient::find(URLTaskID id) {
  MutexLock hold(lock_);
  const auto found = exchanges_.find(id);
  return found == exchanges_.end() ? nullptr : found->second.get();
}

ResponseDisposition URLDataClient::didReceiveResponse(URLSessionTask& task, const URLResponse& response) {
  Exchange* exchange = find(task.identifier());
  if (!exchange) return ResponseDisposition::cancel;
  exchange->reply.response = response;
  exchange->tooLarge = response.expectedContentLength > maxBodyBytes_;
  return exchange->tooLarge ? ResponseDisposition::cancel : ResponseDisposition::allow;
}

void URLDataClient::didReceiveData(URLSessionTask& task, std::span<const std::byte> data) {
  Exchange* exchange = find(task.identifier());
  if (!exchange || exchange->tooLarge) return;
  std::string& body = exchange->reply.body;
  if (static_cast<std::int64_t>(body.size() + data.size()) > maxBodyBytes_) {
    exchange->tooLarge = true;
    body = {};
    task.cancel();
    return;
  }
  body.append(reinterpret_cast<const char*>(data.data()), data.size());
}

void URLDataClient::didComplete(URLSessionTask& task, const std::optional<Error>& error) {
  std::unique_ptr<Exchange> exchange;
  {
    MutexLock hold(lock_);
    auto node = exchanges_.extract(task.identifier());
    if (node.empty()) return;
    exchange = std::move(node.mapped());
  }
  if (exchange->tooLarge) {
    const Error tooLong(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM,
                        fmt::format("the server's answer is longer than {} bytes", maxBodyBytes_));
    std::move(exchange->completion)(
        failure(tooLong.withUnderlying({HTTP_STATUS_DOMAIN, exchange->reply.response.status})));
  } else if (error) {
    std::move(exchange->completion)(failure(*error));
  } else {
    std::move(exchange->completion)(std::move(exchange->reply));
  }
}

}  // namespace vondle
