#include "platform/linux/redirect_policy.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <curl/curl.h>
#include <fmt/format.h>

#include "platform/url.h"

namespace vondle {
namespace {

struct Origin {
  std::string scheme;
  std::string host;
  std::string port;
  friend bool operator==(const Origin&, const Origin&) = default;
};

std::string lowerCase(std::string_view text) {
  std::string out(text);
  std::ranges::transform(out, out.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; });
  return out;
}

std::optional<Origin> originOf(std::string_view url) {
  auto parts = parseURL(url);
  if (!parts) return std::nullopt;
  if (parts->port.empty()) parts->port = parts->scheme == "https" ? "443" : "80";
  return Origin{parts->scheme, lowerCase(parts->host), parts->port};
}

// The Location as an absolute address, seen from the page that names it.
std::optional<std::string> resolve(const std::string& base, std::string_view location) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  char* text = nullptr;
  if (curl_url_set(url.get(), CURLUPART_URL, base.c_str(), CURLU_URLENCODE) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_URL, std::string(location).c_str(),
                   CURLU_URLENCODE | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_FRAGMENT, nullptr, 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK)
    return std::nullopt;
  std::string resolved(text);
  curl_free(text);
  return resolved;
}

// The scheme that a Location names, in lower case; empty for one that is relative.
std::string schemeOf(std::string_view location) {
  const auto end = location.find_first_of(":/?#");
  return end != std::string_view::npos && location[end] == ':' ? lowerCase(location.substr(0, end)) : std::string();
}

bool becomesGet(int status, const std::string& method) {
  if (method == "HEAD") return false;
  return status == 303 || (method == "POST" && (status == 301 || status == 302));
}

}  // namespace

bool isSameOrigin(std::string_view url, std::string_view other) {
  const auto a = originOf(url);
  return a && a == originOf(other);
}

RedirectDecision decideRedirect(const URLRequest& request, int status, std::optional<std::string_view> location,
                                int followed) {
  if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308) return {};
  if (!location || location->empty()) return {};
  const std::string scheme = schemeOf(*location);
  if (!scheme.empty() && scheme != "http" && scheme != "https") return {};
  const auto target = resolve(request.url, *location);
  const auto parts = target ? parseURL(*target) : std::nullopt;
  if (!parts)
    return {.follow = std::nullopt,
            .error = Error(URL_ERROR_DOMAIN, URL_REDIRECT_TO_NON_EXISTENT_LOCATION,
                           "The server pointed to an address that can't be understood.")};
  const bool wasSecure = parseURL(request.url)->scheme == "https";
  if (wasSecure && parts->scheme != "https") return {};

  URLRequest next = request;
  next.url = *target;
  if (becomesGet(status, request.method)) {
    next.method = "GET";
    next.body.reset();
    std::erase_if(next.headers, [](const URLHeader& header) { return lowerCase(header.name).starts_with("content-"); });
  }
  if (!isSameOrigin(request.url, *target)) {
    if (next.method != "GET" && next.method != "HEAD") return {};
    next.headers.clear();
    next.body.reset();
  }
  if (followed >= MAX_REDIRECTS)
    return {.follow = std::nullopt,
            .error = Error(URL_ERROR_DOMAIN, URL_HTTP_TOO_MANY_REDIRECTS,
                           fmt::format("The server redirected more than {} times.", MAX_REDIRECTS))};
  return {.follow = std::move(next), .error = std::nullopt};
}

}  // namespace vondle
