#include "storage/signed_url.h"

#include <gtest/gtest.h>

namespace vondle::storage {
namespace {

constexpr std::int64_t NOW = 1000;
constexpr const char* PATH = "/vondle/contents/abc";

// The values of "expires" and "signature" of a signed path.
std::pair<std::string, std::string> partsOf(const std::string& url) {
  const auto expires = url.find("?expires=") + 9;
  const auto signature = url.find("&signature=");
  return {url.substr(expires, signature - expires), url.substr(signature + 11)};
}

TEST(SignedUrlTest, AnAddressIsGoodForItsMethodAndPathUntilItExpires) {
  const SignedUrl signer("secret", 60);
  const auto url = signer.sign("GET", PATH, NOW);
  EXPECT_TRUE(url.starts_with(std::string(PATH) + "?expires=1060&signature="));
  const auto [expires, signature] = partsOf(url);
  EXPECT_TRUE(signer.isValid("GET", PATH, expires, signature, NOW));
  EXPECT_TRUE(signer.isValid("HEAD", PATH, expires, signature, NOW + 59));
  EXPECT_FALSE(signer.isValid("GET", PATH, expires, signature, NOW + 60));
  EXPECT_FALSE(signer.isValid("PUT", PATH, expires, signature, NOW));
  EXPECT_FALSE(signer.isValid("GET", "/vondle/contents/abd", expires, signature, NOW));
  EXPECT_FALSE(SignedUrl("another", 60).isValid("GET", PATH, expires, signature, NOW));
}

TEST(SignedUrlTest, NothingOfTheAddressCanBeChanged) {
  const SignedUrl signer("secret", 60);
  const auto [expires, signature] = partsOf(signer.sign("GET", PATH, NOW));
  for (const char* other : {"1061", "9999999999", "", "x", "1060 ", "+1060", "01060"})
    EXPECT_FALSE(signer.isValid("GET", PATH, other, signature, NOW)) << other;
  auto wrong = signature;
  wrong.back() = wrong.back() == '0' ? '1' : '0';
  for (const auto& other : {wrong, std::string(), signature.substr(1), signature + "0"})
    EXPECT_FALSE(signer.isValid("GET", PATH, expires, other, NOW)) << other;
}

TEST(SignedUrlTest, ASignatureForSendingIsNotOneForReading) {
  const SignedUrl signer("secret", 60);
  const auto [expires, signature] = partsOf(signer.sign("PUT", PATH, NOW));
  EXPECT_TRUE(signer.isValid("PUT", PATH, expires, signature, NOW));
  EXPECT_FALSE(signer.isValid("GET", PATH, expires, signature, NOW));
  EXPECT_FALSE(signer.isValid("HEAD", PATH, expires, signature, NOW));
}

}  // namespace
}  // namespace vondle::storage
