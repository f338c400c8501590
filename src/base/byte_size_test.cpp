#include "base/byte_size.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ByteSize, ReadsNumbersWithAndWithoutAUnit) {
  const struct {
    const char* text;
    std::int64_t bytes;
  } cases[] = {{"0", 0},
               {"512", 512},
               {"7 B", 7},
               {"1k", 1024},
               {"1 kB", 1024},
               {"20 GiB", 20 * GIBIBYTE},
               {"20GB", 20 * GIBIBYTE},
               {"700m", 700 * MEBIBYTE},
               {"1.5 gib", GIBIBYTE + GIBIBYTE / 2},
               {"2 T", 2048 * GIBIBYTE},
               {"1 PiB", std::int64_t{1} << 50},
               {"8191 PiB", std::int64_t{8191} << 50}};
  for (const auto& each : cases) EXPECT_EQ(parseByteSize(each.text), each.bytes) << each.text;
}

TEST(ByteSize, RefusesWhatIsNoSize) {
  for (const char* text :
       {"",      " ",      "GiB", "-1", "-1 GiB", "1e9",     "nan", "inf",  "1 iB",     "1 BB",
        "1 EiB", "1  GiB", " 1",  "1 ", "1 GiBs", "1,5 GiB", "ten", "0x10", "8192 PiB", "99999999999999999999"})
    EXPECT_EQ(parseByteSize(text), std::nullopt) << text;
}

}  // namespace
}  // namespace vondle
