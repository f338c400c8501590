#include "platform/linux/heap.h"

#include <malloc.h>

namespace vondle {

void giveBackFreeMemory() {
  ::malloc_trim(0);
}

}  // namespace vondle
