#pragma once

#include <cstdint>
#include <optional>

#include "base/time.h"
#include "cli/command_context.h"

namespace vondle {

// Has the running service send all changes that are not on the server yet, with a progress bar, and waits for it at
// most so long (none: without limit). Answers how many are left; says which and why when none of them moves any more.
// The service goes on by itself when the time is up.
Outcome<std::int64_t> drainEdits(const CommandContext& context, std::optional<Duration> limit);

}  // namespace vondle
