#include "platform/linux/preview_helper/thumbnails.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/preview_helper/vips_handle.h"

namespace vondle {
namespace {

constexpr std::uint32_t MAX_PICTURE_BYTES = 4u << 20;
// Ours have 400 pixels on the longer side, of videos 960 on the shorter.
constexpr std::int64_t MAX_PIXELS = 25'000'000;
// They are read once or twice and made by the hundred: quick is better than small.
constexpr int COMPRESSION = 1;

bool readAll(int descriptor, void* bytes, std::size_t size) {
  auto* to = static_cast<char*>(bytes);
  while (size > 0) {
    const auto count = read(descriptor, to, size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    to += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool writeAll(int descriptor, const void* bytes, std::size_t size) {
  const auto* from = static_cast<const char*>(bytes);
  while (size > 0) {
    const auto count = write(descriptor, from, size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    from += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool writeNumber(int descriptor, std::size_t number) {
  const auto value = static_cast<std::uint32_t>(number);
  return writeAll(descriptor, &value, sizeof value);
}

int longerSide(VipsImage* image) {
  return std::max(vips_image_get_width(image), vips_image_get_height(image));
}

// No longer than the side, upright, decoded once into memory as sRGB with or without transparency.
ImageHandle decode(const std::string& picture, int side, bool throughProfile) {
  const auto small = made([&](VipsImage** out) {
    return vips_thumbnail_buffer(const_cast<char*>(picture.data()), picture.size(), out, side, "height", side, "size",
                                 VIPS_SIZE_BOTH, "option_string", "[fail_on=truncated]",
                                 throughProfile ? "export_profile" : nullptr, "srgb", nullptr);
  });
  if (!small) return nullptr;
  const auto inColour =
      made([&](VipsImage** out) { return vips_colourspace(small.get(), out, VIPS_INTERPRETATION_sRGB, nullptr); });
  if (!inColour) return nullptr;
  const auto bytes = made([&](VipsImage** out) { return vips_cast_uchar(inColour.get(), out, nullptr); });
  return bytes ? ImageHandle(vips_image_copy_memory(bytes.get())) : nullptr;
}

ImageHandle decode(const std::string& picture, int maxSide) {
  const ImageHandle header(vips_image_new_from_buffer(picture.data(), picture.size(), "", nullptr));
  if (!header) return nullptr;
  const std::int64_t width = vips_image_get_width(header.get());
  if (width * vips_image_get_height(header.get()) > MAX_PIXELS) return nullptr;
  const int side = std::min(maxSide, longerSide(header.get()));
  const bool hasProfile = vips_image_get_typeof(header.get(), VIPS_META_ICC_NAME) != 0 ||
                          vips_image_get_interpretation(header.get()) == VIPS_INTERPRETATION_CMYK;
  if (hasProfile)
    if (auto image = decode(picture, side, true)) return image;
  return decode(picture, side, false);
}

ImageHandle scaleDown(ImageHandle image, int side) {
  if (longerSide(image.get()) <= side) return image;
  const auto scaled = made([&](VipsImage** out) {
    return vips_thumbnail_image(image.get(), out, side, "height", side, "size", VIPS_SIZE_BOTH, nullptr);
  });
  return scaled ? ImageHandle(vips_image_copy_memory(scaled.get())) : nullptr;
}

std::optional<std::string> encode(VipsImage* image) {
  void* data = nullptr;
  std::size_t size = 0;
  if (vips_pngsave_buffer(image, &data, &size, "compression", COMPRESSION, "filter", VIPS_FOREIGN_PNG_FILTER_SUB,
                          "strip", TRUE, nullptr) != 0)
    return std::nullopt;
  std::string png(static_cast<const char*>(data), size);
  g_free(data);
  return png;
}

// The largest first, each made of the one before: that halves the work.
std::vector<std::string> thumbnailsOf(const std::string& picture, std::span<const int> sides) {
  std::vector<std::string> pngs(sides.size());
  auto image = decode(picture, sides.back());
  for (std::size_t i = sides.size(); i-- > 0;) {
    image = image ? scaleDown(std::move(image), sides[i]) : nullptr;
    auto png = image ? encode(image.get()) : std::nullopt;
    if (!png) return {};
    pngs[i] = std::move(*png);
  }
  return pngs;
}

}  // namespace

bool makeThumbnails(int input, int output, std::span<const int> sides) {
  std::string picture;
  for (std::uint32_t size = 0; readAll(input, &size, sizeof size);) {
    if (size > MAX_PICTURE_BYTES) return false;
    picture.resize(size);
    if (!readAll(input, picture.data(), size)) return false;
    const auto pngs = thumbnailsOf(picture, sides);
    vips_error_clear();
    if (!writeNumber(output, pngs.size())) return false;
    for (const auto& png : pngs)
      if (!writeNumber(output, png.size()) || !writeAll(output, png.data(), png.size())) return false;
  }
  return true;
}

}  // namespace vondle
