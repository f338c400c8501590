#include "platform/linux/curl_task.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/linux/redirect_policy.h"
#include "platform/linux/url_error_mapping.h"
#include "platform/url.h"

namespace vondle {
namespace {

constexpr std::size_t MAX_HEADER_BYTES = 262'144;
constexpr std::size_t MAX_REDIRECT_BODY_BYTES = 65'536;  // read to keep the connection; of more than this let go of it

Error cancelledError() {
  return {URL_ERROR_DOMAIN, URL_CANCELLED, "cancelled"};
}
Error timedOut() {
  return {URL_ERROR_DOMAIN, URL_TIMED_OUT, "The request timed out."};
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view BLANKS = " \t\r\n";
  const auto first = text.find_first_not_of(BLANKS);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::int64_t announcedLength(const std::vector<URLHeader>& headers) {
  const auto text = findHeader(headers, "Content-Length");
  if (!text || findHeader(headers, "Transfer-Encoding")) return -1;
  std::int64_t length = -1;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), length);
  return error == std::errc() && end == text->data() + text->size() && length >= 0 ? length : -1;
}

bool takesBody(const std::string& method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

bool isIdempotent(const std::string& method) {
  return method == "GET" || method == "HEAD" || method == "PUT" || method == "DELETE";
}

}  // namespace

struct CurlTask::Attempt {
  explicit Attempt(CurlEasyHandle itsHandle) : handle(std::move(itsHandle)) {}

