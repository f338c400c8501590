#include "storage/crypto.h"

#include <set>

#include <gtest/gtest.h>

namespace vondle::storage {
namespace {

TEST(CryptoTest, HashesAreTheKnownOnes) {
  EXPECT_EQ(hexadecimal(sha256("")), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hexadecimal(sha256("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hexadecimal(hmacSha256("Jefe", "what do ya want for nothing?")),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(CryptoTest, PiecesHashLikeTheWhole) {
  Sha256 hasher;
  hasher.add("a");
  hasher.add("");
  hasher.add("bc");
  EXPECT_EQ(hasher.finish(), sha256("abc"));
}

TEST(CryptoTest, ComparingSeesEveryDifference) {
  EXPECT_TRUE(equalInConstantTime("", ""));
  EXPECT_TRUE(equalInConstantTime("abc", "abc"));
  EXPECT_FALSE(equalInConstantTime("abc", "abd"));
  EXPECT_FALSE(equalInConstantTime("abc", "ab"));
}

TEST(CryptoTest, RandomNamesAreHexadecimalAndDiffer) {
  std::set<std::string> names;
  for (int i = 0; i < 100; ++i) names.insert(randomName());
  EXPECT_EQ(names.size(), 100U);
  for (const auto& name : names) {
    EXPECT_EQ(name.size(), 32U);
    EXPECT_EQ(name.find_first_not_of("0123456789abcdef"), std::string::npos);
  }
}

}  // namespace
}  // namespace vondle::storage
