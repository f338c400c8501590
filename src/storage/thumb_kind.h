#pragma once

#include <string>
#include <string_view>

#include "storage/metadata_store.h"

namespace vondle::storage {

// How a file is shown small, by its name alone.
enum class ThumbKind { none, picture, video };

// What stands after the last dot of a name, in lower case; a dot at its start hides the file and begins no extension.
std::string extensionOf(std::string_view name);
ThumbKind thumbKindOf(std::string_view name);

// The file has a preview, or the service can be expected to make one.
bool hasThumb(const Item& file);

}  // namespace vondle::storage
