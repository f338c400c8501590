#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace vondle::storage {

// Now, in milliseconds since 1970: how the service keeps time.
inline std::int64_t millisecondsNow(const Clock& clock) {
  return static_cast<std::int64_t>(clock.now().secondsSince1970 * 1000);
}

}  // namespace vondle::storage
