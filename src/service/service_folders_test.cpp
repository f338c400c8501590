#include "service/service_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "testing/captured_log.h"

namespace vondle {
namespace {

class OneHome : public UserDatabase {
 public:
  explicit OneHome(std::string home) : home_(std::move(home)) {}
  std::optional<std::string> homeOfCurrentUser() const override { return home_; }
  std::string fallbackHome() const override { return "/nowhere"; }

 private:
  std::string home_;
};

class ServiceFoldersTest : public testing::Test {
 protected:
  ServiceFoldersTest() {
    char pattern[] = "/tmp/vondle-folders-XXXXXX";
    home_ = ::mkdtemp(pattern);
  }
  ~ServiceFoldersTest() override { std::filesystem::remove_all(home_); }

  [[nodiscard]] ServiceFolders locate(const std::optional<std::string>& runtime) const {
    return ServiceFolders::locate(OneHome(home_), runtime);
  }
  static unsigned rightsOf(const std::string& path) {
    struct stat status{};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  std::string home_;
};

TEST_F(ServiceFoldersTest, LieBelowTheRealHome) {
  const auto folders = locate(std::nullopt);
  EXPECT_EQ(folders.configuration, home_ + "/.vondle");
  EXPECT_EQ(folders.state, home_ + "/.local/state/vondle");
  EXPECT_EQ(folders.contents, home_ + "/.local/share/vondle");
  EXPECT_EQ(folders.runtime, home_ + "/.local/state/vondle/run");
  EXPECT_EQ(folders.settingsFile(), home_ + "/.vondle/service.json");
  EXPECT_EQ(folders.defaultMountPoint(), home_ + "/Vondle");
}

TEST_F(ServiceFoldersTest, TheRuntimeFolderMustBeTheUsersOwn) {
  std::filesystem::create_directory(home_ + "/run");
  EXPECT_EQ(locate(home_ + "/run").runtime, home_ + "/run/vondle");
  for (const auto* bad : {"", "relative", "/nowhere/at/all"}) {
    EXPECT_EQ(locate(bad).runtime, home_ + "/.local/state/vondle/run") << bad;
  }
}

TEST_F(ServiceFoldersTest, AreMadePrivate) {
  const auto folders = locate(std::nullopt);
  std::filesystem::create_directories(folders.contents);
  ::chmod(folders.contents.c_str(), 0755);
  ASSERT_TRUE(folders.create());
  for (const auto& folder : {folders.configuration, folders.state, folders.contents, folders.runtime}) {
    EXPECT_EQ(rightsOf(folder), 0700u) << folder;
  }
  EXPECT_TRUE(folders.create());
}

TEST_F(ServiceFoldersTest, AFileInTheWayIsRefused) {
  std::ofstream(home_ + "/.vondle") << "text";
  const auto made = locate(std::nullopt).create();
  ASSERT_FALSE(made);
  EXPECT_NE(made.error().description.find(home_ + "/.vondle"), std::string::npos);
}

TEST_F(ServiceFoldersTest, AConfigurationFolderThatOthersCanWriteToIsRefusedAndLeftAsItIs) {
  const auto folders = locate(std::nullopt);
  std::filesystem::create_directory(folders.configuration);
  for (const mode_t mode : {0777, 0775, 0702}) {
    ::chmod(folders.configuration.c_str(), mode);
    const auto made = folders.create();
    ASSERT_FALSE(made) << mode;
    EXPECT_NE(made.error().description.find("chmod go-w " + folders.configuration), std::string::npos);
    EXPECT_EQ(rightsOf(folders.configuration), mode);
  }
  ::chmod(folders.configuration.c_str(), 0755);
  EXPECT_TRUE(folders.create());
}

TEST_F(ServiceFoldersTest, AConfigurationThatOthersCanReadBecomesPrivateAndTheLogTells) {
  const auto folders = locate(std::nullopt);
  ASSERT_TRUE(folders.create());
  EXPECT_TRUE(folders.guardConfiguration()) << "there may be none";
  std::ofstream(folders.configurationFile()) << "{}";
  for (const mode_t mode : {0644, 0664, 0666, 0604, 0640}) {
    CapturedLog log;
    ::chmod(folders.configurationFile().c_str(), mode);
    EXPECT_TRUE(folders.guardConfiguration());
    EXPECT_EQ(rightsOf(folders.configurationFile()), 0600u);
    ASSERT_EQ(log.messages(LogLevel::error).size(), 1u) << mode;
    EXPECT_NE(log.messages()[0].find(folders.configurationFile()), std::string::npos);
  }
  CapturedLog log;
  EXPECT_TRUE(folders.guardConfiguration());
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(ServiceFoldersTest, AConfigurationBehindALinkIsGuardedWhereItLies) {
  const auto folders = locate(std::nullopt);
  ASSERT_TRUE(folders.create());
  std::filesystem::create_directory(home_ + "/settings");
  std::ofstream(home_ + "/settings/vondle.json") << "{}";
  std::filesystem::create_symlink("../settings/vondle.json", folders.configurationFile());
  ::chmod((home_ + "/settings/vondle.json").c_str(), 0644);
  EXPECT_TRUE(folders.guardConfiguration());
  EXPECT_EQ(rightsOf(home_ + "/settings/vondle.json"), 0600u);
  ::chmod((home_ + "/settings").c_str(), 0777);
  const auto guarded = folders.guardConfiguration();
  ASSERT_FALSE(guarded);
  EXPECT_NE(guarded.error().description.find(home_ + "/settings"), std::string::npos);
}

}  // namespace
}  // namespace vondle
