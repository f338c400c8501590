#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "fileprovider/item.h"
#include "service/contents/content_state.h"
#include "service/inode.h"

// What users read of an item, in `vondle info` and in its extended attributes.
namespace vondle {

std::string_view stateText(ContentState state);

// keptBy: the item itself or the folder above it that is kept downloaded; see Replica.
std::string_view policyText(Inode inode, std::optional<Inode> keptBy, ContentPolicy policy);

// Of an item that is shared.
std::string_view sharingText(bool isByMe);

std::string ownerText(const PersonNameComponents& owner);

}  // namespace vondle
