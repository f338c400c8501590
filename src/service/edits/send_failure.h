#pragma once

#include "base/error.h"

namespace vondle {

// What a failure of the extension's means for an edit that was being sent.
enum class SendFailure {
  clash,       // the name is taken, or something else is there than was thought
  noSuchItem,  // the item or its folder is gone, or could not be looked up
  outOfReach,  // the server cannot be reached or does not let us in: so it is for every edit
  cancelled,   // by us
  refused,     // anything else, which is this edit's own
};

// Looks through to the failures behind.
[[nodiscard]] SendFailure sendFailureOf(const Error& error);

}  // namespace vondle
