#include "items/root_item.h"

#include "platform/content_types.h"

namespace vondle {

Item RootItem::item() {
  Item root;
  root.itemIdentifier = ROOT_CONTAINER;
  root.parentItemIdentifier = ROOT_CONTAINER;
  root.filename = "Vondle";
  root.contentType = FOLDER_CONTENT_TYPE;
  root.capabilities = ALLOWS_READING | ALLOWS_WRITING;
  root.fileSystemFlags = USER_EXECUTABLE | USER_READABLE | USER_WRITABLE;
  root.itemVersion = {"1", "1"};
  return root;
}

}  // namespace vondle
