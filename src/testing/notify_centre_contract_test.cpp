#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include <gtest/gtest.h>

#include "platform/linux/inotify_notify_centre.h"
#include "testing/simulated_notify_centre.h"

namespace vondle {
namespace {

namespace fs = std::filesystem;
using std::chrono_literals::operator""s;

class ThrowAwayFolder {
 public:
  ThrowAwayFolder() {
    std::string name = fs::temp_directory_path() / "vondle-notify-XXXXXX";
    path_ = mkdtemp(name.data());
  }
  ~ThrowAwayFolder() { fs::remove_all(path_); }
  [[nodiscard]] fs::path path() const { return path_; }

 private:
  fs::path path_;
};

// Two processes of one user: two centres over the same folders.
struct Inotify {
  ThrowAwayFolder runtime;
  InotifyNotifyCentre a{{runtime.path() / "vondle/notify"}};
  InotifyNotifyCentre b{{runtime.path() / "vondle/notify"}};
  NotifyCentre& listener() { return a; }
  NotifyCentre& poster() { return b; }
};

struct Simulated {
  SimulatedNotifyCentre centre;
  NotifyCentre& listener() { return centre; }
  NotifyCentre& poster() { return centre; }
};

// Fulfilled by the first call; later ones are harmless.
class Signal {
 public:
  std::function<void()> callback() {
    return [this] {
      if (!fired_.exchange(true)) promise_.set_value();
    };
  }
  bool arrives() { return promise_.get_future().wait_for(30s) == std::future_status::ready; }
  [[nodiscard]] bool hasFired() const { return fired_; }

 private:
  std::atomic<bool> fired_ = false;
  std::promise<void> promise_;
};

template <class T>
class NotifyCentreContract : public testing::Test {
 protected:
  Signal first_, second_, other_;  // outlive the centres
  T centres_;
};
using Centres = testing::Types<Inotify, Simulated>;
TYPED_TEST_SUITE(NotifyCentreContract, Centres);

TYPED_TEST(NotifyCentreContract, APostReachesEveryObserverOfItsName) {
  this->centres_.listener().observe("com.example.a", this->first_.callback());
  this->centres_.poster().observe("com.example.a", this->second_.callback());
  this->centres_.poster().post("com.example.a");
  EXPECT_TRUE(this->first_.arrives());
  EXPECT_TRUE(this->second_.arrives());
}

TYPED_TEST(NotifyCentreContract, OtherNamesAreNotHeard) {
  this->centres_.listener().observe("com.example.a", this->other_.callback());
  this->centres_.listener().observe("com.example.ab", this->first_.callback());
  this->centres_.poster().post("com.example.ab");
  EXPECT_TRUE(this->first_.arrives());
  EXPECT_FALSE(this->other_.hasFired());
}

TYPED_TEST(NotifyCentreContract, PostsFromBeforeAreNotHeard) {
  this->centres_.poster().post("com.example.a");
  this->centres_.listener().observe("com.example.a", this->other_.callback());
  this->centres_.listener().observe("com.example.b", this->first_.callback());
  this->centres_.poster().post("com.example.b");
  EXPECT_TRUE(this->first_.arrives());
  EXPECT_FALSE(this->other_.hasFired());
}

TYPED_TEST(NotifyCentreContract, AnObserverAddedInACallbackHearsTheNextPost) {
  this->centres_.listener().observe("com.example.a", [&] {
    this->centres_.listener().observe("com.example.b", this->second_.callback());
    this->first_.callback()();
  });
  this->centres_.poster().post("com.example.a");
  ASSERT_TRUE(this->first_.arrives());
  this->centres_.poster().post("com.example.b");
  EXPECT_TRUE(this->second_.arrives());
}

TEST(InotifyNotifyCentre, MakesItsFoldersPrivate) {
  const ThrowAwayFolder runtime;
  InotifyNotifyCentre({runtime.path() / "vondle/notify"}).post("com.example.a");
  EXPECT_EQ(fs::status(runtime.path() / "vondle").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(runtime.path() / "vondle/notify").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(runtime.path() / "vondle/notify/com.example.a").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
}

TEST(InotifyNotifyCentre, UsesNoFolderThatOthersCanWriteTo) {
  for (const auto& open : {"vondle", "vondle/notify"}) {
    const ThrowAwayFolder runtime;
    fs::create_directories(runtime.path() / "vondle/notify");
    fs::create_directories(runtime.path() / "shared");
    fs::permissions(runtime.path() / open, fs::perms::group_write, fs::perm_options::add);
    InotifyNotifyCentre({runtime.path() / "vondle/notify", runtime.path() / "shared/notify"}).post("com.example.a");
    EXPECT_FALSE(fs::exists(runtime.path() / "vondle/notify/com.example.a")) << open;
    EXPECT_TRUE(fs::exists(runtime.path() / "shared/notify/com.example.a")) << open;
  }
}

TEST(InotifyNotifyCentre, FollowsNoLinkInThePlaceOfItsFolder) {
  const ThrowAwayFolder runtime;
  fs::create_directories(runtime.path() / "vondle");
  fs::create_directories(runtime.path() / "elsewhere");
  fs::create_directory_symlink(runtime.path() / "elsewhere", runtime.path() / "vondle/notify");
  InotifyNotifyCentre({runtime.path() / "vondle/notify"}).post("com.example.a");
  EXPECT_TRUE(fs::is_empty(runtime.path() / "elsewhere"));
}

TEST(InotifyNotifyCentre, ListensInEveryFolder) {
  const ThrowAwayFolder runtime;
  const std::string best = runtime.path() / "vondle/notify";
  const std::string shared = runtime.path() / "shared/notify";
  fs::create_directories(runtime.path() / "shared");
  Signal signal;
  InotifyNotifyCentre listener({best, shared});
  listener.observe("com.example.a", signal.callback());
  InotifyNotifyCentre({shared}).post("com.example.a");
  EXPECT_TRUE(signal.arrives());
}

TEST(InotifyNotifyCentre, HearsAgainAfterItsFolderWasRemoved) {
  const ThrowAwayFolder runtime;
  const auto folder = runtime.path() / "vondle/notify";
  Signal signal;
  InotifyNotifyCentre listener({folder});
  listener.observe("com.example.a", signal.callback());
  fs::remove_all(folder);
  while (!fs::exists(folder)) std::this_thread::yield();  // the listener makes it again, then watches it
  InotifyNotifyCentre poster({folder});
  const auto until = std::chrono::steady_clock::now() + 30s;
  while (!signal.hasFired() && std::chrono::steady_clock::now() < until) {
    poster.post("com.example.a");
    std::this_thread::yield();
  }
  EXPECT_TRUE(signal.hasFired());
}

TEST(NotificationFolders, PreferTheRuntimeFolderToTheSharedContainer) {
  setenv("XDG_RUNTIME_DIR", "/run/somewhere", 1);
  EXPECT_EQ(notificationFolders("/shared"),
            (std::vector<std::string>{"/run/somewhere/vondle/notify", "/shared/notify"}));
  EXPECT_EQ(notificationFolders(std::nullopt), std::vector<std::string>{"/run/somewhere/vondle/notify"});
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(notificationFolders("/shared").back(), "/shared/notify");
}

}  // namespace
}  // namespace vondle
