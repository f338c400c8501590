#include "items/identifiers.h"

#include "config/containers.h"

namespace vondle {

ItemIdentifier identifierFor(std::string_view serverID) {
  return serverID == SERVER_ROOT ? ROOT_CONTAINER : ItemIdentifier{std::string(serverID)};
}

std::string serverIDFor(const ItemIdentifier& identifier) {
  return identifier == ROOT_CONTAINER ? std::string(SERVER_ROOT) : identifier.text;
}

}  // namespace vondle
