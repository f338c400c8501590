#include "platform/linux/preview_helper/thumbnails.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/preview_helper/pixels.h"
#include "platform/linux/preview_helper/png_writer.h"
#include "platform/linux/preview_helper/vips_handle.h"

namespace vondle {
namespace {

constexpr std::uint32_t MAX_PICTURE_BYTES = 4u << 20;
// Ours have 400 pixels on the longer side, of videos 960 on the shorter.
constexpr std::int64_t MAX_PIXELS = 25'000'000;

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

int times(double length, double scale) {
  return std::max(1, static_cast<int>(std::lround(length * scale)));
}

std::optional<Pixels> pixelsOf(VipsImage* image) {
  const int bands = vips_image_get_bands(image);
  if (bands != 3 && bands != 4) return std::nullopt;
  std::size_t size = 0;
  const std::unique_ptr<void, void (*)(void*)> memory(vips_image_write_to_memory(image, &size), g_free);
  if (!memory) return std::nullopt;
  const auto* values = static_cast<const std::uint8_t*>(memory.get());
  return Pixels{.width = vips_image_get_width(image),
                .height = vips_image_get_height(image),
                .bands = bands,
                .values = {values, values + size}};
}

std::optional<Pixels> inSRGB(VipsImage* image) {
  const auto inColour =
      made([&](VipsImage** out) { return vips_colourspace(image, out, VIPS_INTERPRETATION_sRGB, nullptr); });
  if (!inColour) return std::nullopt;
  const auto bytes = made([&](VipsImage** out) { return vips_cast_uchar(inColour.get(), out, nullptr); });
  return bytes ? pixelsOf(bytes.get()) : std::nullopt;
}

// No longer than the side and upright.
std::optional<Pixels> decode(const std::string& picture, int side, bool throughProfile) {
  const auto small = made([&](VipsImage** out) {
    return vips_thumbnail_buffer(const_cast<char*>(picture.data()), picture.size(), out, side, "height", side, "size",
                                 VIPS_SIZE_BOTH, "option_string", "[fail_on=truncated]",
                                 throughProfile ? "export_profile" : nullptr, "srgb", nullptr);
  });
  return small ? inSRGB(small.get()) : std::nullopt;
}

bool hasProfile(VipsImage* image) {
  return vips_image_get_typeof(image, VIPS_META_ICC_NAME) != 0 ||
         vips_image_get_interpretation(image) == VIPS_INTERPRETATION_CMYK;
}

// In sRGB with or without transparency. One that needs neither scaling nor turning, as most do, is taken as it is.
std::optional<Pixels> decode(const std::string& picture, int maxSide) {
  const ImageHandle image(
      vips_image_new_from_buffer(picture.data(), picture.size(), "", "fail_on", VIPS_FAIL_ON_TRUNCATED, nullptr));
  if (!image) return std::nullopt;
  const std::int64_t width = vips_image_get_width(image.get());
  if (width * vips_image_get_height(image.get()) > MAX_PIXELS) return std::nullopt;
  const int side = std::min(maxSide, longerSide(image.get()));
  if (hasProfile(image.get()))
    if (auto pixels = decode(picture, side, true)) return pixels;
  if (side == longerSide(image.get()) && vips_image_get_orientation(image.get()) == 1) return inSRGB(image.get());
  return decode(picture, side, false);
}

// The largest first, each made of the one before: that halves the work.
std::vector<std::string> thumbnailsOf(const std::string& picture, std::span<const int> sides) {
  auto pixels = decode(picture, sides.back());
  if (!pixels) return {};
  const double width = pixels->width, height = pixels->height;
  std::vector<std::string> pngs(sides.size());
  for (std::size_t i = sides.size(); i-- > 0;) {
    const double scale = sides[i] / std::max(width, height);
    if (scale < 1) *pixels = scaledDown(std::move(*pixels), times(width, scale), times(height, scale));
    pngs[i] = scale < 1 || i + 1 == sides.size() ? encodePNG(*pixels) : pngs[i + 1];
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
