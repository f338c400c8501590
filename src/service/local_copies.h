#pragma once

#include "base/error.h"
#include "platform/files.h"
#include "service/service_folders.h"

namespace vondle {

// Removes what is known of an account's tree, and its downloaded contents: nothing that is not on the server. Hold the
// state lock: no service may be using them.
Result<void> removeLocalCopies(const ServiceFolders& folders, Files& files);

}  // namespace vondle
