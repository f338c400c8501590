#pragma once

#include <string>
#include <vector>

#include "cli/exit_code.h"
#include "config/config.h"
#include "platform/platform.h"

namespace vondle {

// Asks the account's server one small question with its key. Blocks until the answer or the request's time-out.
Outcome<void> checkWithServer(const Platform& platform, const Config& account);

// Whether the account has any of these items, be it in its trash. As checkWithServer; an answer that tells neither way
// is an error.
Outcome<bool> hasOneOf(const Platform& platform, const Config& account, const std::vector<std::string>& identifiers);

// What an answer of the API client means to a command.
Failure failureOf(const Error& error);

}  // namespace vondle
