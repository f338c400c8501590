#pragma once

#include "platform/bundle_information.h"

namespace vondle {

// The information dictionary of this build: "CFBundleShortVersionString" is the project's version, "CFBundleVersion"
// its build number, "CFBundleExecutable" the extension's name.
BundleInformation bundleInformation();

}  // namespace vondle
