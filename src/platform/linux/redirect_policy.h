#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/url_session.h"

namespace vondle {

inline constexpr int MAX_REDIRECTS = 5;

// What a session does about an answer. Neither a request nor an error: the answer is the task's answer.
struct RedirectDecision {
  std::optional<URLRequest> follow;
  std::optional<Error> error;
};

// Whether an answer's status and Location lead to another request. Followed are 301, 302, 303, 307 and 308, at most
// MAX_REDIRECTS of them in a row (`followed` so far), to http and https, never from https to http. 303, and 301 or 302
// to a POST, ask for a GET without body. Only GET and HEAD leave the origin (scheme, host and port), and then without
// any header or body of the request, since they may be secret. What may not be followed is the task's answer, so that
// its status can be seen.
RedirectDecision decideRedirect(const URLRequest& request, int status, std::optional<std::string_view> location,
                                int followed);

bool isSameOrigin(std::string_view url, std::string_view other);

}  // namespace vondle
