#pragma once

#include <optional>
#include <string>

#include "platform/linux/preview_helper/vips_handle.h"

namespace vondle {

// The picture as an opaque sRGB JPEG without any metadata: what is transparent becomes white. Quality from 1 to 100.
// None when the picture cannot be had: decoding happens here, so this is where a damaged one shows.
std::optional<std::string> encodeJPEG(VipsImage* image, int quality);

}  // namespace vondle
