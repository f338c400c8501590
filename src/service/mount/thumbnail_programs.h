#pragma once

#include <string_view>

namespace vondle {

// Whether the thread, of any program, is of one that does nothing but make small pictures of files for file managers.
// Reads /proc; false when that does not tell.
bool isOfThumbnailProgram(int thread);

// By the program's name, as far as the kernel keeps it.
bool isThumbnailProgram(std::string_view shortName);

}  // namespace vondle
