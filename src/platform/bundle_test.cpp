#include "platform/bundle.h"

#include <gmock/gmock.h>

namespace vondle {
namespace {

TEST(Bundle, NamesVersionBuildAndExecutable) {
  const auto bundle = bundleInformation();
  EXPECT_THAT(bundle.text("CFBundleShortVersionString").value(), testing::MatchesRegex("[0-9]+(\\.[0-9]+)+"));
  EXPECT_THAT(bundle.text("CFBundleVersion").value(), testing::MatchesRegex("[0-9]+"));
  EXPECT_EQ(bundle.text("CFBundleExecutable"), "VondleFileProvider");
  EXPECT_EQ(bundle.text("CFBundleName"), std::nullopt);
}

}  // namespace
}  // namespace vondle
