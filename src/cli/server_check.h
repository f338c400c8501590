#pragma once

#include "cli/exit_code.h"
#include "platform/platform.h"

namespace vondle {

// Asks the server of the stored configuration one small question with the stored key. Blocks until the answer or the
// request's time-out.
Outcome<void> checkWithServer(const Platform& platform);

// What an answer of the API client means to a command.
Failure failureOf(const Error& error);

}  // namespace vondle
