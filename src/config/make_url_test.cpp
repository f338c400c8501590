#include "config/make_url.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(MakeURL, LeavesAnAddressAsItIs) {
  EXPECT_EQ(makeURL("https://h.example/a%20b?x=%2F&y=1"), "https://h.example/a%20b?x=%2F&y=1");
}

TEST(MakeURL, EncodesWhatAnAddressMayNotHold) {
  EXPECT_EQ(makeURL("https://h.example/a b"), "https://h.example/a%20b");
  EXPECT_EQ(makeURL("https://h.example/caf\xC3\xA9?x={1}"), "https://h.example/caf%C3%A9?x=%7B1%7D");
  EXPECT_EQ(makeURL("https://h.example/100%"), "https://h.example/100%25");
}

TEST(MakeURL, HasNoneWhereEncodingDoesNotHelp) {
  for (const auto* text : {"", "no address", "https://", "https:///a b", "://h.example/a b", "https://h.example:x/"}) {
    EXPECT_EQ(makeURL(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace vondle
