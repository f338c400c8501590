#pragma once

#include <cstdint>
#include <string>

#include "base/error.h"
#include "platform/files.h"

namespace vondle {

// Copies `length` bytes of a file, from `offset` on, into a new file, 4 MiB at a time. A file that ends before them
// fails with FILE_READ_UNKNOWN. On failure no new file remains.
Result<void> copyRange(Files& files, const std::string& from, std::int64_t offset, std::int64_t length,
                       const std::string& to);

}  // namespace vondle
