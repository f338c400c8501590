#pragma once

#include "platform/log.h"

namespace vondle {

// The extension's one log. Any thread.
inline constexpr Log plog{"com.ferrow.vondle.fileprovider", "provider"};

}  // namespace vondle
