#pragma once

#include <vector>

#include "platform/process_control.h"

namespace vondle {

// A process that only notes when it was to end. One thread.
class SimulatedProcessControl final : public ProcessControl {
 public:
  explicit SimulatedProcessControl(int pid = 4242) : pid_(pid) {}

  int pid() const override { return pid_; }
  void exit(int status) override { exits_.push_back(status); }

  [[nodiscard]] const std::vector<int>& exits() const { return exits_; }

 private:
  const int pid_;
  std::vector<int> exits_;
};

}  // namespace vondle
