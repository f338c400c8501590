#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vondle {

// A length of time. Delays that are spoken of in seconds are written with seconds(): seconds(0.05).
using Duration = std::chrono::nanoseconds;
constexpr Duration seconds(double count) {
  return Duration(static_cast<std::int64_t>(count * 1e9));
}
constexpr double inSeconds(Duration duration) {
  return static_cast<double>(duration.count()) / 1e9;
}

// A moment of the monotonic clock: counts from an arbitrary start, never goes back. For delays and ages.
struct MonotonicTime {
  Duration sinceStart{0};
  friend auto operator<=>(const MonotonicTime&, const MonotonicTime&) = default;
  friend MonotonicTime operator+(MonotonicTime t, Duration d) { return {t.sinceStart + d}; }
  friend Duration operator-(MonotonicTime a, MonotonicTime b) { return a.sinceStart - b.sinceStart; }
};

// A moment of the wall clock: seconds since 1970-01-01 00:00:00 UTC, fractions included. For what is shown or stored.
struct Timestamp {
  double secondsSince1970 = 0;
  friend auto operator<=>(const Timestamp&, const Timestamp&) = default;
};

// Reads the ISO 8601 internet date-time form, 2024-05-01T10:20:30Z or with an offset such as +02:00.
// parseISO8601Fractional requires a fraction of a second, parseISO8601Plain refuses one; neither takes a leap second.
std::optional<Timestamp> parseISO8601Fractional(std::string_view text);
std::optional<Timestamp> parseISO8601Plain(std::string_view text);

// 2024-05-01T10:20:30.123Z, truncated to milliseconds.
std::string formatISO8601(Timestamp timestamp);

}  // namespace vondle
