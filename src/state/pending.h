#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/time.h"
#include "platform/clock.h"
#include "platform/scheduler.h"

namespace vondle {

// The long operations that somebody waits for, so that the log tells of those that take long. It only watches: nothing
// is ended or tried again from here. The watchdog runs only while an operation is registered. Any thread.
class Pending {
 public:
  static constexpr Duration warnAfter = seconds(30);      // older ones are reported
  static constexpr Duration interval = seconds(15);       // of the watchdog
  static constexpr Duration longOperation = seconds(10);  // one that took longer is reported at its end

  Pending(const Clock& clock, Scheduler& scheduler);
  static Pending& shared();

  // Registers an operation of so many units of work; its id is never used again.
  std::int64_t begin(std::string what, std::int64_t total);
  // One unit more is done. Unknown ids are ignored, also by end.
  void progress(std::int64_t id);
  void end(std::int64_t id);

 private:
  class Registry;
  std::shared_ptr<Registry> registry_;  // a tick that has begun holds it too
};

}  // namespace vondle
