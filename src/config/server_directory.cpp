#include "config/server_directory.h"

#include "server_directory_values.h"

namespace vondle {

const ServerDirectory& ServerDirectory::ofThisBuild() {
  static const ServerDirectory DIRECTORY{std::string(DEFAULT_SERVER),
                                         {RETIRED_SERVER_HOSTS.begin(), RETIRED_SERVER_HOSTS.end()}};
  return DIRECTORY;
}

}  // namespace vondle
