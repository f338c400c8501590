#pragma once

#include <string>
#include <string_view>

#include "base/error.h"

namespace vondle {

// Texts from outside may be any bytes; JSON is UTF-8.
std::string controlText(std::string_view bytes);

// The code of the control protocol for an error of the extension's or the service's.
std::string_view controlCode(const Error& error);

}  // namespace vondle
