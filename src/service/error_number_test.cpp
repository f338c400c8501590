#include "service/error_number.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"

namespace vondle {
namespace {

TEST(ErrorNumberTest, EachErrorHasTheNumberThatProgramsUnderstand) {
  const Error unreachable(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE);
  const std::vector<std::pair<Error, int>> cases = {
      {{FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED}, EACCES},
      {{FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA}, EDQUOT},
      {unreachable, EHOSTUNREACH},
      {unreachable.withUnderlying({URL_ERROR_DOMAIN, URL_TIMED_OUT}), ETIMEDOUT},
      {unreachable.withUnderlying({URL_ERROR_DOMAIN, URL_CANNOT_FIND_HOST}), EHOSTUNREACH},
      {unreachable.withUnderlying({POSIX_ERROR_DOMAIN, ENOSPC}), ENOSPC},
      {unreachable.withUnderlying({POSIX_ERROR_DOMAIN, 0}), EIO},
      {{FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}, ENOENT},
      {{FILE_PROVIDER_ERROR_DOMAIN, -1}, EIO},
      {{COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE}, ENOENT},
      {{COCOA_ERROR_DOMAIN, USER_CANCELLED}, EINTR},
      {{COCOA_ERROR_DOMAIN, FEATURE_UNSUPPORTED}, EOPNOTSUPP},
      {{COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN}, EIO},
      {{URL_ERROR_DOMAIN, URL_CANCELLED}, EINTR},
      {{URL_ERROR_DOMAIN, URL_TIMED_OUT}, ETIMEDOUT},
      {{URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST}, EHOSTUNREACH},
      {{URL_ERROR_DOMAIN, URL_SECURE_CONNECTION_FAILED}, EHOSTUNREACH},
      {{"VondleAPIError", -1}, EACCES},  // no address or key
      {{"VondleAPIError", -2}, EIO},     // a reply without sense
      {{"VondleAPIError", 0}, EIO},
      {{"VondleAPIError", 401}, EACCES},
      {{"VondleAPIError", 403}, EACCES},
      {{"VondleAPIError", 404}, ENOENT},
      {{"VondleAPIError", 410}, ENOENT},
      {{"VondleAPIError", 500}, EIO},
      {{"VondleAPIError", 507}, EDQUOT},
      {{POSIX_ERROR_DOMAIN, ENOSPC}, ENOSPC},
      {{POSIX_ERROR_DOMAIN, 0}, EIO},
      {{POSIX_ERROR_DOMAIN, -5}, EIO},
      {{"Somebody's", 404}, EIO},
  };
  for (const auto& [error, number] : cases) EXPECT_EQ(errorNumber(error), number) << error.localizedDescription();
}

}  // namespace
}  // namespace vondle
