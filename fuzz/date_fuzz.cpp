#include <cmath>

#include "api/entry.h"
#include "base/time.h"
#include "fuzzing.h"

namespace vondle {

void fuzz(std::string_view bytes) {
  const auto fractional = parseISO8601Fractional(bytes);
  const auto plain = parseISO8601Plain(bytes);
  REQUIRE(!fractional || !plain);
  const auto date = parseDate(bytes);
  if (!fractional && !plain) {
    REQUIRE(date == Timestamp{});
    return;
  }
  REQUIRE(date == (fractional ? *fractional : *plain));
  // Four digits of a year, and less than a day of offset.
  constexpr double DAY = 86'400;
  REQUIRE(date.secondsSince1970 > -62'167'219'200 - DAY && date.secondsSince1970 < 253'402'300'800 + DAY);
  if (plain) REQUIRE(plain->secondsSince1970 == std::trunc(plain->secondsSince1970));

  const bool hasFourDigitYear = date.secondsSince1970 >= -62'167'219'200 && date.secondsSince1970 < 253'402'300'800;
  if (!hasFourDigitYear) return;
  const auto again = parseISO8601Fractional(formatISO8601(date));
  REQUIRE(again.has_value());
  REQUIRE(std::abs(again->secondsSince1970 - date.secondsSince1970) <= 0.0011);
  const auto settled = parseISO8601Fractional(formatISO8601(*again));
  REQUIRE(settled && std::abs(settled->secondsSince1970 - again->secondsSince1970) <= 0.0011);
}

}  // namespace vondle
