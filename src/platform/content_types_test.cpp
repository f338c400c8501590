#include "platform/content_types.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ContentTypes, KnowsCommonExtensions) {
  const struct {
    std::string_view extension, type;
  } CASES[] = {
      {"txt", "text/plain"},      {"jpg", "image/jpeg"},      {"jpeg", "image/jpeg"},
      {"png", "image/png"},       {"heic", "image/heif"},     {"mp4", "video/mp4"},
      {"mov", "video/quicktime"}, {"pdf", "application/pdf"}, {"gz", "application/gzip"},
      {"c", "text/x-csrc"},       {"c++", "text/x-c++src"},   {"7z", "application/x-7z-compressed"},
      {"html", "text/html"},      {"ogg", "audio/ogg"},       {"odt", "application/vnd.oasis.opendocument.text"},
  };
  for (const auto& [extension, type] : CASES) EXPECT_EQ(contentTypeForExtension(extension), type) << extension;
}

TEST(ContentTypes, IgnoresCase) {
  EXPECT_EQ(contentTypeForExtension("JPEG"), "image/jpeg");
  EXPECT_EQ(contentTypeForExtension("Txt"), "text/plain");
}

TEST(ContentTypes, HasNoneForUnknownExtensions) {
  for (const std::string_view extension :
       {"", "unheard", "tx", "txtt", "tar.gz", ".txt", "*", "[1-9]", "\xFF", "zzzz"}) {
    EXPECT_EQ(contentTypeForExtension(extension), std::nullopt) << extension;
  }
  EXPECT_EQ(contentTypeForExtension(std::string(100'000, 'a')), std::nullopt);
}

}  // namespace
}  // namespace vondle
