#pragma once

namespace vondle {

// This process, seen from the operating system. Any thread.
class ProcessControl {
 public:
  virtual ~ProcessControl() = default;
  virtual int pid() const = 0;
  // Ends the process at once: no clean-up, no flushing. Does not return in a real process.
  virtual void exit(int status) = 0;
};

}  // namespace vondle
