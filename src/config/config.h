#pragma once

#include <string>

namespace vondle {

// What every request to the server needs. ConfigLoader::load reads it.
struct Config {
  std::string server;  // scheme and host, no "/" at the end
  std::string apiKey;
  friend bool operator==(const Config&, const Config&) = default;
};

}  // namespace vondle
