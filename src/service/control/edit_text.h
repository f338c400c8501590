#pragma once

#include <string>

#include "base/json.h"
#include "service/edits/edit_sender.h"

// What the control protocol says of edits that are not on the server yet.
namespace vondle {

// "new file", "new contents, moved", "deleted".
[[nodiscard]] std::string whatText(const Edit& edit);
// Below the mount point; of what is deleted, where it was.
[[nodiscard]] std::string pathOf(const Edit& edit, const LocalEdits& edits, const Replica& replica);
// Keys: id, path, what, state ("settling", "waiting", "local", "ready", "sending", "retrying"), attempts; error,
// next_try, waits_for (an id), fraction where they apply.
[[nodiscard]] json::Object editJSON(const EditSender::Report& report, const LocalEdits& edits, const Replica& replica);

}  // namespace vondle
