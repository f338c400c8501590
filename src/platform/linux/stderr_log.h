#pragma once

#include "platform/clock.h"
#include "platform/log.h"

namespace vondle {

// Log lines on stderr, for people: "2024-05-01T10:20:30.123Z error [provider] text", made safe to show (visibleText),
// each written at once so that lines of several threads and processes do not mix. Lines that cannot be written are
// lost.
class StderrLog final : public LogSink {
 public:
  explicit StderrLog(const Clock& clock) : clock_(clock) {}

  void write(LogLevel level, std::string_view subsystem, std::string_view category, std::string_view message) override;

 private:
  const Clock& clock_;
};

}  // namespace vondle
