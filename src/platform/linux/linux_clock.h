#pragma once

#include "platform/clock.h"

namespace vondle {

// The machine's clocks. The monotonic one counts from boot and while the machine sleeps.
class LinuxClock final : public Clock {
 public:
  Timestamp now() const override;
  MonotonicTime monotonic() const override { return {sinceBoot()}; }

  static Duration sinceBoot();
};

}  // namespace vondle
