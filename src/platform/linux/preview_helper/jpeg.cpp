#include "platform/linux/preview_helper/jpeg.h"

namespace vondle {
namespace {

ImageHandle onWhite(VipsImage* image) {
  if (!vips_image_hasalpha(image)) {
    g_object_ref(image);
    return ImageHandle(image);
  }
  const double white[] = {255, 255, 255};
  const std::unique_ptr<VipsArrayDouble, void (*)(VipsArrayDouble*)> background(
      vips_array_double_new(white, 3), [](VipsArrayDouble* array) { vips_area_unref(VIPS_AREA(array)); });
  return made([&](VipsImage** out) { return vips_flatten(image, out, "background", background.get(), nullptr); });
}

}  // namespace

std::optional<std::string> encodeJPEG(VipsImage* image, int quality) {
  const auto inColour =
      made([&](VipsImage** out) { return vips_colourspace(image, out, VIPS_INTERPRETATION_sRGB, nullptr); });
  if (!inColour) return std::nullopt;
  const auto opaque = onWhite(inColour.get());
  if (!opaque) return std::nullopt;
  const auto bytes = made([&](VipsImage** out) { return vips_cast_uchar(opaque.get(), out, nullptr); });
  if (!bytes || vips_image_get_bands(bytes.get()) != 3) return std::nullopt;

  void* data = nullptr;
  std::size_t size = 0;
  if (vips_jpegsave_buffer(bytes.get(), &data, &size, "Q", quality, "strip", TRUE, "optimize_coding", TRUE, nullptr) !=
      0)
    return std::nullopt;
  std::string jpeg(static_cast<const char*>(data), size);
  g_free(data);
  return jpeg;
}

}  // namespace vondle
