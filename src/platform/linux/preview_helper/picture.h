#pragma once

#include <optional>
#include <string>

namespace vondle {

// The first picture of the file behind the descriptor, upright, its longer side maxPixels (a smaller picture keeps its
// size), as a JPEG. None for formats that are not read, pictures of more than MAX_PICTURE_PIXELS, and damaged ones.
std::optional<std::string> renderPicture(int descriptor, int maxPixels, int quality);

}  // namespace vondle
