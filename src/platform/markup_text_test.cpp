#include "platform/markup_text.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(MarkupText, WhatMarkupIsMadeOfStandsForItself) {
  EXPECT_EQ(markupText("“a<b>&c” 'd' \"e\""), "“a&lt;b&gt;&amp;c” &apos;d&apos; &quot;e&quot;");
  EXPECT_EQ(markupText(""), "");
}

}  // namespace
}  // namespace vondle
