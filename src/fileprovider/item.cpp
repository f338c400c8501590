#include "fileprovider/item.h"

#include "platform/content_types.h"

namespace vondle {

bool Item::isFolder() const {
  return contentType == FOLDER_CONTENT_TYPE;
}

}  // namespace vondle
