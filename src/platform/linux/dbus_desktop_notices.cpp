#include "platform/linux/dbus_desktop_notices.h"

#include <cerrno>
#include <memory>
#include <utility>

#include <systemd/sd-bus.h>

#include "platform/markup_text.h"

namespace vondle {
namespace {

constexpr const char* NAME = "org.freedesktop.Notifications";
constexpr const char* PATH = "/org/freedesktop/Notifications";
constexpr std::uint64_t DEADLINE = 5'000'000;  // microseconds, of one call

struct Unref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, Unref>;

}  // namespace

// The session bus, as long as it answers. Where there is none, none is started.
class DBusDesktopNotices::Bus {
 public:
  void show(const std::string& tag, const Notice& notice) {
    if (!connect()) return;
    auto& number = numbers_[tag];
    const auto text = takesMarkup_ ? markupText(notice.text) : notice.text;
    const auto reply = call("Notify", [&](sd_bus_message* message) {
      return sd_bus_message_append(message, "susssasa{sv}i", "Vondle", number, "", notice.title.c_str(), text.c_str(),
                                   0, 0, -1);
    });
    if (reply) sd_bus_message_read(reply.get(), "u", &number);
  }

  void withdraw(const std::string& tag) {
    const auto number = numbers_.extract(tag);
    if (!number || !bus_) return;
    call("CloseNotification",
         [&](sd_bus_message* message) { return sd_bus_message_append(message, "u", number.mapped()); });
  }

 private:
  bool connect() {
    if (bus_) return true;
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) return false;
    bus_.reset(bus);
    sd_bus_set_method_call_timeout(bus, DEADLINE);
    const auto reply = call("GetCapabilities", [](sd_bus_message*) { return 0; });
    if (!reply) return false;
    takesMarkup_ = false;
    const char* capability = nullptr;
    sd_bus_message_enter_container(reply.get(), 'a', "s");
    while (sd_bus_message_read(reply.get(), "s", &capability) > 0)
      if (std::string_view(capability) == "body-markup") takesMarkup_ = true;
    return true;
  }

  // What cannot be called is tried afresh with the next notice.
  template <class Append>
  Message call(const char* method, const Append& append) {
    sd_bus_message* made = nullptr;
    sd_bus_message* answered = nullptr;
    int result = sd_bus_message_new_method_call(bus_.get(), &made, NAME, PATH, NAME, method);
    const Message request(made);
    if (result >= 0) result = append(request.get());
    if (result >= 0) result = sd_bus_call(bus_.get(), request.get(), 0, nullptr, &answered);
    Message reply(answered);
    if (result >= 0) return reply;
    bus_.reset();
    numbers_.clear();
    return nullptr;
  }

  std::unique_ptr<sd_bus, Unref> bus_;
  bool takesMarkup_ = false;
  std::map<std::string, std::uint32_t> numbers_;  // by tag
};

DBusDesktopNotices::DBusDesktopNotices() : thread_([this] { run(); }) {}

DBusDesktopNotices::~DBusDesktopNotices() {
  {
    MutexLock hold(lock_);
    isStopped_ = true;
    woken_.notify_all();
  }
  thread_.join();
}

void DBusDesktopNotices::show(std::string_view tag, std::string_view title, std::string_view text) {
  leave(tag, Notice{.title = std::string(title), .text = std::string(text)});
}

void DBusDesktopNotices::withdraw(std::string_view tag) {
  leave(tag, std::nullopt);
}

void DBusDesktopNotices::leave(std::string_view tag, std::optional<Notice> notice) {
  MutexLock hold(lock_);
  waiting_[std::string(tag)] = std::move(notice);
  woken_.notify_all();
}

void DBusDesktopNotices::run() {
  Bus bus;
  MutexLock hold(lock_);
  while (true) {
    while (!isStopped_ && waiting_.empty()) woken_.wait(lock_);
    if (isStopped_) return;
    const auto next = waiting_.extract(waiting_.begin());
    hold.unlock();
    if (next.mapped())
      bus.show(next.key(), *next.mapped());
    else
      bus.withdraw(next.key());
    hold.lock();
  }
}

}  // namespace vondle
