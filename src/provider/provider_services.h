#pragma once

#include "items/item_services.h"
#include "upload/upload_services.h"

namespace vondle {

class Clock;
class Pending;
class SharedListings;
class ThrottledTransfer;

// What the extension's operations work with. A value of references: what they name must outlive every operation.
struct ProviderServices : ItemServices {
  const Clock& clock;
  Pending& pending;
  ThrottledTransfer& transfers;
  SharedListings& listings;
  UploadServices upload;
};

}  // namespace vondle
