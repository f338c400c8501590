#pragma once

#include <array>
#include <string>

#include "platform/log.h"

namespace vondle {

// Log lines as journal entries with MESSAGE (made safe to show by visibleText), PRIORITY, SUBSYSTEM and CATEGORY:
//   journalctl --user SUBSYSTEM=com.ferrow.vondle.fileprovider
// Without a running journal, lines are lost.
class JournalLog final : public LogSink {
 public:
  // Whether this process's stderr leads to the journal, as it does under systemd: then entries with fields are better.
  static bool isConnectedToStderr();

  // An entry's fields as the journal takes them, NAME=value.
  static std::array<std::string, 4> fields(LogLevel level, std::string_view subsystem, std::string_view category,
                                           std::string_view message);

  void write(LogLevel level, std::string_view subsystem, std::string_view category, std::string_view message) override;
};

}  // namespace vondle
