#include "service/follow/anchor_file.h"

#include <string_view>

#include <fmt/format.h>

#include "base/json.h"

namespace vondle {

namespace {

// Anchors are opaque bytes, so they are written in hexadecimal.
std::string encode(std::string_view bytes) {
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

std::optional<std::string> decode(std::string_view text) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  if (text.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const auto high = DIGITS.find(text[i]);
    const auto low = DIGITS.find(text[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

}  // namespace

std::optional<FollowedAnchor> loadAnchor(Files& files, const std::string& path) {
  const auto bytes = files.read(path);
  if (!bytes) return std::nullopt;
  const auto object = json::parseObject(*bytes);
  if (!object) return std::nullopt;
  const auto text = json::text(*object, "anchor");
  const auto moved = json::boolean(*object, "moved");
  if (!text || !moved) return std::nullopt;
  auto anchor = decode(*text);
  if (!anchor) return std::nullopt;
  return FollowedAnchor{std::move(*anchor), *moved};
}

Result<void> saveAnchor(Files& files, const std::string& path, const FollowedAnchor& anchor) {
  return files.writeAtomically(
      path, json::serialize(json::Object{{"anchor", encode(anchor.anchor)}, {"moved", anchor.hasMoved}}));
}

}  // namespace vondle
