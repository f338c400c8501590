// Over a bus of its own, see desktop_notices_test.sh.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/dbus_desktop_notices.h"
#include "recording_desktop.h"

namespace vondle {
namespace {

using testing::ElementsAre;

// The desktop, and what it was asked for.
class Desktop {
 public:
  explicit Desktop(std::string capability)
      : desktop_(std::move(capability), [this](std::string line) { asked_.push_back(std::move(line)); }) {
    EXPECT_TRUE(desktop_.isReady());
  }

  // What was asked for, once there are so many, or after five seconds.
  std::vector<std::string> asked(std::size_t count) {
    waitUntil([&] { return asked_.size() >= count; });
    return asked_;
  }
  bool hears(const std::string& wanted) {
    return waitUntil([&] { return std::ranges::find(asked_, wanted) != asked_.end(); });
  }

 private:
  bool waitUntil(const std::function<bool()>& isThere) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!isThere() && std::chrono::steady_clock::now() < deadline) desktop_.answerSome();
    return isThere();
  }

  std::vector<std::string> asked_;
  RecordingDesktop desktop_;
};

TEST(DBusDesktopNotices, AreShownReplacedAndWithdrawn) {
  Desktop desktop("body-markup");
  DBusDesktopNotices notices;
  notices.show("full", "Work", "“a<b>&c” has no room");
  EXPECT_THAT(desktop.asked(1), ElementsAre("Vondle 0: Work: “a&lt;b&gt;&amp;c” has no room"));
  notices.show("full", "Work", "still");
  notices.show("key", "Work", "sign in");
  desktop.asked(3);
  notices.withdraw("full");
  notices.withdraw("never");
  EXPECT_THAT(desktop.asked(4),
              ElementsAre(testing::_, "Vondle 41: Work: still", "Vondle 0: Work: sign in", "close 41"));
}

TEST(DBusDesktopNotices, ADesktopWithoutMarkupGetsThePlainText) {
  Desktop desktop("body");
  DBusDesktopNotices notices;
  notices.show("full", "Work", "a<b>&c");
  EXPECT_THAT(desktop.asked(1), ElementsAre("Vondle 0: Work: a<b>&c"));
}

TEST(DBusDesktopNotices, ADesktopThatComesAgainIsToldWhatComesThen) {
  DBusDesktopNotices notices;
  {
    Desktop desktop("body");
    notices.show("full", "Work", "full");
    EXPECT_THAT(desktop.asked(1), ElementsAre("Vondle 0: Work: full"));
  }
  notices.show("full", "Work", "nobody sees this");
  Desktop desktop("body");
  notices.show("key", "Work", "sign in");
  EXPECT_TRUE(desktop.hears("Vondle 0: Work: sign in"));
}

TEST(NoBus, NothingHappensAndNothingWaits) {
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  ::unsetenv("XDG_RUNTIME_DIR");
  const auto before = std::chrono::steady_clock::now();
  {
    DBusDesktopNotices notices;
    notices.show("full", "Work", "text");
    notices.withdraw("full");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

}  // namespace
}  // namespace vondle
