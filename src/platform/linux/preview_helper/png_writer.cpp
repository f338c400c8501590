#include "platform/linux/preview_helper/png_writer.h"

#include <isa-l/igzip_lib.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

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

// As a zlib stream; empty when that fails.
std::string deflated(std::span<std::uint8_t> bytes) {
  constexpr std::size_t MOST_OVERHEAD = 4096;  // of what cannot be made smaller
  std::vector<std::uint8_t> memory(ISAL_DEF_LVL1_DEFAULT);
  std::string result(bytes.size() + bytes.size() / 8 + MOST_OVERHEAD, '\0');
  isal_zstream stream;
  isal_deflate_init(&stream);
  stream.level = 1;
  stream.level_buf = memory.data();
  stream.level_buf_size = static_cast<std::uint32_t>(memory.size());
  stream.gzip_flag = IGZIP_ZLIB;
  stream.end_of_stream = 1;
  stream.next_in = bytes.data();
  stream.avail_in = static_cast<std::uint32_t>(bytes.size());
  stream.next_out = reinterpret_cast<std::uint8_t*>(result.data());
  stream.avail_out = static_cast<std::uint32_t>(result.size());
  if (isal_deflate(&stream) != COMP_OK || stream.avail_in != 0 || stream.avail_out == 0) return {};
  result.resize(stream.total_out);
  return result;
}

}  // namespace

std::string encodePNG(const Pixels& picture) {
  constexpr char DEPTH = 8, COLOURS = 2, COLOURS_WITH_OPACITY = 6;
  auto header =
      bytesOf(static_cast<std::uint32_t>(picture.width)) + bytesOf(static_cast<std::uint32_t>(picture.height));
  header += {DEPTH, picture.bands == 4 ? COLOURS_WITH_OPACITY : COLOURS, 0, 0, 0};
  std::string png = "\x89PNG\r\n\x1A\n";
  append(png, "IHDR", header);
  auto rows = filtered(picture);
  append(png, "IDAT", deflated(rows));
  append(png, "IEND", "");
  return png;
}

}  // namespace vondle
