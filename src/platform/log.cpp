#include "platform/log.h"

#include <atomic>
#include <cstdio>

#include <fmt/format.h>

#include "platform/visible_text.h"

namespace vondle {
namespace {

std::atomic<LogSink*> currentSink = nullptr;

}  // namespace

LogSink* setLogSink(LogSink* sink) {
  return currentSink.exchange(sink);
}

std::string formatLog(std::string_view format, std::span<const LogArgument> arguments) {
  std::string out;
  std::size_t next = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') {
      out += format[i];
      continue;
    }
    const std::string_view rest = format.substr(i + 1);
    const auto conversion = log_detail::conversionAt(rest);
    i += conversion.length;
    if (conversion.letter == '%') {
      out += '%';
    } else if (const auto* text = std::get_if<std::string_view>(&arguments[next])) {
      out += *text;
      ++next;
    } else if (const auto* whole = std::get_if<std::int64_t>(&arguments[next])) {
      out += fmt::format("{}", *whole);
      ++next;
    } else {
      out += fmt::format("{:.{}f}", std::get<double>(arguments[next]), rest[1] - '0');
      ++next;
    }
  }
  return out;
}

void Log::writeFormatted(LogLevel level, std::string_view format, std::span<const LogArgument> arguments) const {
  const std::string message = formatLog(format, arguments);
  if (LogSink* sink = currentSink.load()) {
    sink->write(level, subsystem_, category_, message);
  } else {
    std::fprintf(stderr, "%s\n", visibleText(message).c_str());
  }
}

}  // namespace vondle
