#pragma once

#include "base/error.h"

namespace vondle {

// Whether trying again is of no use: the upload was cancelled, nothing is configured, or the API answered 401, 403, 404
// or 507. A status of the place that takes the bytes is never final: there a fresh address may help.
bool isFinal(const Error& error);

}  // namespace vondle
