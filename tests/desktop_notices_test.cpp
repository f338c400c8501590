// Over a bus of its own, see desktop_notices_test.sh.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "platform/linux/dbus_desktop_notices.h"

namespace vondle {
namespace {

using testing::ElementsAre;

// What a desktop's part of the notifications is, on the thread that asks.
class Desktop {
 public:
  explicit Desktop(std::string capability) : capability_(std::move(capability)) {
    EXPECT_GE(sd_bus_open_user(&bus_), 0);
    static const sd_bus_vtable METHODS[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("GetCapabilities", "", "as", capabilities, 0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", notify, 0),
        SD_BUS_METHOD("CloseNotification", "u", "", close, 0),
        SD_BUS_VTABLE_END,
    };
    EXPECT_GE(sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                       METHODS, this),
              0);
    EXPECT_GE(sd_bus_request_name(bus_, "org.freedesktop.Notifications", 0), 0);
  }
  ~Desktop() { sd_bus_flush_close_unref(bus_); }
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;

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
    while (!isThere() && std::chrono::steady_clock::now() < deadline)
      if (sd_bus_process(bus_, nullptr) == 0) sd_bus_wait(bus_, 100'000);
    sd_bus_flush(bus_);  // the answer to the last
    return isThere();
  }
  static int capabilities(sd_bus_message* request, void* self, sd_bus_error*) {
    return sd_bus_reply_method_return(request, "as", 1, static_cast<Desktop*>(self)->capability_.c_str());
  }
  static int notify(sd_bus_message* request, void* self, sd_bus_error*) {
    auto& desktop = *static_cast<Desktop*>(self);
    const char *program = nullptr, *icon = nullptr, *title = nullptr, *text = nullptr;
    std::uint32_t replaced = 0;
    sd_bus_message_read(request, "susss", &program, &replaced, &icon, &title, &text);
    desktop.asked_.push_back(fmt::format("{} {}: {}: {}", program, replaced, title, text));
    return sd_bus_reply_method_return(request, "u", replaced != 0 ? replaced : ++desktop.last_);
  }
  static int close(sd_bus_message* request, void* self, sd_bus_error*) {
    std::uint32_t number = 0;
    sd_bus_message_read(request, "u", &number);
    static_cast<Desktop*>(self)->asked_.push_back(fmt::format("close {}", number));
    return sd_bus_reply_method_return(request, "");
  }

  const std::string capability_;
  sd_bus* bus_ = nullptr;
  std::uint32_t last_ = 40;
  std::vector<std::string> asked_;
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
