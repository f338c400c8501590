#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/progress.h"
#include "provider/provider_services.h"

namespace vondle {

// The name of an edit that is kept beside the file of this name: report.txt gives "report (conflicted copy).txt", and
// where copies are there already, "report (conflicted copy 2).txt" and so on.
std::string conflictedName(std::string_view name, int number = 1);

// Where it stands, when the file of this name is at this server path: in the same folder.
std::string conflictedPath(std::string_view path, std::string_view name, int number = 1);

// Copies of one file beyond which no name is looked for.
inline constexpr int MAX_CONFLICTED_COPIES = 20;

// Keeps an edit that the server does not take as the entry's next version as a file of its own. `uploadedKey` is the
// storage key under which the edit's bytes lie on the server; without one, `source`, the local file, is uploaded, under
// the progress given. A name that is taken gives way to the next number.
//
// Completes with the entry's item as the server has it. When the copy can't be kept, with the copy's error, as
// providerError words it, so that nobody believes the edit to be stored; unless the item holds the edit's bytes after
// all, because a commit was done and its answer lost. Any thread.
void resolveConflict(const ProviderServices& services, Entry entry, std::optional<std::string> uploadedKey,
                     std::string source, std::shared_ptr<Progress> progress, Completion<Result<SavedItem>> completion);

}  // namespace vondle
