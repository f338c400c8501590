#include "service/service_settings.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace vondle {
namespace {

class ServiceSettingsTest : public testing::Test {
 protected:
  ServiceSettingsTest() {
    char pattern[] = "/tmp/vondle-settings-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    path_ = folder_ + "/service.json";
  }
  ~ServiceSettingsTest() override { std::filesystem::remove_all(folder_); }

  Result<ServiceSettings> load(const std::string& text) {
    std::ofstream(path_) << text;
    return ServiceSettings::load(path_, "/home/ann");
  }

  std::string folder_;
  std::string path_;
};

TEST_F(ServiceSettingsTest, NoFileGivesTheDefaults) {
  const auto settings = ServiceSettings::load(path_, "/home/ann");
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->mount, std::nullopt);
  EXPECT_FALSE(settings->readOnly);
  EXPECT_EQ(settings->name, "Vondle");
  EXPECT_EQ(settings->localOnly, std::nullopt);
  EXPECT_EQ(settings->cache.limit, 10 * GIBIBYTE);
  EXPECT_EQ(settings->cache.reserve, std::nullopt);
  EXPECT_TRUE(settings->thumbnails);
  EXPECT_FALSE(settings->thumbnailFailures);
  EXPECT_TRUE(settings->notices);
}

TEST_F(ServiceSettingsTest, ReadsEveryKeyAndLeavesOthersAlone) {
  const auto settings = load(R"({"mount": "~/Cloud", "read_only": true, "name": "Work",
                                   "local_only": ["*.part", "~*"], "cache_limit": "1.5 GiB", "disk_reserve": 0,
                                   "thumbnails": false, "thumbnail_failures": true,
                                   "notices": false, "later": [1]})");
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->mount, "/home/ann/Cloud");
  EXPECT_TRUE(settings->readOnly);
  EXPECT_EQ(settings->name, "Work");
  EXPECT_EQ(settings->localOnly, (std::vector<std::string>{"*.part", "~*"}));
  EXPECT_EQ(settings->cache.limit, GIBIBYTE + GIBIBYTE / 2);
  EXPECT_EQ(settings->cache.reserve, 0);
  EXPECT_EQ(load(R"({"cache_limit": 5368709120})")->cache.limit, 5 * GIBIBYTE);
  EXPECT_FALSE(settings->thumbnails);
  EXPECT_TRUE(settings->thumbnailFailures);
  EXPECT_FALSE(settings->notices);
}

TEST_F(ServiceSettingsTest, ASettingThatCannotBeObeyedIsAnErrorThatNamesIt) {
  const struct {
    const char* text;
    const char* named;
  } cases[] = {{"", "JSON"},
               {"{\"mount\": ", "JSON"},
               {"[]", "JSON"},
               {R"({"mount": 7})", "\"mount\""},
               {R"({"mount": ""})", "\"mount\""},
               {R"({"mount": "Cloud"})", "\"mount\""},
               {R"({"read_only": "yes"})", "\"read_only\""},
               {R"({"read_only": 1})", "\"read_only\""},
               {R"({"notices": "no"})", "\"notices\""},
               {R"({"name": null})", "\"name\""},
               {R"({"local_only": "*.part"})", "\"local_only\""},
               {R"({"local_only": [""]})", "\"local_only\""},
               {R"({"thumbnails": "no"})", "\"thumbnails\""},
               {R"({"thumbnail_failures": 1})", "\"thumbnail_failures\""},
               {R"({"local_only": ["a", 1]})", "\"local_only\""},
               {R"({"cache_limit": 0})", "\"cache_limit\""},
               {R"({"cache_limit": -1})", "\"cache_limit\""},
               {R"({"cache_limit": true})", "\"cache_limit\""},
               {R"({"cache_limit": null})", "\"cache_limit\""},
               {R"({"cache_limit": 1e30})", "\"cache_limit\""},
               {R"({"cache_limit": "0"})", "\"cache_limit\""},
               {R"({"cache_limit": "plenty"})", "\"cache_limit\""},
               {R"({"cache_limit": "-5 GiB"})", "\"cache_limit\""},
               {R"({"disk_reserve": -1})", "\"disk_reserve\""},
               {R"({"disk_reserve": ["1 GiB"]})", "\"disk_reserve\""},
               {R"({"disk_reserve": "5 %"})", "\"disk_reserve\""}};
  for (const auto& each : cases) {
    const auto settings = load(each.text);
    ASSERT_FALSE(settings) << each.text;
    EXPECT_NE(settings.error().description.find(each.named), std::string::npos) << settings.error().description;
    EXPECT_NE(settings.error().description.find(path_), std::string::npos) << settings.error().description;
  }
}

TEST_F(ServiceSettingsTest, AFileThatIsCutAnywhereIsAnErrorThatNamesIt) {
  const std::string text = R"({"mount": "~/Cloud", "read_only": true, "name": "Für Zoë \u00e9\n"})";
  ASSERT_TRUE(load(text));
  for (std::size_t length = 0; length < text.size(); ++length) {
    const auto settings = load(text.substr(0, length));
    ASSERT_FALSE(settings) << length;
    EXPECT_NE(settings.error().description.find(path_), std::string::npos) << length;
  }
}

}  // namespace
}  // namespace vondle
