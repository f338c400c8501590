#pragma once

#include <string_view>

#include "base/error.h"

namespace vondle {

inline constexpr std::string_view fullAdvice = "open the Vondle menu to get more space.";

// The error that the service gets, with the text that its user reads, for any error met while moving the contents of
// the item with this display name. The texts speak of downloading whatever failed, but for a full account. Errors of
// the file provider's domain and a user's cancellation pass unchanged; every other result carries the error it was
// given underneath.
Error providerError(const Error& error, std::string_view name);

}  // namespace vondle
