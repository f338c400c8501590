#include "recording_desktop.h"

#include <fmt/format.h>

namespace vondle {

RecordingDesktop::RecordingDesktop(std::string capability, Heard heard)
    : capability_(std::move(capability)), heard_(std::move(heard)) {
  static const sd_bus_vtable METHODS[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("GetCapabilities", "", "as", capabilities, 0),
      SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", notify, 0),
      SD_BUS_METHOD("CloseNotification", "u", "", close, 0),
      SD_BUS_VTABLE_END,
  };
  isReady_ = sd_bus_open_user(&bus_) >= 0 &&
             sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                      METHODS, this) >= 0 &&
             sd_bus_request_name(bus_, "org.freedesktop.Notifications", 0) >= 0;
}

bool RecordingDesktop::answerSome() {
  int processed = sd_bus_process(bus_, nullptr);
  if (processed == 0 && sd_bus_wait(bus_, 100'000) >= 0) processed = sd_bus_process(bus_, nullptr);
  sd_bus_flush(bus_);
  return processed >= 0;
}

int RecordingDesktop::capabilities(sd_bus_message* request, void* self, sd_bus_error*) {
  return sd_bus_reply_method_return(request, "as", 1, static_cast<RecordingDesktop*>(self)->capability_.c_str());
}

int RecordingDesktop::notify(sd_bus_message* request, void* self, sd_bus_error*) {
  auto& desktop = *static_cast<RecordingDesktop*>(self);
  const char *program = nullptr, *icon = nullptr, *title = nullptr, *text = nullptr;
  std::uint32_t replaced = 0;
  sd_bus_message_read(request, "susss", &program, &replaced, &icon, &title, &text);
  desktop.heard_(fmt::format("{} {}: {}: {}", program, replaced, title, text));
  return sd_bus_reply_method_return(request, "u", replaced != 0 ? replaced : ++desktop.last_);
}

int RecordingDesktop::close(sd_bus_message* request, void* self, sd_bus_error*) {
  std::uint32_t number = 0;
  sd_bus_message_read(request, "u", &number);
  static_cast<RecordingDesktop*>(self)->heard_(fmt::format("close {}", number));
  return sd_bus_reply_method_return(request, "");
}

}  // namespace vondle
