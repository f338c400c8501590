#include "platform/linux/preview_helper/picture.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "platform/linux/preview_helper/jpeg.h"
#include "platform/linux/preview_helper/vips_handle.h"

namespace vondle {
namespace {

// More than any camera makes; what a malicious file claims to hold is often more.
constexpr std::int64_t MAX_PICTURE_PIXELS = 250'000'000;

enum class Colours { throughProfile, asStored };

SourceHandle sourceAtStart(int descriptor) {
  lseek(descriptor, 0, SEEK_SET);
  return SourceHandle(vips_source_new_from_descriptor(descriptor));
}

int longerSide(VipsImage* image) {
  return std::max(vips_image_get_width(image), vips_image_get_height(image));
}

bool isTooLarge(VipsImage* image) {
  return std::int64_t{vips_image_get_width(image)} * vips_image_get_height(image) > MAX_PICTURE_PIXELS;
}

// Converting a picture without a profile would shift its colours.
bool wantsConversion(VipsImage* header) {
  return vips_image_get_typeof(header, VIPS_META_ICC_NAME) != 0 ||
         vips_image_get_interpretation(header) == VIPS_INTERPRETATION_CMYK;
}

// Does it with the colour profile and, when that fails because the profile is broken or does not fit, without.
template <class Render>
std::optional<std::string> inEitherColours(VipsImage* header, Render&& render) {
  if (wantsConversion(header))
    if (auto jpeg = render(Colours::throughProfile)) return jpeg;
  return render(Colours::asStored);
}

// "size" both and a side that is no longer than the picture's: "down" takes too small a level of a pyramidal TIFF.
std::optional<std::string> renderWhole(int descriptor, VipsImage* header, int maxPixels, int quality) {
  const int side = std::min(maxPixels, longerSide(header));
  return inEitherColours(header, [&](Colours colours) -> std::optional<std::string> {
    const auto source = sourceAtStart(descriptor);
    if (!source) return std::nullopt;
    const auto small = made([&](VipsImage** out) {
      return vips_thumbnail_source(source.get(), out, side, "height", side, "size", VIPS_SIZE_BOTH, "option_string",
                                   "[fail_on=truncated]",
                                   colours == Colours::throughProfile ? "export_profile" : nullptr, "srgb", nullptr);
    });
    return small ? encodeJPEG(small.get(), quality) : std::nullopt;
  });
}

// The small picture that a camera stored beside the large one, when it is large enough.
std::optional<std::string> renderEmbedded(VipsImage* header, int maxPixels, int quality) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  if (vips_image_get_typeof(header, "jpeg-thumbnail-data") == 0 ||
      vips_image_get_blob(header, "jpeg-thumbnail-data", &bytes, &size) != 0)
    return std::nullopt;
  const auto loaded = made([&](VipsImage** out) {
    return vips_jpegload_buffer(const_cast<void*>(bytes), size, out, "fail_on", VIPS_FAIL_ON_TRUNCATED, nullptr);
  });
  if (!loaded || isTooLarge(loaded.get()) || longerSide(loaded.get()) < maxPixels) return std::nullopt;
  const auto embedded = made([&](VipsImage** out) { return vips_copy(loaded.get(), out, nullptr); });
  if (!embedded) return std::nullopt;
  vips_image_set_int(embedded.get(), VIPS_META_ORIENTATION, vips_image_get_orientation(header));
  return inEitherColours(embedded.get(), [&](Colours colours) -> std::optional<std::string> {
    const auto small = made([&](VipsImage** out) {
      return vips_thumbnail_image(embedded.get(), out, maxPixels, "height", maxPixels, "size", VIPS_SIZE_BOTH,
                                  colours == Colours::throughProfile ? "export_profile" : nullptr, "srgb", nullptr);
    });
    return small ? encodeJPEG(small.get(), quality) : std::nullopt;
  });
}

}  // namespace

std::optional<std::string> renderPicture(int descriptor, int maxPixels, int quality) {
  const auto source = sourceAtStart(descriptor);
  if (!source) return std::nullopt;
  const ImageHandle header(vips_image_new_from_source(source.get(), "", nullptr));
  if (!header || isTooLarge(header.get())) return std::nullopt;
  if (auto jpeg = renderEmbedded(header.get(), maxPixels, quality)) return jpeg;
  return renderWhole(descriptor, header.get(), maxPixels, quality);
}

}  // namespace vondle
