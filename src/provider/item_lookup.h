#pragma once

#include <optional>
#include <string>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "provider/provider_services.h"

// What the operations that change something ask the server beside their change. Any thread; completions run before the
// call returns or on a thread of the API client's. Identifiers are the server's.
namespace vondle {

// The server path of the folder, asked for afresh, or as last known when the server fails; none when it is not known
// either.
void parentPath(const ProviderServices& services, const std::string& id,
                Completion<std::optional<std::string>> completion);

// The first entry whose name is exactly this in a listing of the folder that is asked for after the call, see
// SharedListings; none when there is none or the listing fails.
void findChild(const ProviderServices& services, std::string name, std::string folderID,
               Completion<std::optional<Entry>> completion);

// The entry as the server has it now, or as last known when the server fails; the server's error when it is not known
// either.
void currentEntry(const ProviderServices& services, const std::string& id, Completion<Result<Entry>> completion);

// What an entry is after the server took a change of it: the record that is known is dropped, the entry asked for.
// `givenKey` is the storage key of contents that were part of the change.
void changedItem(const ProviderServices& services, const std::string& id, std::optional<std::string> givenKey,
                 Completion<Result<SavedItem>> completion);

SavedItem savedItem(const ProviderServices& services, Entry entry, const std::optional<std::string>& givenKey);

// Whether the API answered that there is no such thing, or no more.
bool saysGone(const Error& error);

Error noSuchItem();

}  // namespace vondle
