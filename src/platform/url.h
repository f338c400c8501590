#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vondle {

// The parts of an absolute URL that the system asks for.
struct URLComponents {
  std::string scheme;  // lower case
  std::string host;    // as written, without port; IPv6 in brackets
  std::string port;    // empty when not given
};

// True for a text that is an absolute URL with a scheme, and for http and https also a host.
bool isAbsoluteURL(std::string_view text);
std::optional<URLComponents> parseURL(std::string_view text);

// "host" in "https://host:1/x?y", for log lines; empty when there is none.
std::string hostOf(std::string_view url);

// The address with these query items after it; names and values are percent-encoded. Empty: the address unchanged.
std::string withQuery(std::string_view url, const std::vector<std::pair<std::string, std::string>>& items);

// Percent-encodes every byte outside the set that a URL query may hold literally.
std::string percentEncodeQueryAllowed(std::string_view text);

}  // namespace vondle
