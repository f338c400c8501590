#include "service/edits/send_failure.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"

namespace vondle {
namespace {

Error behind(std::string_view domain, std::int64_t code, Error cause) {
  return Error(domain, code).withUnderlying(std::move(cause));
}

TEST(SendFailure, TellsWhatTheExtensionsErrorsMean) {
  const Error unreachable(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE);
  const struct {
    Error error;
    SendFailure failure;
  } CASES[] = {
      {{API_ERROR_DOMAIN, 409}, SendFailure::clash},
      {behind(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, {API_ERROR_DOMAIN, 409}), SendFailure::clash},
      {behind(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, {"VondleTransferError", 409}), SendFailure::clash},
      {{API_ERROR_DOMAIN, 404}, SendFailure::noSuchItem},
      {{API_ERROR_DOMAIN, 410}, SendFailure::noSuchItem},
      {{FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}, SendFailure::noSuchItem},
      {behind(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, {API_ERROR_DOMAIN, 404}), SendFailure::noSuchItem},
      {unreachable, SendFailure::outOfReach},
      {{FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED}, SendFailure::outOfReach},
      {{API_ERROR_DOMAIN, 401}, SendFailure::outOfReach},
      {{API_ERROR_DOMAIN, 503}, SendFailure::outOfReach},
      {{API_ERROR_DOMAIN, API_NOT_CONFIGURED}, SendFailure::outOfReach},
      {{URL_ERROR_DOMAIN, URL_TIMED_OUT}, SendFailure::outOfReach},
      {{URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST}, SendFailure::outOfReach},
      {behind(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, {URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST}),
       SendFailure::outOfReach},
      {{URL_ERROR_DOMAIN, URL_CANCELLED}, SendFailure::cancelled},
      {{COCOA_ERROR_DOMAIN, USER_CANCELLED}, SendFailure::cancelled},
      {{FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA}, SendFailure::refused},
      {{API_ERROR_DOMAIN, 400}, SendFailure::refused},
      {{API_ERROR_DOMAIN, 403}, SendFailure::refused},
      {{API_ERROR_DOMAIN, 500}, SendFailure::refused},
      {{API_ERROR_DOMAIN, 507}, SendFailure::refused},
      {behind(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, {API_ERROR_DOMAIN, 500}), SendFailure::refused},
      {behind(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, {POSIX_ERROR_DOMAIN, EIO}), SendFailure::refused},
      {behind(COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE, {"VondleTransferError", 404}), SendFailure::refused},
      {{"VondleTransferError", 404}, SendFailure::refused},
      {{URL_ERROR_DOMAIN, URL_FILE_DOES_NOT_EXIST}, SendFailure::refused},
      {{COCOA_ERROR_DOMAIN, FEATURE_UNSUPPORTED}, SendFailure::refused},
  };
  for (const auto& each : CASES) {
    EXPECT_EQ(sendFailureOf(each.error), each.failure) << each.error.localizedDescription();
  }
}

}  // namespace
}  // namespace vondle
