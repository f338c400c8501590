#pragma once

#include <string>

#include "cli/exit_code.h"

namespace vondle {

// Asks on the terminal, without showing what is typed.
Outcome<std::string> readSecretFromTerminal(const std::string& prompt);

}  // namespace vondle
