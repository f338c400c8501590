#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vondle::storage {

// The number that the whole text is, in decimal digits; none when it is none or too large.
std::optional<std::int64_t> countIn(std::string_view text);

}  // namespace vondle::storage
