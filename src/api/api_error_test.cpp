#include "api/api_error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::Eq;
using testing::Optional;

TEST(APIError, SurvivesTheWayThroughAnError) {
  for (const APIError& error : {APIError::badResponse(0), APIError::badResponse(200), APIError::badResponse(507),
                                APIError::notConfigured(), APIError::malformed()}) {
    const Error travelling = error;
    EXPECT_TRUE(travelling.isIn(APIError::DOMAIN));
    EXPECT_EQ(travelling.description, "");
    EXPECT_THAT(APIError::from(travelling), Optional(Eq(error)));
  }
}

TEST(APIError, CarriesTheStatusAsTheCode) {
  EXPECT_EQ(Error(APIError::badResponse(507)).code, 507);
}

TEST(APIError, IsNotReadFromAnErrorOfAnotherDomain) {
  EXPECT_FALSE(APIError::from(Error(URL_ERROR_DOMAIN, URL_TIMED_OUT)));
  EXPECT_FALSE(APIError::from(Error(COCOA_ERROR_DOMAIN, 507)));
}

}  // namespace
}  // namespace vondle
