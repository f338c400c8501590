#pragma once

#include "base/time.h"

namespace vondle {

// The two clocks. Any thread. Nobody else reads a clock: the simulated one makes fifteen-minute delays instant.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual Timestamp now() const = 0;            // wall clock; may jump when the user or NTP sets it
  virtual MonotonicTime monotonic() const = 0;  // never goes back; counts while the machine sleeps
};

}  // namespace vondle
