#include "api/provider_error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "fileprovider/error_codes.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

TEST(ProviderError, PassesTheServicesErrorsAndCancellationUnchanged) {
  const Error cause(URL_ERROR_DOMAIN, URL_TIMED_OUT, "late");
  for (const Error& error : {Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM, "gone"),
                             Error(FILE_PROVIDER_ERROR_DOMAIN, 12345).withUnderlying(cause),
                             Error(COCOA_ERROR_DOMAIN, USER_CANCELLED, "stopped")}) {
    const Error result = providerError(error, "a.txt");
    EXPECT_EQ(result, error);
    EXPECT_EQ(result.underlying, error.underlying);
  }
}

TEST(ProviderError, TranslatesEveryOtherErrorAndKeepsItUnderneath) {
  const std::string couldNotReach = "Vondle couldn't reach its server to download “a.txt”.";
  const auto missing = [](int status) {
    return "“a.txt” couldn't be downloaded from Vondle storage (HTTP " + std::to_string(status) +
           "): the file is missing there, or access to it was refused.";
  };
  const auto answered = [](int status) {
    return "Vondle's server answered HTTP " + std::to_string(status) + " for “a.txt”.";
  };
  const auto couldNot = [](const Error& error) {
    return "Vondle couldn't download “a.txt”: " + error.localizedDescription();
  };
  const Error badResponse500 = APIError::badResponse(500);
  const Error notConfigured = APIError::notConfigured();
  const Error malformed = APIError::malformed();
  const Error noResponse = TransferError::noResponse();
  const Error noRoom(POSIX_ERROR_DOMAIN, 28, "can't write /tmp/x: No space left on device");
  const Error otherCocoa(COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, "unreadable");
  const struct {
    Error error;
    Error expected;
  } cases[] = {
      {{URL_ERROR_DOMAIN, URL_CANCELLED, "cancelled"}, {COCOA_ERROR_DOMAIN, USER_CANCELLED}},
      {{URL_ERROR_DOMAIN, URL_TIMED_OUT, "late"}, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, couldNotReach}},
      {{URL_ERROR_DOMAIN, URL_CANNOT_FIND_HOST}, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, couldNotReach}},
      {APIError::badResponse(507),
       {FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA,
        "Vondle is full. “a.txt” will upload once there is room; open the Vondle menu to get more space."}},
      {TransferError::http(401),
       {FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED, "Vondle needs to be signed in again to download “a.txt”."}},
      {TransferError::http(403), {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE, missing(403)}},
      {TransferError::http(404), {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE, missing(404)}},
      {TransferError::http(410), {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE, missing(410)}},
      {TransferError::http(507), {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, answered(507)}},
      {TransferError::http(0), {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, answered(0)}},
      {TransferError::http(400), {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, answered(400)}},
      {badResponse500, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, couldNot(badResponse500)}},
      {APIError::badResponse(401),
       {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, couldNot(APIError::badResponse(401))}},
      {notConfigured, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, couldNot(notConfigured)}},
      {malformed, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, couldNot(malformed)}},
      {noResponse, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle couldn't download “a.txt”: no response"}},
      {noRoom,
       {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE,
        "Vondle couldn't download “a.txt”: can't write /tmp/x: No space left on device"}},
      {otherCocoa, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle couldn't download “a.txt”: unreadable"}},
  };
  for (const auto& c : cases) {
    const Error result = providerError(c.error, "a.txt");
    EXPECT_EQ(result, c.expected) << c.error.localizedDescription() << " gave " << result.localizedDescription();
    ASSERT_TRUE(result.underlying) << c.error.localizedDescription();
    EXPECT_EQ(*result.underlying, c.error);
  }
}

}  // namespace
}  // namespace vondle
