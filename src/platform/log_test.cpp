#include "platform/log.h"

#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/captured_log.h"

namespace vondle {
namespace {

using testing::ElementsAre;

constexpr Log LOG("com.example.test", "unit");

struct FormatCase {
  std::string_view format;
  std::vector<LogArgument> arguments;
  std::string_view text;
};

class LogFormatting : public testing::TestWithParam<FormatCase> {};

TEST_P(LogFormatting, PutsTheArgumentsInTheirPlaces) {
  EXPECT_EQ(formatLog(GetParam().format, GetParam().arguments), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Conversions, LogFormatting,
    testing::Values(
        FormatCase{"", {}, ""}, FormatCase{"nothing", {}, "nothing"}, FormatCase{"%{public}@", {"text"}, "text"},
        FormatCase{"a %{public}@%{public}@.", {"", "b%d"}, "a b%d."}, FormatCase{"%d", {std::int64_t{-7}}, "-7"},
        FormatCase{"%lld bytes", {std::int64_t{1} << 62}, "4611686018427387904 bytes"},
        FormatCase{"%d %d",
                   {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()},
                   "-9223372036854775808 9223372036854775807"},
        FormatCase{"%.0fx%.0f", {128.0, 63.5}, "128x64"}, FormatCase{"%.0f s", {0.0}, "0 s"},
        FormatCase{"%.2fs", {1.005}, "1.00s"}, FormatCase{"%.2f", {-12.345678}, "-12.35"},
        FormatCase{"%.9f", {0.5}, "0.500000000"}, FormatCase{"%.2f", {std::nan("")}, "nan"},
        FormatCase{"%.0f", {std::numeric_limits<double>::infinity()}, "inf"}, FormatCase{"100%%", {}, "100%"},
        FormatCase{"%%d %d%%", {std::int64_t{5}}, "%d 5%"}, FormatCase{"%%%%", {}, "%%"},
        FormatCase{"yield: %{public}@ %d background transfer(s) %{public}@",
                   {"suspended", std::int64_t{2}, "for a waiting user"},
                   "yield: suspended 2 background transfer(s) for a waiting user"}));

TEST(Log, PassesEveryKindOfArgumentOn) {
  CapturedLog captured;
  const std::string text = "text";
  const std::size_t size = 3;
  const unsigned short small = 65535;
  LOG.log("%{public}@ %{public}@ %{public}@ %d %d %lld %d %.2f %.0f", text, std::string_view("view"), "literal", 1,
          small, std::int64_t{-2}, size, 0.25, 2.0F);
  EXPECT_THAT(captured.messages(), ElementsAre("text view literal 1 65535 -2 3 0.25 2"));
}

TEST(Log, NamesItsSourceAndLevel) {
  CapturedLog captured;
  LOG.debug("d");
  LOG.info("i %d", 1);
  LOG.log("s");
  LOG.error("e %{public}@", "x\n");
  using Line = CapturedLog::Line;
  EXPECT_THAT(captured.lines(), ElementsAre(Line{LogLevel::debug, "com.example.test", "unit", "d"},
                                            Line{LogLevel::info, "com.example.test", "unit", "i 1"},
                                            Line{LogLevel::standard, "com.example.test", "unit", "s"},
                                            Line{LogLevel::error, "com.example.test", "unit", "e x\n"}));
  EXPECT_THAT(captured.messages(LogLevel::info), ElementsAre("i 1"));
}

TEST(Log, GoesBackToThePreviousSinkAfterACapture) {
  CapturedLog outer;
  {
    CapturedLog inner;
    LOG.log("inner");
    EXPECT_THAT(inner.messages(), ElementsAre("inner"));
  }
  LOG.log("outer");
  EXPECT_THAT(outer.messages(), ElementsAre("outer"));
}

TEST(Log, ShowsForeignBytesSafelyOnStderrWhenThereIsNoSink) {
  LogSink* const before = setLogSink(nullptr);
  testing::internal::CaptureStderr();
  LOG.error("name %{public}@", "a\x1B[2Jb\nc");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "name a\\x1b[2Jb\\nc\n");
  setLogSink(before);
}

// What the compiler refuses: LogFormat asks formatFits of its literal and its arguments' kinds.
struct RefusedCase {
  std::string_view format;
  std::string_view kinds;
};

class RefusedLogFormat : public testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedLogFormat, DoesNotFit) {
  EXPECT_FALSE(log_detail::formatFits(GetParam().format, GetParam().kinds));
}

INSTANTIATE_TEST_SUITE_P(Formats, RefusedLogFormat,
                         testing::Values(RefusedCase{"%d", "@"}, RefusedCase{"%d", "f"}, RefusedCase{"%lld", "@"},
                                         RefusedCase{"%{public}@", "d"}, RefusedCase{"%.2f", "d"},
                                         RefusedCase{"%{public}@", "?"}, RefusedCase{"%d", "?"}, RefusedCase{"%d", ""},
                                         RefusedCase{"%d %d", "d"}, RefusedCase{"none", "d"}, RefusedCase{"%d", "dd"},
                                         RefusedCase{"%s", "@"}, RefusedCase{"%@", "@"},
                                         RefusedCase{"%{private}@", "@"}, RefusedCase{"%{public}", "@"},
                                         RefusedCase{"%f", "f"}, RefusedCase{"%.f", "f"}, RefusedCase{"%.2", "f"},
                                         RefusedCase{"%ld", "d"}, RefusedCase{"%u", "d"}, RefusedCase{"100 %", ""},
                                         RefusedCase{"%%%", ""}, RefusedCase{"%%", "d"}));

template <class T>
constexpr char KIND = log_detail::conversionFor<T>();
static_assert(KIND<std::string> == '@' && KIND<std::string_view> == '@' && KIND<const char*> == '@' &&
              KIND<char[4]> == '@');
static_assert(KIND<int> == 'd' && KIND<std::int64_t> == 'd' && KIND<std::size_t> == 'd' && KIND<std::uint8_t> == 'd');
static_assert(KIND<double> == 'f' && KIND<float> == 'f');
static_assert(KIND<bool> == '?' && KIND<char> == '?' && KIND<int*> == '?' && KIND<std::nullptr_t> == '?');

}  // namespace
}  // namespace vondle
