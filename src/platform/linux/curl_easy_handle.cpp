#include "platform/linux/curl_easy_handle.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "platform/linux/redirect_policy.h"
#include "platform/linux/send_chunk.h"
#include "platform/linux/url_error_mapping.h"
#include "platform/url.h"

namespace vondle {
namespace {

constexpr long RECEIVE_BUFFER = 262'144;         // larger ones let a single transfer keep the thread too long
constexpr long OLDEST_CONNECTION_TO_REUSE = 50;  // seconds idle; servers close after 60 and more

// Without it some megabytes of a body would count as sent while they still wait in the kernel, and a slow line would
// look like a stall.
constexpr int UNSENT_BYTES_IN_KERNEL = 131'072;

int prepareSocket(void*, curl_socket_t socket, curlsocktype) {
  setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &UNSENT_BYTES_IN_KERNEL, sizeof UNSENT_BYTES_IN_KERNEL);
  return CURL_SOCKOPT_OK;
}

bool isOwn(const URLHeader& header) {
  constexpr std::array OWN = {"Connection", "Content-Length", "Expect", "Host", "Transfer-Encoding"};
  return std::ranges::any_of(OWN, [&](const char* name) { return findHeader({header}, name).has_value(); });
}

bool isToken(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").contains(c);
  });
}

bool isHeaderValue(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

long inMilliseconds(Duration duration) {
  return static_cast<long>(std::chrono::ceil<std::chrono::milliseconds>(duration).count());
}

}  // namespace

CurlEasyHandle::CurlEasyHandle()
    : errorText_(std::make_unique<std::array<char, CURL_ERROR_SIZE>>()),
      headers_(nullptr, &curl_slist_free_all),
      easy_(curl_easy_init(), &curl_easy_cleanup) {
  if (!easy_) throw std::bad_alloc();
}

Result<CurlEasyHandle> CurlEasyHandle::make(const URLRequest& request, const UploadSource* source,
                                            const CurlOptions& options, Duration connectTimeout) {
  CurlEasyHandle handle;
  const auto address = parseURL(request.url);
  if (!address || address->hasUser)
    return failure({URL_ERROR_DOMAIN, URL_BAD_URL, "The address is malformed, or holds a user's name."});
  // libcurl would take "evil:80/x" for a host and a port.
  if (address->scheme != "http" && address->scheme != "https")
    return failure({URL_ERROR_DOMAIN, URL_UNSUPPORTED_URL, "Only http and https addresses are understood."});
  if (!isToken(request.method)) return failure({URL_ERROR_DOMAIN, URL_BAD_URL, "The request's method is not one."});
  if (!handle.setHeaders(request))
    return failure(
        {URL_ERROR_DOMAIN, URL_BAD_URL, "A header of the request holds a line break or has no proper name."});
  handle.set(CURLOPT_URL, request.url.c_str());
  handle.setRules(options, connectTimeout);
  handle.setMethod(request, source);
  if (isLoopbackHost(address->host)) handle.set(CURLOPT_PROXY, "");
  if (handle.refused_ != CURLE_OK) return failure(urlError(handle.refused_, {}));
  return handle;
}

void CurlEasyHandle::setRules(const CurlOptions& options, Duration connectTimeout) {
  set(CURLOPT_ERRORBUFFER, errorText_->data());
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // a look-up that hangs must not hold up the thread when its task is cancelled
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));  // HTTP/2 defeats suspending and pacing
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_CAPATH, nullptr);  // with a folder libcurl would read all authorities again for each connection
  if (!options.caFile.empty()) set(CURLOPT_CAINFO, options.caFile.c_str());
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_CONNECTTIMEOUT_MS, std::max(inMilliseconds(connectTimeout), 1L));
  set(CURLOPT_MAXAGE_CONN, OLDEST_CONNECTION_TO_REUSE);
  set(CURLOPT_BUFFERSIZE, RECEIVE_BUFFER);
  set(CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(SendChunk::LARGEST));
  set(CURLOPT_SOCKOPTFUNCTION, &prepareSocket);
}

bool CurlEasyHandle::setHeaders(const URLRequest& request) {
  // libcurl would wait a second for the leave to send a body that servers seldom give.
  std::vector<std::string> lines = {"Expect:"};
  for (const URLHeader& header : request.headers) {
    if (!isToken(header.name) || !isHeaderValue(header.value)) return false;
    if (isOwn(header)) continue;
    lines.push_back(header.value.empty() ? header.name + ";" : header.name + ": " + header.value);
  }
  for (const std::string& line : lines) {
    curl_slist* longer = curl_slist_append(headers_.get(), line.c_str());
    if (!longer) throw std::bad_alloc();
    static_cast<void>(headers_.release());
    headers_.reset(longer);
  }
  set(CURLOPT_HTTPHEADER, headers_.get());
  return true;
}

void CurlEasyHandle::setMethod(const URLRequest& request, const UploadSource* source) {
  if (source) {
    set(CURLOPT_UPLOAD, 1L);
    set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(source->length()));
  } else if (request.method == "HEAD") {
    set(CURLOPT_NOBODY, 1L);
  }
  set(CURLOPT_CUSTOMREQUEST, request.method.c_str());
}

}  // namespace vondle
