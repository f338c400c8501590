#include "storage/thumb_kind.h"

#include <algorithm>
#include <array>

namespace vondle::storage {
namespace {

// What the program that makes previews can read.
constexpr std::array<std::string_view, 13> PICTURES = {"avif", "gif", "heic", "heif", "jfif", "jpe", "jpeg",
                                                       "jpg",  "jxl", "png",  "tif",  "tiff", "webp"};
constexpr std::array<std::string_view, 5> VIDEOS = {"3g2", "3gp", "m4v", "mov", "mp4"};

}  // namespace

std::string extensionOf(std::string_view name) {
  const auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  std::string extension(name.substr(dot + 1));
  std::ranges::transform(extension, extension.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; });
  return extension;
}

ThumbKind thumbKindOf(std::string_view name) {
  const auto extension = extensionOf(name);
  if (std::ranges::find(PICTURES, extension) != PICTURES.end()) return ThumbKind::picture;
  if (std::ranges::find(VIDEOS, extension) != VIDEOS.end()) return ThumbKind::video;
  return ThumbKind::none;
}

bool hasThumb(const Item& file) {
  if (file.thumb != Thumb::none) return file.thumb == Thumb::stored;
  return !file.isFolder && file.size > 0 && thumbKindOf(file.name) != ThumbKind::none;
}

}  // namespace vondle::storage
