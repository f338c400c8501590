#include "storage/count.h"

#include <charconv>
#include <system_error>

namespace vondle::storage {

std::optional<std::int64_t> countIn(std::string_view text) {
  std::int64_t value = 0;
  const char* last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, value);
  if (error != std::errc() || end != last || text.starts_with('-')) return std::nullopt;
  return value;
}

}  // namespace vondle::storage
