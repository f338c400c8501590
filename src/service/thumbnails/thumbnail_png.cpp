#include "service/thumbnails/thumbnail_png.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace vondle::png {
namespace {

constexpr std::string_view SIGNATURE = "\x89PNG\r\n\x1A\n";
constexpr std::size_t FRAME = 12;  // length, type, checksum
constexpr std::string_view HEADER = "IHDR", DATA = "IDAT", END = "IEND", TEXT = "tEXt";

std::uint32_t numberAt(std::string_view bytes, std::size_t position) {
  std::uint32_t number = 0;
  for (const char byte : bytes.substr(position, 4)) number = number << 8 | static_cast<unsigned char>(byte);
  return number;
}

std::string bytesOf(std::uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

std::uint32_t checksum(std::string_view typeAndData) {
  const auto* bytes = reinterpret_cast<const Bytef*>(typeAndData.data());
  return static_cast<std::uint32_t>(::crc32_z(0, bytes, typeAndData.size()));
}

struct Chunk {
  std::string_view type, data, whole;

  [[nodiscard]] bool hasRightChecksum() const {
    return numberAt(whole, whole.size() - 4) == checksum(whole.substr(4, whole.size() - 8));
  }
};

// The next whole chunk, which is taken away; none at the end, or where it is cut.
std::optional<Chunk> takeChunk(std::string_view& rest) {
  if (rest.size() < FRAME) return std::nullopt;
  const std::size_t size = numberAt(rest, 0);
  if (size > rest.size() - FRAME) return std::nullopt;
  const Chunk chunk{.type = rest.substr(4, 4), .data = rest.substr(8, size), .whole = rest.substr(0, FRAME + size)};
  rest.remove_prefix(chunk.whole.size());
  return chunk;
}

std::string chunk(std::string_view type, std::string_view data) {
  const auto typeAndData = std::string(type).append(data);
  return bytesOf(static_cast<std::uint32_t>(data.size())) + typeAndData + bytesOf(checksum(typeAndData));
}

std::string textChunk(std::string_view key, std::string_view value) {
  return chunk(TEXT, std::string(key) + '\0' + std::string(value));
}

}  // namespace

std::optional<Size> sizeOf(std::string_view png, unsigned maxSide) {
  constexpr std::size_t HEADER_BYTES = 13;
  if (!png.starts_with(SIGNATURE)) return std::nullopt;
  png.remove_prefix(SIGNATURE.size());
  const auto header = takeChunk(png);
  if (!header || header->type != HEADER || header->data.size() != HEADER_BYTES || !header->hasRightChecksum())
    return std::nullopt;
  const Size size{numberAt(header->data, 0), numberAt(header->data, 4)};
  if (std::min(size.width, size.height) == 0 || std::max(size.width, size.height) > maxSide) return std::nullopt;
  for (bool hasData = false; const auto next = takeChunk(png);) {
    if (!next->hasRightChecksum()) return std::nullopt;
    if (next->type == END) return hasData && next->data.empty() && png.empty() ? std::optional(size) : std::nullopt;
    if (next->type != DATA) return std::nullopt;
    hasData = true;
  }
  return std::nullopt;
}

std::string withTexts(std::string_view png, const Texts& texts) {
  std::string_view rest = png.substr(SIGNATURE.size());
  takeChunk(rest);
  std::string result(png.substr(0, png.size() - rest.size()));
  for (const auto& [key, value] : texts) result += textChunk(key, value);
  return result.append(rest);
}

std::optional<Texts> textsOf(std::string_view head) {
  if (!head.starts_with(SIGNATURE)) return std::nullopt;
  head.remove_prefix(SIGNATURE.size());
  Texts texts;
  for (auto next = takeChunk(head); next && next->type != DATA; next = takeChunk(head)) {
    const auto end = next->data.find('\0');
    if (next->type == TEXT && end != std::string_view::npos && next->hasRightChecksum())
      texts.emplace(next->data.substr(0, end), next->data.substr(end + 1));
  }
  return texts;
}

std::optional<std::string> withText(std::string_view png, std::string_view key, std::string_view value) {
  if (!png.starts_with(SIGNATURE)) return std::nullopt;
  std::string_view rest = png.substr(SIGNATURE.size());
  const auto start = std::string(key) + '\0';
  for (auto next = takeChunk(rest); next && next->type != DATA; next = takeChunk(rest)) {
    if (next->type != TEXT || !next->data.starts_with(start)) continue;
    const auto before = png.substr(0, png.size() - rest.size() - next->whole.size());
    return std::string(before).append(textChunk(key, value)).append(rest);
  }
  return std::nullopt;
}

std::string onePixel() {
  using namespace std::string_view_literals;
  // Grey and transparency, 8 bits each; the data is zlib's for the filter type and the two.
  constexpr auto IMAGE = "\0\0\0\x01\0\0\0\x01\x08\x04\0\0\0"sv;
  constexpr auto PIXEL = "\x78\x9C\x63\x60\x60\x00\x00\x00\x03\x00\x01"sv;
  return std::string(SIGNATURE) + chunk(HEADER, IMAGE) + chunk(DATA, PIXEL) + chunk(END, "");
}

}  // namespace vondle::png
