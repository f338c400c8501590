#include <algorithm>
#include <memory>

#include <curl/curl.h>

#include "config/make_url.h"
#include "fuzzing.h"
#include "platform/linux/redirect_policy.h"
#include "platform/url.h"

namespace vondle {
namespace {

bool isWeb(const URLComponents& parts) {
  return parts.scheme == "http" || parts.scheme == "https";
}

std::string lowerCase(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; });
  return text;
}

// Absent where libcurl refuses the address, and so nothing is ever sent.
std::optional<std::string> hostForCurl(const std::string& url) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
  char* text = nullptr;
  if (curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(handle.get(), CURLUPART_HOST, &text, 0) != CURLUE_OK)
    return std::nullopt;
  std::string host(text);
  curl_free(text);
  return host;
}

// What is checked and what is connected to are the same host.
void requireHostAsConnectedTo(const std::string& url, const URLComponents& parts) {
  if (!isWeb(parts) || parts.host.contains('%')) return;  // libcurl undoes percent-encoding in host names
  const auto host = hostForCurl(url);
  // libcurl writes numeric addresses its own way: 127.1 as 127.0.0.1.
  const bool isNumeric = parts.host.find_first_not_of("0123456789abcdefxABCDEFX.") == std::string::npos;
  if (host && !isNumeric && !parts.host.starts_with('[')) REQUIRE(lowerCase(*host) == lowerCase(parts.host));
}

void fuzzAddress(std::string_view text) {
  const auto parts = parseURL(text);
  REQUIRE(parts.has_value() == isAbsoluteURL(text));
  const auto made = makeURL(text);
  if (parts) {
    REQUIRE(made == text);
    REQUIRE(parts->scheme == lowerCase(parts->scheme) && !parts->scheme.empty());
    REQUIRE(std::ranges::all_of(text, [](unsigned char c) { return c > ' ' && c < 0x7f; }));
    REQUIRE(!isWeb(*parts) || !parts->host.empty());
    REQUIRE(parts->host.find_first_of("/?#@\\") == std::string::npos);
    REQUIRE(hostOf(text) == parts->host);
    requireHostAsConnectedTo(std::string(text), *parts);
    REQUIRE(!isWeb(*parts) || isSameOrigin(text, text));
  }
  if (made) REQUIRE(isAbsoluteURL(*made));

  const auto encoded = percentEncodeQueryAllowed(text);
  REQUIRE(std::ranges::all_of(encoded, [](unsigned char c) { return c > ' ' && c < 0x7f && c != '#'; }));
}

void fuzzQuery(const std::string& name, const std::string& value) {
  const auto url = withQuery("https://a.test/p", {{name, value}, {"z", value}});
  REQUIRE(isAbsoluteURL(url) && url.starts_with("https://a.test/p?"));
  REQUIRE(std::ranges::count(url, '&') == 1 && std::ranges::count(url, '=') == 2 && !url.contains('#'));
}

void fuzzRedirect(FuzzedDataProvider& input) {
  constexpr int STATUSES[] = {200, 300, 301, 302, 303, 304, 307, 308};
  constexpr const char* METHODS[] = {"GET", "HEAD", "POST", "PUT", "DELETE"};
  constexpr const char* PAGES[] = {"https://a.test/dir/page?q=1", "http://a.test:8080/", "http://127.0.0.1:1/x"};
  const URLRequest request{.url = input.PickValueInArray(PAGES),
                           .method = input.PickValueInArray(METHODS),
                           .headers = {{"X-API-Key", "secret"}, {"Content-Type", "text/plain"}},
                           .body = "body"};
  const int status = input.PickValueInArray(STATUSES);
  const int followed = input.ConsumeIntegralInRange(0, MAX_REDIRECTS + 1);
  const auto location = input.ConsumeRemainingBytesAsString();
  const auto decision = decideRedirect(request, status, location, followed);
  REQUIRE(!decision.follow || !decision.error);
  if (decision.error) REQUIRE(decision.error->isIn(URL_ERROR_DOMAIN));
  if (!decision.follow) return;

  const auto& next = *decision.follow;
  const auto parts = parseURL(next.url);
  REQUIRE(status > 300 && status != 304 && followed < MAX_REDIRECTS);
  REQUIRE(parts && isWeb(*parts));
  REQUIRE(parts->scheme == "https" || !request.url.starts_with("https:"));
  REQUIRE(!next.url.contains('#'));
  requireHostAsConnectedTo(next.url, *parts);
  if (isSameOrigin(request.url, next.url)) {
    REQUIRE(lowerCase(parts->host) == hostOf(request.url));
    REQUIRE(findHeader(next.headers, "X-API-Key") == "secret");
  } else {
    REQUIRE(next.headers.empty() && !next.body);
    REQUIRE(next.method == "GET" || next.method == "HEAD");
  }
}

}  // namespace

void fuzz(std::string_view bytes) {
  fuzzAddress(bytes);
  fuzzAddress(std::string("https://").append(bytes));
  const auto split = std::min(bytes.find('\n'), bytes.size());
  fuzzQuery(std::string(bytes.substr(0, split)), std::string(bytes.substr(split)));
  auto input = providerOf(bytes);
  fuzzRedirect(input);
}

}  // namespace vondle
