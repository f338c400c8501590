#include "platform/linux/url_error_mapping.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(URLErrorMapping, GivesEachFailureItsCode) {
  const struct {
    CURLcode from;
    std::int64_t to;
  } CASES[] = {
      {CURLE_URL_MALFORMAT, -1000},
      {CURLE_OPERATION_TIMEDOUT, -1001},
      {CURLE_COULDNT_RESOLVE_HOST, -1003},
      {CURLE_COULDNT_RESOLVE_PROXY, -1003},
      {CURLE_COULDNT_CONNECT, -1004},
      {CURLE_PROXY, -1004},
      {CURLE_PARTIAL_FILE, -1005},
      {CURLE_GOT_NOTHING, -1005},
      {CURLE_SEND_ERROR, -1005},
      {CURLE_RECV_ERROR, -1005},
      {CURLE_SEND_FAIL_REWIND, -1005},
      {CURLE_UNSUPPORTED_PROTOCOL, -1011},
      {CURLE_WEIRD_SERVER_REPLY, -1011},
      {CURLE_TOO_MANY_REDIRECTS, -1007},
      {CURLE_SSL_CONNECT_ERROR, -1200},
      {CURLE_SSL_CERTPROBLEM, -1200},
      {CURLE_SSL_CACERT_BADFILE, -1200},
      {CURLE_SSL_ISSUER_ERROR, -1202},
      {CURLE_PEER_FAILED_VERIFICATION, -1202},
      {CURLE_OUT_OF_MEMORY, -1},
  };
  for (const auto& c : CASES) {
    const Error error = urlError(c.from, {});
    EXPECT_TRUE(error.is(URL_ERROR_DOMAIN, c.to)) << c.from << " became " << error.code;
    EXPECT_EQ(error.description, curl_easy_strerror(c.from));
  }
}

TEST(URLErrorMapping, TheDetailIsTheDescription) {
  EXPECT_EQ(urlError(CURLE_COULDNT_CONNECT, "refused by host").description, "refused by host");
}

}  // namespace
}  // namespace vondle