  CurlEasyHandle handle;
  bool inMulti = false;
  bool paused = false;  // libcurl has been told to stand still
  std::size_t headerBytes = 0;
  std::vector<URLHeader> headers;
  bool headersComplete = false;
  std::optional<URLResponse> response;  // complete, not delivered yet
  bool responded = false;
  std::optional<URLRequest> follow;
  std::size_t ignoredBytes = 0;
  std::int64_t readOffset = 0;
  std::int64_t reportedSent = 0;
  std::int64_t lastUp = 0;
  std::int64_t lastDown = 0;
};

CurlTask::CurlTask(CurlNetwork& network, std::shared_ptr<CurlCommandQueue> commands, URLTaskID identifier,
                   URLRequest request, std::string uploadPath)
    : network_(network),
      commands_(std::move(commands)),
      identifier_(identifier),
      request_(std::move(request)),
      uploadPath_(std::move(uploadPath)) {}

CurlTask::~CurlTask() = default;

void CurlTask::resume() {
  if (suspended_.exchange(false)) callNetwork();
}

void CurlTask::suspend() {
  if (!suspended_.exchange(true)) callNetwork();
}

void CurlTask::cancel() {
  if (!cancelled_.exchange(true)) callNetwork();
}

void CurlTask::callNetwork() {
  if (!called_.exchange(true)) commands_->push(shared_from_this());
}

void CurlTask::sync() {
  called_ = false;  // before the flags are read
  if (completed_) return;
  if (cancelled_) return finish(cancelledError());
  if (suspended_) {
    if (begun_) hold();
    return;
  }
  if (std::exchange(idleExempt_, false)) touch();
  if (!begun_) return begin();
  if (endedWith_) return conclude(*std::exchange(endedWith_, std::nullopt));
  if (!attempt_) return startAttempt(false);
  deliverResponse();
  if (cancelled_) return finish(cancelledError());
  if (suspended_ || !std::exchange(attempt_->paused, false)) return;
  // What libcurl kept back arrives within this call.
  const CURLcode code = curl_easy_pause(attempt_->handle.get(), CURLPAUSE_CONT);
  if (code != CURLE_OK) attemptEnded(code);
}

void CurlTask::begin() {
  begun_ = true;
  touch();
  resourceDeadline_ = lastActivity_ + network_.configuration.timeoutForResource;
  current_ = request_;
  const auto parts = parseURL(request_.url);
  if (!parts) return finish(Error(URL_ERROR_DOMAIN, URL_BAD_URL, "bad URL"));
  if (parts->scheme != "http" && parts->scheme != "https")
    return finish(Error(URL_ERROR_DOMAIN, URL_UNSUPPORTED_URL, "unsupported URL"));
  if (!uploadPath_.empty()) {
    auto opened = UploadSource::openFile(uploadPath_);
    if (!opened) return finish(opened.error());
    source_ = std::move(*opened);
  } else if (request_.body || takesBody(request_.method)) {
    source_ = std::make_unique<UploadSource>(request_.body.value_or(""));
  }
  startAttempt(false);
}

void CurlTask::startAttempt(bool onFreshConnection) {
  leaveMulti();
  attempt_.reset();
  auto handle = CurlEasyHandle::make(current_, source_.get(), network_.options, idleLimit());
  if (!handle) return finish(handle.error());
  attempt_ = std::make_unique<Attempt>(std::move(*handle));
  setCallbacks();
  if (onFreshConnection) attempt_->handle.set(CURLOPT_FRESH_CONNECT, 1L);
  if (attempt_->handle.refused() != CURLE_OK) return finish(urlError(attempt_->handle.refused(), {}));
  attempt_->inMulti = curl_multi_add_handle(network_.multi, attempt_->handle.get()) == CURLM_OK;
  if (!attempt_->inMulti) return finish(urlError(CURLE_FAILED_INIT, {}));
  touch();
}

void CurlTask::attemptEnded(CURLcode code) {
  leaveMulti();
  if (cancelled_) return finish(cancelledError());
  if (suspended_) {
    endedWith_ = code;
    idleExempt_ = true;
    return;
  }
  conclude(code);
}

// Each delegate call may suspend or cancel the task; then this begins again later, and goes on where it stopped.
void CurlTask::conclude(CURLcode code) {
  if (ownError_) return finish(ownError_);
  Attempt& attempt = *attempt_;
  if (attempt.follow) {
    if (attempt.follow->method != current_.method || !isSameOrigin(attempt.follow->url, current_.url)) source_.reset();
    current_ = std::move(*attempt.follow);
    ++redirects_;
    return startAttempt(false);
  }
  if (isStaleConnection(code)) {
    sentAgain_ = true;
    return startAttempt(true);
  }
  curl_off_t uploaded = 0;
  curl_easy_getinfo(attempt.handle.get(), CURLINFO_SIZE_UPLOAD_T, &uploaded);
  reportSent(uploaded);
  if (!cancelled_ && !suspended_) deliverResponse();
  if (cancelled_) return finish(cancelledError());
  if (suspended_) {
    endedWith_ = code;
    idleExempt_ = true;
    return;
  }
  if (code != CURLE_OK) return finish(urlError(code, attempt.handle.errorText()));
  if (!attempt.responded)
    return finish(urlError(CURLE_GOT_NOTHING, "The server closed the connection amid its answer's headers."));
  finish(std::nullopt);
}

void CurlTask::finish(std::optional<Error> error) {
  if (std::exchange(completed_, true)) return;
  leaveMulti();
  attempt_.reset();
  source_.reset();
  const auto self = shared_from_this();
  network_.tasks.erase(identifier_);
  network_.delegate.didComplete(*this, error);
}

void CurlTask::leaveMulti() {
  if (attempt_ && std::exchange(attempt_->inMulti, false))
    curl_multi_remove_handle(network_.multi, attempt_->handle.get());
}

bool CurlTask::isStaleConnection(CURLcode code) const {
  if (code != CURLE_GOT_NOTHING && code != CURLE_SEND_ERROR && code != CURLE_RECV_ERROR) return false;
  long newConnections = 0;
  curl_easy_getinfo(attempt_->handle.get(), CURLINFO_NUM_CONNECTS, &newConnections);
  return newConnections == 0 && attempt_->headerBytes == 0 && !sentAgain_ && isIdempotent(current_.method);
}

Duration CurlTask::idleLimit() const {
  return request_.timeout.value_or(network_.configuration.timeoutForRequest);
}

NetworkClock::time_point CurlTask::nextDeadline() const {
  if (!begun_ || completed_) return NetworkClock::time_point::max();
  if (suspended_ || idleExempt_) return resourceDeadline_;
  return std::min(resourceDeadline_, lastActivity_ + idleLimit());
}

void CurlTask::checkDeadlines(NetworkClock::time_point now) {
  if (now >= nextDeadline()) finish(timedOut());
}

// Both directions at once: pausing one alone lets a buffer of it slip through. Before there is a connection libcurl
// can't pause; it is told again when the request is about to go out.
void CurlTask::hold() {
  idleExempt_ = true;
  if (!attempt_ || !attempt_->inMulti || attempt_->paused) return;
  attempt_->paused = curl_easy_pause(attempt_->handle.get(), CURLPAUSE_ALL) == CURLE_OK;
  if (attempt_->paused) chunk_.suspended();
}

void CurlTask::reportSent(std::int64_t uploaded) {
  if (suspended_ || cancelled_ || !source_) return;
  std::int64_t& reported = attempt_->reportedSent;
  if (uploaded < reported) reported = 0;
  if (uploaded == reported) return;
  const std::int64_t bytes = uploaded - std::exchange(reported, uploaded);
  network_.delegate.didSendBodyData(*this, bytes, uploaded, source_->length());
}

void CurlTask::deliverResponse() {
  if (!attempt_->response || suspended_ || cancelled_) return;
  const URLResponse response = std::move(*std::exchange(attempt_->response, std::nullopt));
  attempt_->responded = true;
  if (network_.delegate.didReceiveResponse(*this, response) == ResponseDisposition::cancel) cancel();
}

std::size_t CurlTask::onHeader(std::string_view line) {
  if (cancelled_) return 0;
  touch();
  attempt_->headerBytes += line.size();
  if (attempt_->headerBytes > MAX_HEADER_BYTES) {
    ownError_ = Error(URL_ERROR_DOMAIN, URL_BAD_SERVER_RESPONSE, "The server's answer has too many headers.");
    return 0;
  }
  if (attempt_->headersComplete) return line.size();  // trailers
  const auto colon = line.find(':');
  if (line.starts_with("HTTP/")) {
    attempt_->headers.clear();
  } else if (trimmed(line).empty()) {
    if (!onHeadersComplete()) return 0;
  } else if (line.starts_with(' ') || line.starts_with('\t')) {
    if (!attempt_->headers.empty()) attempt_->headers.back().value.append(" ").append(trimmed(line));
  } else if (colon != std::string_view::npos) {
    attempt_->headers.push_back(
        {std::string(trimmed(line.substr(0, colon))), std::string(trimmed(line.substr(colon + 1)))});
  }
  return line.size();
}

bool CurlTask::onHeadersComplete() {
  long status = 0;
  curl_easy_getinfo(attempt_->handle.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status < 200) return true;  // the answer proper is still to come
  attempt_->headersComplete = true;
  auto redirect =
      decideRedirect(current_, static_cast<int>(status), findHeader(attempt_->headers, "Location"), redirects_);
  ownError_ = std::move(redirect.error);
  if (ownError_) return false;
  attempt_->follow = std::move(redirect.follow);
  if (attempt_->follow) return true;
  const std::int64_t length = announcedLength(attempt_->headers);
  attempt_->response = URLResponse{.status = static_cast<int>(status),
                                   .url = current_.url,
                                   .headers = std::move(attempt_->headers),
                                   .expectedContentLength = length};
  deliverResponse();
  if (suspended_) hold();
  return !cancelled_;
}

// A suspended task may be called with the rest of what libcurl has read already: that is handed back to it.
std::size_t CurlTask::onBody(std::string_view bytes) {
  if (cancelled_) return CURL_WRITEFUNC_ERROR;
  touch();
  if (attempt_->follow) {
    attempt_->ignoredBytes += bytes.size();
    return attempt_->ignoredBytes > MAX_REDIRECT_BODY_BYTES ? CURL_WRITEFUNC_ERROR : bytes.size();
  }
  deliverResponse();
  if (cancelled_) return CURL_WRITEFUNC_ERROR;
  if (suspended_) {
    hold();
    attempt_->paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  network_.delegate.didReceiveData(*this, std::as_bytes(std::span(bytes)));
  if (cancelled_) return CURL_WRITEFUNC_ERROR;
  if (suspended_) hold();
  return bytes.size();
}

std::size_t CurlTask::onRead(std::span<char> buffer) {
  if (cancelled_) return CURL_READFUNC_ABORT;
  const auto bytes = source_->readAt(attempt_->readOffset, buffer.first(std::min(buffer.size(), chunk_.size())));
  if (!bytes) {
    ownError_ = bytes.error();
    return CURL_READFUNC_ABORT;
  }
  attempt_->readOffset += static_cast<std::int64_t>(*bytes);
  chunk_.sent();
  return *bytes;
}

bool CurlTask::onProgress(std::int64_t down, std::int64_t up) {
  if (cancelled_) return false;
  if (down != attempt_->lastDown || up != attempt_->lastUp) touch();
  attempt_->lastDown = down;
  attempt_->lastUp = up;
  reportSent(up);
  if (suspended_) hold();
  return !cancelled_;
}

bool CurlTask::onReadyToSend() {
  attempt_->paused = false;  // what was asked for while connecting is forgotten
  if (suspended_) hold();
  return !cancelled_;
}

void CurlTask::setCallbacks() {
  CurlEasyHandle& handle = attempt_->handle;
  handle.set(CURLOPT_PRIVATE, this);
  handle.set(CURLOPT_HEADERDATA, this);
  handle.set(
      CURLOPT_HEADERFUNCTION, +[](char* line, std::size_t, std::size_t length, void* task) {
        return static_cast<CurlTask*>(task)->onHeader({line, length});
      });
  handle.set(CURLOPT_WRITEDATA, this);
  handle.set(
      CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t, std::size_t length, void* task) {
        return static_cast<CurlTask*>(task)->onBody({bytes, length});
      });
  handle.set(CURLOPT_XFERINFODATA, this);
  handle.set(
      CURLOPT_XFERINFOFUNCTION, +[](void* task, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
        return static_cast<CurlTask*>(task)->onProgress(down, up) ? 0 : 1;
      });
  handle.set(CURLOPT_NOPROGRESS, 0L);
  handle.set(CURLOPT_PREREQDATA, this);
  handle.set(
      CURLOPT_PREREQFUNCTION, +[](void* task, char*, char*, int, int) {
        return static_cast<CurlTask*>(task)->onReadyToSend() ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
      });
  if (!source_) return;
  handle.set(CURLOPT_READDATA, this);
  handle.set(
      CURLOPT_READFUNCTION, +[](char* buffer, std::size_t size, std::size_t count, void* task) {
        return static_cast<CurlTask*>(task)->onRead({buffer, size * count});
      });
  handle.set(CURLOPT_SEEKDATA, this);
  handle.set(
      CURLOPT_SEEKFUNCTION, +[](void* task, curl_off_t offset, int origin) {
        if (origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
        static_cast<CurlTask*>(task)->attempt_->readOffset = offset;
        return CURL_SEEKFUNC_OK;
      });
}

}  // namespace vondle
