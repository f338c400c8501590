#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace vondle {

enum class LogLevel { debug, info, standard, error };

// Where log lines go. Any thread. Messages may hold any bytes: the sink makes them safe to show.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(LogLevel level, std::string_view subsystem, std::string_view category,
                     std::string_view message) = 0;
};

// The sink of every Log of the process; null (the start): stderr. The sink must outlive its use. Returns the old one.
LogSink* setLogSink(LogSink* sink);

// A value for a conversion: %{public}@ takes a text, %d and %lld an integer, %f with a precision a floating number.
using LogArgument = std::variant<std::string_view, std::int64_t, double>;

namespace log_detail {

template <class T>
constexpr char conversionFor() {
  if constexpr (std::is_convertible_v<const T&, std::string_view>)
    return '@';
  else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, char>)
    return '?';
  else if constexpr (std::is_integral_v<T>)
    return 'd';
  else if constexpr (std::is_floating_point_v<T>)
    return 'f';
  else
    return '?';
}

// The conversion at the front of `rest` (after its percent sign): its letter, and how many characters it takes.
struct Conversion {
  char letter = '?';
  std::size_t length = 0;
};
constexpr Conversion conversionAt(std::string_view rest) {
  if (rest.starts_with("{public}@")) return {'@', 9};
  if (rest.starts_with("lld")) return {'d', 3};
  if (rest.starts_with("d")) return {'d', 1};
  if (rest.size() >= 3 && rest[0] == '.' && rest[1] >= '0' && rest[1] <= '9' && rest[2] == 'f') return {'f', 3};
  if (rest.starts_with("%")) return {'%', 1};
  return {};
}

// Whether a format asks for arguments of exactly these kinds (see conversionFor), in this order.
constexpr bool formatFits(std::string_view format, std::span<const char> kinds) {
  std::size_t used = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') continue;
    const auto conversion = conversionAt(format.substr(i + 1));
    if (conversion.length == 0) return false;
    i += conversion.length;
    if (conversion.letter == '%') continue;
    if (used == kinds.size() || kinds[used] != conversion.letter) return false;
    ++used;
  }
  return used == kinds.size();
}

inline void formatDoesNotFitItsArguments() {}  // not constexpr: reaching it stops the compiler

}  // namespace log_detail

// A literal printf-style format, checked against its arguments by the compiler: an unknown or unfinished conversion,
// too few or too many arguments, an argument of another kind (bool and char are of no kind) and a format that is not a
// constant do not compile.
template <class... Args>
class LogFormat {
 public:
  consteval LogFormat(const char* text) : text_(text) {  // NOLINT(google-explicit-constructor): stands for the literal
    constexpr std::array<char, sizeof...(Args)> kinds = {log_detail::conversionFor<Args>()...};
    if (!log_detail::formatFits(text_, kinds)) log_detail::formatDoesNotFitItsArguments();
  }

  [[nodiscard]] constexpr std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};

std::string formatLog(std::string_view format, std::span<const LogArgument> arguments);

// One named source of log lines; any thread.
class Log {
 public:
  constexpr Log(std::string_view subsystem, std::string_view category) : subsystem_(subsystem), category_(category) {}

  template <class... Args>
  void debug(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const {
    write(LogLevel::debug, format.text(), args...);
  }
  template <class... Args>
  void info(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const {
    write(LogLevel::info, format.text(), args...);
  }
  // The default level.
  template <class... Args>
  void log(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const {
    write(LogLevel::standard, format.text(), args...);
  }
  template <class... Args>
  void error(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const {
    write(LogLevel::error, format.text(), args...);
  }

 private:
  template <class T>
  static LogArgument argument(const T& value) {
    if constexpr (std::is_convertible_v<const T&, std::string_view>)
      return std::string_view(value);
    else if constexpr (std::is_integral_v<T>)
      return static_cast<std::int64_t>(value);
    else
      return static_cast<double>(value);
  }

  template <class... Args>
  void write(LogLevel level, std::string_view format, const Args&... args) const {
    const std::array<LogArgument, sizeof...(Args)> arguments = {argument(args)...};
    writeFormatted(level, format, arguments);
  }
  void writeFormatted(LogLevel level, std::string_view format, std::span<const LogArgument> arguments) const;

  std::string_view subsystem_;
  std::string_view category_;
};

}  // namespace vondle
