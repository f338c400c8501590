#pragma once

#include <string>
#include <vector>

#include "cli/command_context.h"

namespace vondle {

// Runs the command that the arguments (without the program's name) give, and answers the exit status.
int runCommandLine(std::vector<std::string> arguments, CommandContext& context, std::ostream& out, std::ostream& err);

}  // namespace vondle
