#include "transfer/transfer_error.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(TransferError, HasItsDescriptionAndComesBackFromAnError) {
  const struct {
    TransferError error;
    const char* description;
  } CASES[] = {{TransferError::http(503), "HTTP 503"},
               {TransferError::http(0), "HTTP 0"},
               {TransferError::noResponse(), "no response"}};
  for (const auto& c : CASES) {
    const Error error = c.error;
    EXPECT_EQ(error.localizedDescription(), c.description);
    EXPECT_EQ(TransferError::from(error), c.error);
  }
}

TEST(TransferError, OtherErrorsAreNone) {
  EXPECT_EQ(TransferError::from(Error(URL_ERROR_DOMAIN, 404)), std::nullopt);
}

}  // namespace
}  // namespace vondle
