#pragma once

#include <string>

#include "platform/linux/preview_helper/pixels.h"

namespace vondle {

// The picture as a PNG that consists of nothing but its header and one piece of picture data.
std::string encodePNG(const Pixels& picture);

}  // namespace vondle
