#include "platform/linux/journal_log.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#define SD_JOURNAL_SUPPRESS_LOCATION  // the place in this file would say nothing
#include <cstdlib>
#include <utility>

#include <fmt/format.h>
#include <systemd/sd-journal.h>

#include "platform/visible_text.h"

namespace vondle {
namespace {

int priorityOf(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return LOG_DEBUG;
    case LogLevel::info:
      return LOG_INFO;
    case LogLevel::standard:
      return LOG_NOTICE;
    case LogLevel::error:
      return LOG_ERR;
  }
  std::unreachable();
}

}  // namespace

bool JournalLog::isConnectedToStderr() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat found;
  return stream && ::fstat(STDERR_FILENO, &found) == 0 && fmt::format("{}:{}", found.st_dev, found.st_ino) == stream;
}

std::array<std::string, 4> JournalLog::fields(LogLevel level, std::string_view subsystem, std::string_view category,
                                              std::string_view message) {
  return {fmt::format("MESSAGE={}", visibleText(message)), fmt::format("PRIORITY={}", priorityOf(level)),
          fmt::format("SUBSYSTEM={}", subsystem), fmt::format("CATEGORY={}", category)};
}

void JournalLog::write(LogLevel level, std::string_view subsystem, std::string_view category,
                       std::string_view message) {
  auto entry = fields(level, subsystem, category, message);
  std::array<iovec, 4> parts;
  for (std::size_t i = 0; i < entry.size(); ++i) parts[i] = {entry[i].data(), entry[i].size()};
  sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
}

}  // namespace vondle
