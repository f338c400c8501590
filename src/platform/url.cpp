#include "platform/url.h"

#include <arpa/inet.h>

#include <algorithm>

namespace vondle {
namespace {

constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool isHexDigit(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
constexpr bool isAlphanumeric(char c) {
  return isLetter(c) || isDigit(c);
}

constexpr std::string_view QUERY_MARKS = "-._~!$&'()*+,;=:@/?";
// Without the marks that part the items, and without the one that many servers read as a blank.
constexpr std::string_view QUERY_ITEM_MARKS = "-._~!$'()*,:@/?";
constexpr std::string_view HOST_MARKS = "-._~!$&'()*+,;=";
constexpr std::string_view USER_MARKS = "-._~!$&'()*+,;=:";

std::string lowerCase(std::string_view text) {
  std::string out(text);
  std::ranges::transform(out, out.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return out;
}

// Letters, digits, these marks and whole percent-encoded bytes.
bool holdsOnly(std::string_view text, std::string_view marks) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) return false;
      i += 2;
    } else if (!isAlphanumeric(text[i]) && !marks.contains(text[i])) {
      return false;
    }
  }
  return true;
}

bool isScheme(std::string_view text) {
  return !text.empty() && isLetter(text.front()) &&
         std::ranges::all_of(text, [](char c) { return isAlphanumeric(c) || c == '+' || c == '-' || c == '.'; });
}

bool isHost(std::string_view text) {
  if (!text.starts_with('[')) return holdsOnly(text, HOST_MARKS);
  const std::string address(text.substr(1, text.size() - 2));
  in6_addr ignored;
  return text.ends_with(']') && !address.contains('\0') && inet_pton(AF_INET6, address.c_str(), &ignored) == 1;
}

bool isPort(std::string_view text) {
  return text.size() <= 5 && std::ranges::all_of(text, isDigit) &&
         (text.empty() || std::stoi(std::string(text)) <= 65535);
}

// [user@]host[:port]
bool readAuthority(std::string_view text, URLComponents& components) {
  if (const auto at = text.rfind('@'); at != std::string_view::npos) {
    if (!holdsOnly(text.substr(0, at), USER_MARKS)) return false;
    components.hasUser = true;
    text.remove_prefix(at + 1);
  }
  const auto colon =
      std::min(text.find(':', text.starts_with('[') ? std::min(text.find(']'), text.size()) : 0), text.size());
  components.host = text.substr(0, colon);
  components.port = text.substr(std::min(colon + 1, text.size()));
  return isHost(components.host) && isPort(components.port);
}

std::string percentEncode(std::string_view text, std::string_view allowedMarks) {
  constexpr std::string_view DIGITS = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    if (isAlphanumeric(c) || allowedMarks.contains(c)) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += {'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
  }
  return out;
}

}  // namespace

std::optional<URLComponents> parseURL(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || !isScheme(text.substr(0, colon))) return std::nullopt;
  URLComponents components{.scheme = lowerCase(text.substr(0, colon)), .host = {}, .port = {}};
  text.remove_prefix(colon + 1);
  if (text.starts_with("//")) {
    const auto end = std::min(text.find_first_of("/?#", 2), text.size());
    if (!readAuthority(text.substr(2, end - 2), components)) return std::nullopt;
    text.remove_prefix(end);
  }
  const bool isWeb = components.scheme == "http" || components.scheme == "https";
  if (isWeb && components.host.empty()) return std::nullopt;
  const auto hash = std::min(text.find('#'), text.size());
  const auto fragment = text.substr(std::min(hash + 1, text.size()));
  if (!holdsOnly(text.substr(0, hash), QUERY_MARKS) || !holdsOnly(fragment, QUERY_MARKS)) return std::nullopt;
  return components;
}

bool isAbsoluteURL(std::string_view text) {
  return parseURL(text).has_value();
}

bool isLoopbackHost(std::string_view host) {
  const std::string name = lowerCase(host);
  in_addr address;
  return name == "localhost" || name.ends_with(".localhost") || name == "[::1]" ||
         (inet_pton(AF_INET, name.c_str(), &address) == 1 && name.starts_with("127."));
}

bool isUnprotected(std::string_view url) {
  const auto parts = parseURL(url);
  return parts && parts->scheme == "http" && !isLoopbackHost(parts->host);
}

std::string hostOf(std::string_view url) {
  const auto components = parseURL(url);
  return components ? components->host : std::string();
}

std::string withQuery(std::string_view url, const std::vector<std::pair<std::string, std::string>>& items) {
  const auto fragment = std::min(url.find('#'), url.size());
  std::string out(url.substr(0, fragment));
  char separator = out.contains('?') ? '&' : '?';
  for (const auto& [name, value] : items) {
    out += separator + percentEncode(name, QUERY_ITEM_MARKS) + "=" + percentEncode(value, QUERY_ITEM_MARKS);
    separator = '&';
  }
  return out.append(url.substr(fragment));
}

std::string percentEncodeQueryAllowed(std::string_view text) {
  return percentEncode(text, QUERY_MARKS);
}

}  // namespace vondle
