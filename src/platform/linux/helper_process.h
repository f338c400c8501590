#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/time.h"

namespace vondle {

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor();

  [[nodiscard]] int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }
  void reset() { *this = Descriptor(); }

 private:
  int number_;
};

// A running helper program; the end of this object is the end of it and of all that it started. So is the end of the
// thread that started it, for a helper that asks the kernel for that.
class HelperProcess {
 public:
  // The helper for previews, in the folder of the running program.
  static std::string besideProgram();

  // The program on these two descriptors, with nothing else of this process: no other descriptor, no environment, no
  // signals blocked or ignored. In a process group of its own. None when it can't be started.
  static std::optional<HelperProcess> start(const std::string& program, const std::vector<std::string>& arguments,
                                            int input, int output);
  HelperProcess(HelperProcess&& other) noexcept;
  HelperProcess& operator=(HelperProcess&& other) = delete;
  ~HelperProcess();

  // Becomes readable when the helper has ended.
  [[nodiscard]] int ended() const { return ended_.get(); }

  // Its exit status, or -1 when it had to be killed.
  int finish();

 private:
  explicit HelperProcess(pid_t pid);

  pid_t pid_;
  Descriptor ended_;
};

// How long a helper may take.
class HelperDeadline {
 public:
  explicit HelperDeadline(Duration time) : end_(std::chrono::steady_clock::now() + time) {}

  // True when the descriptor has one of the poll events; false when time is up or `event` became readable first.
  [[nodiscard]] bool waitFor(int descriptor, short events, int event) const;

 private:
  const std::chrono::steady_clock::time_point end_;
};

}  // namespace vondle
