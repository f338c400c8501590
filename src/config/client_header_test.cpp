#include "config/client_header.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

using Entries = std::map<std::string, std::string, std::less<>>;

TEST(ClientHeader, NamesVersionBuildAndProgram) {
  EXPECT_EQ(vondleClientHeader(BundleInformation(Entries{{"CFBundleShortVersionString", "1.4"},
                                                         {"CFBundleVersion", "57"},
                                                         {"CFBundleExecutable", "VondleFileProvider"},
                                                         {"CFBundleName", "Vondle Files"}})),
            "macos/1.4 (57); VondleFileProvider");
}

TEST(ClientHeader, StandsInForWhatIsMissing) {
  EXPECT_EQ(vondleClientHeader(BundleInformation(Entries{{"CFBundleExecutable", "VondleFileProvider"}})),
            "macos/0 (0); VondleFileProvider");
  EXPECT_EQ(vondleClientHeader(BundleInformation(Entries{{"CFBundleName", "Vondle Files"}})),
            "macos/0 (0); Vondle Files");
  EXPECT_EQ(vondleClientHeader(BundleInformation(Entries{})), "macos/0 (0); Vondle");
}

}  // namespace
}  // namespace vondle
