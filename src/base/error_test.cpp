#include "base/error.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ErrorTest, DescribesItselfByDomainAndCodeWhenItHasNoText) {
  EXPECT_EQ(Error(URL_ERROR_DOMAIN, -1001).localizedDescription(), "NSURLErrorDomain error -1001");
  EXPECT_EQ(Error(URL_ERROR_DOMAIN, -1001, "too slow").localizedDescription(), "too slow");
}

TEST(ErrorTest, KeepsTheErrorBehindItAndComparesWithoutIt) {
  const Error cause(URL_ERROR_DOMAIN, URL_TIMED_OUT, "slow");
  const Error plain(COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE, "gone");
  const Error wrapped = plain.withUnderlying(cause);
  ASSERT_TRUE(wrapped.underlying);
  EXPECT_EQ(*wrapped.underlying, cause);
  EXPECT_EQ(wrapped, plain);
  EXPECT_FALSE(plain.underlying);
}

TEST(ErrorTest, SaysWhatFailedAndWhyForErrnoValues) {
  const Error error = Error::posix(ENOENT, "open a.txt");
  EXPECT_TRUE(error.is(POSIX_ERROR_DOMAIN, ENOENT));
  EXPECT_EQ(error.description, "open a.txt: No such file or directory");
}

}  // namespace
}  // namespace vondle
