#include "base/base64.h"

#include <algorithm>

#include <openssl/evp.h>

namespace vondle {
namespace {

const unsigned char* data(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* data(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

}  // namespace

std::string base64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // with the NUL that the library appends
  text.resize(static_cast<std::size_t>(EVP_EncodeBlock(data(text), data(bytes), static_cast<int>(bytes.size()))));
  return text;
}

std::optional<std::string> bytesOfBase64(std::string_view text) {
  std::string bytes(text.size() / 4 * 3, '\0');
  if (EVP_DecodeBlock(data(bytes), data(text), static_cast<int>(text.size())) < 0) return std::nullopt;
  const auto padding = std::min<std::size_t>(std::ranges::count(text, '='), std::min<std::size_t>(2, bytes.size()));
  bytes.resize(bytes.size() - padding);
  // Also blanks, what stands after the padding, and bits that say nothing.
  return base64(bytes) == text ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace vondle
