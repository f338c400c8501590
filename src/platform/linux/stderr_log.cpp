#include "platform/linux/stderr_log.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "platform/visible_text.h"

namespace vondle {
namespace {

std::string_view nameOf(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::standard:
      return "notice";
    case LogLevel::error:
      return "error";
  }
  std::unreachable();
}

}  // namespace

void StderrLog::write(LogLevel level, std::string_view, std::string_view category, std::string_view message) {
  const std::string line =
      fmt::format("{} {} [{}] {}\n", formatISO8601(clock_.now()), nameOf(level), category, visibleText(message));
  std::string_view left = line;
  while (!left.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return;
    left.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace vondle
