#pragma once

#include <string>

#include "items/item_services.h"
#include "items/listing_gate.h"
#include "state/cursor.h"
#include "state/item_cache.h"
#include "state/pins.h"
#include "testing/api_rig.h"
#include "testing/recording_observers.h"

namespace vondle {

// The API client and everything that enumerators work with.
struct ItemsRig : ApiRig {
  // What the mailbox of other processes holds.
  void leaveDirty(std::string_view json) { files.put(pins.dirtyURL(), json); }
  void leavePending(std::string_view json) { files.put(pins.pendingURL(), json); }

  Entry entry(std::string id, std::string name, bool isFolder = false) {
    Entry made;
    made.id = std::move(id);
    made.parentID = "root";
    made.name = std::move(name);
    made.isFolder = isFolder;
    made.fetchedAt = scheduler.now();
    return made;
  }

  Pins pins{files, scheduler, Paths(users)};
  Cursor cursor{files};
  ItemCache cache{api, scheduler};
  ListingGate gate{scheduler.global()};
  const ItemServices services{api, cache, gate, pins, cursor, scheduler};
};

}  // namespace vondle
