#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

namespace vondle {

// A desktop's part of the notifications on the session bus: answers, and tells what it was asked for as one line of
// text each, "PROGRAM REPLACED-NUMBER: TITLE: TEXT" or "close NUMBER". On the thread that made it.
class RecordingDesktop {
 public:
  using Heard = std::function<void(std::string)>;
  // capability: the only one that it has.
  RecordingDesktop(std::string capability, Heard heard);
  ~RecordingDesktop() { sd_bus_flush_close_unref(bus_); }
  RecordingDesktop(const RecordingDesktop&) = delete;
  RecordingDesktop& operator=(const RecordingDesktop&) = delete;

  // False: the bus is not there, or another has the name.
  [[nodiscard]] bool isReady() const { return isReady_; }
  // Answers what comes within a tenth of a second. False when the bus has gone.
  bool answerSome();

 private:
  static int capabilities(sd_bus_message* request, void* self, sd_bus_error*);
  static int notify(sd_bus_message* request, void* self, sd_bus_error*);
  static int close(sd_bus_message* request, void* self, sd_bus_error*);

  const std::string capability_;
  const Heard heard_;
  bool isReady_ = false;
  sd_bus* bus_ = nullptr;
  std::uint32_t last_ = 40;
};

}  // namespace vondle
