#pragma once

#include "fileprovider/item.h"

namespace vondle {

// The root container, which is the same for everybody.
class RootItem {
 public:
  [[nodiscard]] static Item item();
};

}  // namespace vondle
