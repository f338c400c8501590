#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vondle {

// The parts of an absolute URL that the system asks for.
struct URLComponents {
  std::string scheme{};  // lower case
  std::string host{};    // as written, without port; IPv6 in brackets
  std::string port{};    // empty when not given
  bool hasUser = false;  // a user's name, perhaps with a password, stands before the host
};

// True for a text that is an absolute URL with a scheme, and for http and https also a host.
bool isAbsoluteURL(std::string_view text);
std::optional<URLComponents> parseURL(std::string_view text);

// "localhost", 127.0.0.0/8 and ::1: this machine, never reached through a proxy.
bool isLoopbackHost(std::string_view host);
// Plain http to another machine: whoever sits on the way can read and change what is sent.
bool isUnprotected(std::string_view url);

// "host" in "https://host:1/x?y", for log lines; empty when there is none.
std::string hostOf(std::string_view url);

// The address with these query items after it; names and values are percent-encoded. Empty: the address unchanged.
std::string withQuery(std::string_view url, const std::vector<std::pair<std::string, std::string>>& items);

// Percent-encodes every byte outside the set that a URL query may hold literally.
std::string percentEncodeQueryAllowed(std::string_view text);

}  // namespace vondle
