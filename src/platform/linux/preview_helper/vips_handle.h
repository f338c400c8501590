#pragma once

#include <vips/vips.h>

#include <memory>
#include <utility>

namespace vondle {

struct Unreference {
  void operator()(void* object) const { g_object_unref(object); }
};

using ImageHandle = std::unique_ptr<VipsImage, Unreference>;
using SourceHandle = std::unique_ptr<VipsSource, Unreference>;

// The image that a library function makes through its last parameter, or null when it fails:
//   made([&](VipsImage** out) { return vips_rot(image, out, VIPS_ANGLE_D90, nullptr); })
template <class Make>
ImageHandle made(Make&& make) {
  VipsImage* image = nullptr;
  return std::forward<Make>(make)(&image) == 0 ? ImageHandle(image) : ImageHandle();
}

}  // namespace vondle
