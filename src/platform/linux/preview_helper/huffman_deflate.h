#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vondle {

// The bytes as a zlib stream (RFC 1950, 1951) of one block that has each byte as its Huffman code and refers to nothing
// before it. For what hardly repeats, like the differences between the pixels of a photograph, that is as small as
// zlib makes it and takes a tenth of its time.
std::string huffmanDeflate(std::span<const std::uint8_t> bytes);

}  // namespace vondle
