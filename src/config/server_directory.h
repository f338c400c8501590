#pragma once

#include <set>
#include <string>

namespace vondle {

// Where the service is, and where it was. The operator's values come from the build (VONDLE_DEFAULT_SERVER and
// VONDLE_RETIRED_SERVER_HOSTS).
struct ServerDirectory {
  std::string defaultServer;           // "https://" and a host, nothing after it
  std::set<std::string> retiredHosts;  // in lower case

  static const ServerDirectory& ofThisBuild();
};

}  // namespace vondle
