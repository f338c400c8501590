#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vondle::png {

using Texts = std::map<std::string, std::string>;

// Into whose first bytes all texts fit that stand where ours do.
inline constexpr std::size_t HEAD_BYTES = 16'384;

struct Size {
  unsigned width = 0;
  unsigned height = 0;
};

// What a picture is that was made elsewhere, if it is a whole PNG of no more than this many pixels a side that consists
// of nothing but its header and picture data: a short list of the simplest parts, each with the right checksum. Whoever
// reads thumbnails trusts them more than files.
std::optional<Size> sizeOf(std::string_view png, unsigned maxSide);

// The PNG with just these texts (tEXt; Latin-1, as keywords and URIs are), before the picture data. One that sizeOf
// does not know must not be given.
std::string withTexts(std::string_view png, const Texts& texts);

// The texts before the picture data in the beginning of a file of anybody's, as far as they are whole. None when it is
// no PNG.
std::optional<Texts> textsOf(std::string_view head);

// The PNG with another value for a text that it has before the picture data; none when it has none, or is damaged
// there.
std::optional<std::string> withText(std::string_view png, std::string_view key, std::string_view value);

// The smallest there is: one transparent pixel.
std::string onePixel();

}  // namespace vondle::png
