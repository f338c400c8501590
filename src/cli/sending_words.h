#pragma once

#include <string>

#include "base/json.h"
#include "base/time.h"

namespace vondle {

// How sending an edit of the control protocol stands: "being sent, 45 %", "next try in 12 s".
std::string sendingInWords(const json::Object& edit, Timestamp now);

}  // namespace vondle
