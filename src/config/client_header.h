#pragma once

#include <string>

#include "platform/bundle_information.h"

namespace vondle {

// Tells the server which client build is calling, in "X-Vondle-Client": "macos/1.4 (57); VondleFileProvider". The first
// word is what the server knows clients of this kind by, on every system.
std::string vondleClientHeader(const BundleInformation& bundle);

}  // namespace vondle
