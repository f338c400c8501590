#include "platform/linux/linux_process_control.h"

#include <unistd.h>

namespace vondle {

int LinuxProcessControl::pid() const {
  return getpid();
}

void LinuxProcessControl::exit(int status) {
  _exit(status);
}

}  // namespace vondle
