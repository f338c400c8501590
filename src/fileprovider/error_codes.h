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

// Folder listings fail with the API client's own errors, which reach the service as this domain: the code is the HTTP
// status, 0 when there was no HTTP response, or one of those below.
inline constexpr std::string_view API_ERROR_DOMAIN = "VondleAPIError";
inline constexpr std::int64_t API_NOT_CONFIGURED = -1;
inline constexpr std::int64_t API_MALFORMED = -2;

// Stands behind the errors of operations whose contents did not come or go: the code is the HTTP status, 0 when there
// was no HTTP response.
inline constexpr std::string_view TRANSFER_ERROR_DOMAIN = "VondleTransferError";

}  // namespace vondle
