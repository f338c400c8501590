#include "platform/linux/linux_clock.h"

#include <ctime>

namespace vondle {
namespace {

Duration read(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + Duration(time.tv_nsec);
}

}  // namespace

Timestamp LinuxClock::now() const {
  return {inSeconds(read(CLOCK_REALTIME))};
}

Duration LinuxClock::sinceBoot() {
  return read(CLOCK_BOOTTIME);
}

}  // namespace vondle
