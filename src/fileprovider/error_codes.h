#pragma once

#include <cstdint>
#include <string_view>

namespace vondle {

inline constexpr std::string_view FILE_PROVIDER_ERROR_DOMAIN = "NSFileProviderErrorDomain";

// Codes of FILE_PROVIDER_ERROR_DOMAIN.
inline constexpr std::int64_t NOT_AUTHENTICATED = -1000;
inline constexpr std::int64_t INSUFFICIENT_QUOTA = -1003;
inline constexpr std::int64_t SERVER_UNREACHABLE = -1004;
inline constexpr std::int64_t NO_SUCH_ITEM = -1005;

}  // namespace vondle
