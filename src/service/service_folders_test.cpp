#include "service/service_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace vondle
