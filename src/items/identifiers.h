#pragma once

#include <string>
#include <string_view>

#include "fileprovider/item.h"

namespace vondle {

// The server's top folder is the root container; every other identifier has the same text on both sides.
ItemIdentifier identifierFor(std::string_view serverID);
std::string serverIDFor(const ItemIdentifier& identifier);

}  // namespace vondle
