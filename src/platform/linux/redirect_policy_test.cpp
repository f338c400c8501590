#include "platform/linux/redirect_policy.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

const std::vector<URLHeader> SECRETS = {{"X-API-Key", "secret"}, {"Content-Type", "text/plain"}};

URLRequest request(std::string method, std::string url) {
  return {.url = std::move(url), .method = std::move(method), .headers = SECRETS, .body = "b"};
}

TEST(RedirectPolicy, FollowsWhatMayBeFollowed) {
  struct Case {
    const char* what;
    const char* method;
    const char* from;
    int status;
    const char* location;
    const char* toMethod;  // null: the answer stands
    const char* to = "";
    bool keepsKey = false;
    bool keepsBody = false;
  };
  const char* const PAGE = "https://a.test/dir/page?q=1";
  const Case CASES[] = {
      {"an absolute address", "GET", PAGE, 302, "https://a.test/x", "GET", "https://a.test/x", true, true},
      {"a path", "GET", PAGE, 301, "/x?y=z", "GET", "https://a.test/x?y=z", true, true},
      {"a relative path", "GET", PAGE, 307, "x", "GET", "https://a.test/dir/x", true, true},
      {"without its fragment", "GET", PAGE, 302, "/x#part", "GET", "https://a.test/x", true, true},
      {"with blanks in it", "GET", PAGE, 302, "/a b", "GET", "https://a.test/a%20b", true, true},
      {"the same port written out", "GET", PAGE, 302, "https://A.test:443/x", "GET", "https://A.test:443/x", true,
       true},
      {"another host", "GET", PAGE, 302, "https://b.test/x", "GET", "https://b.test/x", false, false},
      {"another host, by its name alone", "GET", PAGE, 302, "//b.test/x", "GET", "https://b.test/x", false, false},
      {"another port", "GET", PAGE, 302, "https://a.test:444/x", "GET", "https://a.test:444/x", false, false},
      {"to https", "GET", "http://a.test/", 302, "https://a.test/x", "GET", "https://a.test/x", false, false},
      {"HEAD elsewhere", "HEAD", PAGE, 303, "https://b.test/x", "HEAD", "https://b.test/x", false, false},
      {"never from https to http", "GET", PAGE, 302, "http://a.test/x", nullptr},
      {"no other scheme", "GET", PAGE, 302, "ftp://a.test/x", nullptr},
      {"no file", "GET", PAGE, 302, "file:///etc/passwd", nullptr},
      {"no data", "GET", PAGE, 302, "data:text/plain,x", nullptr},
      {"no socket", "GET", PAGE, 302, "http+unix://%2Frun%2Fsocket/x", nullptr},
      {"a colon in a path", "GET", PAGE, 302, "/a:b", "GET", "https://a.test/a:b", true, true},
      {"no location", "GET", PAGE, 302, "", nullptr},
      {"300 is an answer", "GET", PAGE, 300, "/x", nullptr},
      {"304 is an answer", "GET", PAGE, 304, "/x", nullptr},
      {"200 is an answer", "GET", PAGE, 200, "/x", nullptr},
      {"PUT within the origin", "PUT", PAGE, 307, "/x", "PUT", "https://a.test/x", true, true},
      {"PUT after 301", "PUT", PAGE, 301, "/x", "PUT", "https://a.test/x", true, true},
      {"PUT not elsewhere", "PUT", PAGE, 307, "https://b.test/x", nullptr},
      {"DELETE not elsewhere", "DELETE", PAGE, 302, "https://b.test/x", nullptr},
      {"POST within the origin", "POST", PAGE, 308, "/x", "POST", "https://a.test/x", true, true},
      {"POST not elsewhere", "POST", PAGE, 307, "https://b.test/x", nullptr},
      {"POST becomes GET", "POST", PAGE, 302, "/x", "GET", "https://a.test/x", true, false},
      {"PUT becomes GET after 303", "PUT", PAGE, 303, "/x", "GET", "https://a.test/x", true, false},
      {"POST becomes GET elsewhere", "POST", PAGE, 303, "https://b.test/x", "GET", "https://b.test/x", false, false},
  };
  for (const Case& c : CASES) {
    const auto decision = decideRedirect(request(c.method, c.from), c.status, c.location, 0);
    EXPECT_FALSE(decision.error) << c.what;
    EXPECT_EQ(decision.follow.has_value(), c.toMethod != nullptr) << c.what;
    if (!decision.follow || !c.toMethod) continue;
    EXPECT_EQ(decision.follow->method, c.toMethod) << c.what;
    EXPECT_EQ(decision.follow->url, c.to) << c.what;
    EXPECT_EQ(findHeader(decision.follow->headers, "x-api-key").has_value(), c.keepsKey) << c.what;
    EXPECT_EQ(decision.follow->body.has_value(), c.keepsBody) << c.what;
    EXPECT_EQ(findHeader(decision.follow->headers, "content-type").has_value(), c.keepsBody) << c.what;
  }
}

TEST(RedirectPolicy, TheSixthRedirectInARowIsOneTooMany) {
  const auto page = request("GET", "https://a.test/");
  EXPECT_TRUE(decideRedirect(page, 302, "/x", MAX_REDIRECTS - 1).follow);
  const auto decision = decideRedirect(page, 302, "/x", MAX_REDIRECTS);
  EXPECT_FALSE(decision.follow);
  ASSERT_TRUE(decision.error);
  EXPECT_TRUE(decision.error->is(URL_ERROR_DOMAIN, URL_HTTP_TOO_MANY_REDIRECTS));
}

TEST(RedirectPolicy, AnAddressThatIsNoneIsAnError) {
  for (const char* location : {"http://", "https://a.test:99999999/", "http://[::1/", "https://exa mple.test/"}) {
    const auto decision = decideRedirect(request("GET", "https://a.test/"), 302, location, 0);
    EXPECT_FALSE(decision.follow) << location;
    ASSERT_TRUE(decision.error) << location;
    EXPECT_TRUE(decision.error->is(URL_ERROR_DOMAIN, URL_REDIRECT_TO_NON_EXISTENT_LOCATION)) << location;
  }
}

}  // namespace
}  // namespace vondle
