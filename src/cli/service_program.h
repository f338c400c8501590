#pragma once

#include <string>
#include <vector>

#include "cli/exit_code.h"

namespace vondle {

// Runs the program with the arguments, its output going where this program's goes, and waits for its end: its exit
// status.
Outcome<int> runProgram(const std::vector<std::string>& command);

// Becomes the program; returns only the reason why that failed.
Failure becomeProgram(const std::vector<std::string>& command);

}  // namespace vondle
