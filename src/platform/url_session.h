#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/time.h"

namespace vondle {

struct URLHeader {
  std::string name;
  std::string value;
  friend bool operator==(const URLHeader&, const URLHeader&) = default;
};

// Header names compare without regard to case.
std::optional<std::string_view> findHeader(const std::vector<URLHeader>& headers, std::string_view name);

struct URLRequest {
  std::string url{};  // absolute, without a user; only http and https are ever spoken
  std::string method = "GET";
  std::vector<URLHeader> headers{};
  std::optional<std::string> body{};  // in memory; empty is sent as an empty body. Not with an upload file.
  std::optional<Duration> timeout{};  // idle time; overrides the session's
};

struct URLResponse {
  int status = 0;     // 0: not an HTTP response
  std::string url{};  // where the answer came from, after redirects
  std::vector<URLHeader> headers{};
  std::int64_t expectedContentLength = -1;  // -1: not announced

  [[nodiscard]] std::optional<std::string_view> header(std::string_view name) const {
    return findHeader(headers, name);
  }
};

using URLTaskID = std::int64_t;

// One transfer. Created suspended; nothing goes out before the first resume. Any thread may call; no call blocks, calls
// the delegate back before returning, or is refused (a finished task ignores them).
class URLSessionTask {
 public:
  virtual ~URLSessionTask() = default;
  [[nodiscard]] virtual URLTaskID identifier() const = 0;  // unique within its session, from 1
  [[nodiscard]] virtual const URLRequest& originalRequest() const = 0;
  virtual void resume() = 0;
  // Both directions stand still. Called from a delegate method of this task it is exact: no further byte is delivered
  // or counted as sent before the next resume. Time spent suspended is never idle time.
  virtual void suspend() = 0;
  // Ends the task with URL_CANCELLED, unless it has ended; also before the first resume.
  virtual void cancel() = 0;
};

enum class ResponseDisposition { cancel, allow };

// Told about a session's tasks, on the session's one thread, one call at a time, for each task in this order:
// at most one didReceiveResponse, any number of didReceiveData and didSendBodyData, exactly one didComplete.
// Delegate methods must return quickly and may call any method of any task.
class URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;
  // The final response, after redirects. Whatever its status is, its body follows. `cancel` ends the task with
  // URL_CANCELLED.
  virtual ResponseDisposition didReceiveResponse(URLSessionTask& task, const URLResponse& response) = 0;
  virtual void didReceiveData(URLSessionTask& task, std::span<const std::byte> data) = 0;
  // bytesSent since the last call; totals may start again when the body had to be sent again.
  virtual void didSendBodyData(URLSessionTask& task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                               std::int64_t totalBytesExpectedToSend) = 0;
  // No error: the answer arrived whole, whatever its status is. Errors are of URL_ERROR_DOMAIN.
  virtual void didComplete(URLSessionTask& task, const std::optional<Error>& error) = 0;
};

struct URLSessionConfiguration {
  Duration timeoutForRequest = seconds(60);       // idle time without a byte in either direction
  Duration timeoutForResource = seconds(604800);  // the whole of a task, suspended time included
};

// Rules of every session: HTTP/1.1 over http and https only, also after a redirect. An address with a user's name or a
// password in it is refused with URL_BAD_URL before anything is sent, also after a redirect: it would be sent as a
// header that nobody here has asked for. Redirects (at most five, never
// from https to http) are followed by hand: GET anywhere, but headers of ours go only to the same scheme, host and
// port; other methods only within it. A download whose body ends before its announced length fails with
// URL_NETWORK_CONNECTION_LOST. Transfer encodings are undone; content encodings are neither asked for nor undone.
class URLSession {
 public:
  virtual ~URLSession() = default;  // cancels and completes what runs; not from a delegate method
  virtual std::shared_ptr<URLSessionTask> dataTask(URLRequest request) = 0;
  // Sends the file's bytes as the body, its length as Content-Length. A file that cannot be opened or read, or that
  // shrinks, fails the task with URL_ERROR_DOMAIN and what lies behind it underneath.
  virtual std::shared_ptr<URLSessionTask> uploadTask(URLRequest request, std::string path) = 0;
};

// Makes sessions. The delegate must outlive its session.
class URLLoading {
 public:
  virtual ~URLLoading() = default;
  virtual std::unique_ptr<URLSession> makeSession(URLSessionConfiguration configuration,
                                                  URLSessionDelegate& delegate) = 0;
};

}  // namespace vondle
