#pragma once

#include "platform/process_control.h"

namespace vondle {

class LinuxProcessControl final : public ProcessControl {
 public:
  int pid() const override;
  [[noreturn]] void exit(int status) override;
};

}  // namespace vondle
