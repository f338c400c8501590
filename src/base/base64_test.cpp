#include "base/base64.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(Base64Test, WritesAndReadsWhatTheStandardSays) {
  const struct {
    const char* bytes;
    const char* text;
  } cases[] = {{"", ""},
               {"f", "Zg=="},
               {"fo", "Zm8="},
               {"foo", "Zm9v"},
               {"foob", "Zm9vYg=="},
               {"fooba", "Zm9vYmE="},
               {"foobar", "Zm9vYmFy"},
               {"\xfb\xff\xfe", "+//+"}};
  for (const auto& each : cases) {
    EXPECT_EQ(base64(each.bytes), each.text);
    EXPECT_EQ(bytesOfBase64(each.text), each.bytes);
  }
}

TEST(Base64Test, KeepsEveryByte) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  EXPECT_EQ(bytesOfBase64(base64(all)), all);
}

TEST(Base64Test, RefusesWhatItDoesNotWrite) {
  for (const char* text :
       {"Z", "Zg", "Zg=", "Zh==", "Z===", "====", "Zm9v\n", "Zm 9", "Zg==Zg==", "Zm9=", "Z-9v", "Zg=g"})
    EXPECT_EQ(bytesOfBase64(text), std::nullopt) << text;
}

}  // namespace
}  // namespace vondle
