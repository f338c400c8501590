#include "base/time.h"

#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace vondle {
namespace {

// Reads exactly `count` digits at the front of `text` and takes them off.
std::optional<int> takeDigits(std::string_view& text, std::size_t count) {
  if (text.size() < count) return std::nullopt;
  int value = 0;
  for (char c : text.substr(0, count)) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  text.remove_prefix(count);
  return value;
}

bool take(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<double> takeFraction(std::string_view& text) {
  if (!take(text, '.')) return std::nullopt;
  double value = 0;
  double unit = 0.1;
  std::size_t count = 0;
  for (; count < text.size() && text[count] >= '0' && text[count] <= '9'; ++count, unit /= 10)
    value += (text[count] - '0') * unit;
  if (count == 0) return std::nullopt;
  text.remove_prefix(count);
  return value;
}

// Z or ±hh:mm: seconds east of UTC.
std::optional<int> takeOffset(std::string_view& text) {
  if (take(text, 'Z')) return 0;
  const int sign = text.starts_with('-') ? -1 : 1;
  if (!take(text, '+') && !take(text, '-')) return std::nullopt;
  const auto hours = takeDigits(text, 2);
  if (!take(text, ':')) return std::nullopt;
  const auto minutes = takeDigits(text, 2);
  if (!hours || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
  return sign * (*hours * 3600 + *minutes * 60);
}

std::optional<Timestamp> parseISO8601(std::string_view text, bool fractional) {
  const auto year = takeDigits(text, 4);
  if (!year || !take(text, '-')) return std::nullopt;
  const auto month = takeDigits(text, 2);
  if (!month || !take(text, '-')) return std::nullopt;
  const auto day = takeDigits(text, 2);
  if (!day || !take(text, 'T')) return std::nullopt;
  const auto hour = takeDigits(text, 2);
  if (!hour || !take(text, ':')) return std::nullopt;
  const auto minute = takeDigits(text, 2);
  if (!minute || !take(text, ':')) return std::nullopt;
  const auto second = takeDigits(text, 2);
  if (!second) return std::nullopt;
  const auto fraction = fractional ? takeFraction(text) : std::optional<double>(0.0);
  if (!fraction) return std::nullopt;
  const auto offset = takeOffset(text);
  if (!offset || !text.empty()) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(*month)),
                                         std::chrono::day(static_cast<unsigned>(*day))};
  if (!date.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
  const auto days = std::chrono::sys_days(date).time_since_epoch().count();
  const std::int64_t whole = static_cast<std::int64_t>(days) * 86400 + *hour * 3600 + *minute * 60 + *second - *offset;
  return Timestamp{static_cast<double>(whole) + *fraction};
}

}  // namespace

std::optional<Timestamp> parseISO8601Fractional(std::string_view text) {
  return parseISO8601(text, true);
}
std::optional<Timestamp> parseISO8601Plain(std::string_view text) {
  return parseISO8601(text, false);
}

std::string formatISO8601(Timestamp timestamp) {
  // Half a microsecond up, so that a value read from milliseconds prints the same milliseconds.
  const auto milliseconds = static_cast<std::int64_t>(std::floor(timestamp.secondsSince1970 * 1000 + 0.0005));
  const std::chrono::sys_time<std::chrono::milliseconds> moment{std::chrono::milliseconds(milliseconds)};
  const auto day = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss clock{moment - day};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), clock.hours().count(),
                     clock.minutes().count(), clock.seconds().count(), clock.subseconds().count());
}

}  // namespace vondle
