#pragma once

#include <cstdint>

#include "base/json.h"

namespace vondle {

// The part of the configuration that the transfers obey, as they understand it.
struct TransferSettings {
  double downloadKilobytes = 0;  // per second; 0: unlimited
  double uploadKilobytes = 0;
  std::int64_t transfers = 5;  // at once
  bool paused = false;

  static TransferSettings from(const json::Object& config);
  [[nodiscard]] json::Object toJSON() const;
};

}  // namespace vondle
