#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/error.h"

namespace vondle {

// What the user may set for the service in ~/.vondle/service.json, a JSON object:
//   "mount"      text    where to mount when no folder is named; a leading "~/" means the home folder (~/Vondle)
//   "read_only"  boolean mount for reading only (false)
//   "name"       text    what file managers call the account ("Vondle")
//   "local_only" texts   patterns of names (*, ?, [a-z]) of new files that stay on this machine; in place of those that
//                        TemporaryNames has
// Other keys are left alone. No file: the defaults.
struct ServiceSettings {
  std::optional<std::string> mount;
  bool readOnly = false;
  std::string name = "Vondle";
  std::optional<std::vector<std::string>> localOnly;

  // A file that cannot be read, is not a JSON object, or gives a key another type is an error that names the file and
  // the key: a setting that is silently not obeyed would be worse.
  static Result<ServiceSettings> load(const std::string& path, const std::string& home);
};

}  // namespace vondle
