#include "config/make_url.h"

#include "platform/url.h"

namespace vondle {

std::optional<std::string> makeURL(std::string_view text) {
  if (isAbsoluteURL(text)) return std::string(text);
  std::string encoded = percentEncodeQueryAllowed(text);
  if (!isAbsoluteURL(encoded)) return std::nullopt;
  return encoded;
}

}  // namespace vondle
