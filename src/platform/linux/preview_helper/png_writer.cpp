#include "platform/linux/preview_helper/png_writer.h"

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/linux/preview_helper/huffman_deflate.h"

namespace vondle {
namespace {

std::string bytesOf(std::uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

void append(std::string& png, std::string_view type, std::string_view data) {
  png += bytesOf(static_cast<std::uint32_t>(data.size()));
  const auto begin = png.size();
  png.append(type).append(data);
  const auto* bytes = reinterpret_cast<const Bytef*>(png.data() + begin);
  png += bytesOf(static_cast<std::uint32_t>(::crc32_z(0, bytes, png.size() - begin)));
}

// Each value less the mean of those to the left and above.
std::vector<std::uint8_t> filtered(const Pixels& picture) {
  constexpr std::uint8_t AVERAGE = 3;
  const auto bands = static_cast<std::size_t>(picture.bands), size = static_cast<std::size_t>(picture.width) * bands;
  std::vector<std::uint8_t> result(static_cast<std::size_t>(picture.height) * (1 + size));
  const std::vector<std::uint8_t> nothing(size);
  const auto* above = nothing.data();
  const auto* row = picture.values.data();
  for (auto* to = result.data(); to != result.data() + result.size(); above = row, row += size, to += size) {
    *to++ = AVERAGE;
    for (std::size_t i = 0; i < bands; ++i) to[i] = static_cast<std::uint8_t>(row[i] - above[i] / 2);
    for (std::size_t i = bands; i < size; ++i)
      to[i] = static_cast<std::uint8_t>(row[i] - (row[i - bands] + above[i]) / 2);
  }
  return result;
}

std::string zlibDeflate(std::span<const std::uint8_t> bytes) {
  auto size = ::compressBound(bytes.size());
  std::string stream(size, '\0');
  if (::compress2(reinterpret_cast<Bytef*>(stream.data()), &size, bytes.data(), bytes.size(), Z_BEST_SPEED) != Z_OK)
    return {};
  stream.resize(size);
  return stream;
}

// What becomes that small has plain areas, of which zlib makes far less still.
std::string deflated(std::span<const std::uint8_t> bytes) {
  auto stream = huffmanDeflate(bytes);
  return stream.size() < bytes.size() / 4 ? zlibDeflate(bytes) : stream;
}

}  // namespace

std::string encodePNG(const Pixels& picture) {
  constexpr char DEPTH = 8, COLOURS = 2, COLOURS_WITH_OPACITY = 6;
  auto header =
      bytesOf(static_cast<std::uint32_t>(picture.width)) + bytesOf(static_cast<std::uint32_t>(picture.height));
  header += {DEPTH, picture.bands == 4 ? COLOURS_WITH_OPACITY : COLOURS, 0, 0, 0};
  std::string png = "\x89PNG\r\n\x1A\n";
  append(png, "IHDR", header);
  append(png, "IDAT", deflated(filtered(picture)));
  append(png, "IEND", "");
  return png;
}

}  // namespace vondle
