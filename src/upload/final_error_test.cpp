#include "upload/final_error.h"

#include <gtest/gtest.h>

#include "api/api_error.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

TEST(FinalError, IsACancellation) {
  EXPECT_TRUE(isFinal({URL_ERROR_DOMAIN, URL_CANCELLED}));
  EXPECT_TRUE(isFinal({COCOA_ERROR_DOMAIN, USER_CANCELLED}));
}

TEST(FinalError, IsAMissingConfiguration) {
  EXPECT_TRUE(isFinal(APIError::notConfigured()));
}

TEST(FinalError, IsAnAnswerOfTheAPIThatTryingAgainDoesNotChange) {
  for (const int status : {401, 403, 404, 507}) EXPECT_TRUE(isFinal(APIError::badResponse(status))) << status;
}

TEST(FinalError, IsNoOtherAnswerOfTheAPI) {
  for (const int status : {0, 200, 204, 302, 400, 402, 405, 408, 409, 410, 413, 429, 500, 502, 503, 504, 999, 3072})
    EXPECT_FALSE(isFinal(APIError::badResponse(status))) << status;
  EXPECT_FALSE(isFinal(APIError::malformed()));
}

TEST(FinalError, IsNothingThatTheStoreAnswers) {
  for (const int status : {0, 401, 403, 404, 410, 507}) EXPECT_FALSE(isFinal(TransferError::http(status))) << status;
  EXPECT_FALSE(isFinal(TransferError::noResponse()));
}

TEST(FinalError, IsNoTransportOrFileError) {
  EXPECT_FALSE(isFinal({URL_ERROR_DOMAIN, URL_TIMED_OUT}));
  EXPECT_FALSE(isFinal({URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST}));
  EXPECT_FALSE(isFinal({URL_ERROR_DOMAIN, USER_CANCELLED}));
  EXPECT_FALSE(isFinal({COCOA_ERROR_DOMAIN, URL_CANCELLED}));
  EXPECT_FALSE(isFinal({COCOA_ERROR_DOMAIN, 404}));
  EXPECT_FALSE(isFinal({POSIX_ERROR_DOMAIN, 5}));
}

}  // namespace
}  // namespace vondle
