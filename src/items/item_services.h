#pragma once

namespace vondle {

class Cursor;
class ItemCache;
class ListingGate;
class Pins;
class Scheduler;
class VondleAPI;

// What enumerators work with. A value of references: what they name must outlive every enumerator.
struct ItemServices {
  VondleAPI& api;
  ItemCache& cache;
  ListingGate& gate;
  Pins& pins;
  Cursor& cursor;
  Scheduler& scheduler;
};

}  // namespace vondle
