#include "platform/url_session.h"

#include <algorithm>

namespace vondle {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameName(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace

std::optional<std::string_view> findHeader(const std::vector<URLHeader>& headers, std::string_view name) {
  for (const URLHeader& header : headers)
    if (sameName(header.name, name)) return header.value;
  return std::nullopt;
}

}  // namespace vondle
