#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "service/contents/cache_rules.h"

namespace vondle {

// What the user may set for the service in ~/.vondle/service.json, a JSON object:
//   "mount"      text    where to mount when no folder is named; a leading "~/" means the home folder (~/Vondle)
//   "read_only"  boolean mount for reading only (false)
//   "name"       text    what file managers call the account ("Vondle")
//   "local_only" texts   patterns of names (*, ?, [a-z]) of new files that stay on this machine; in place of those that
//                        TemporaryNames has
//   "notices"    boolean tell on the desktop when the account is full, the key refused or a file kept twice (true)
//   "thumbnails" boolean give the server's thumbnails to file managers, and those who make some nothing else (true)
//   "thumbnail_failures" boolean also write down there which files have none (false)
//   "cache_limit"        what downloaded files may take, but for those that are to be kept downloaded (10 GiB)
//   "disk_reserve"       what downloading leaves free on the disk (a twentieth of the disk, but no more than 2 GiB)
// The last two are sizes: a number of bytes, or a text such as "20 GiB" (see parseByteSize); the limit is above 0. See
// CacheLimits for what they bind.
// Other keys are left alone. No file: the defaults.
struct ServiceSettings {
  std::optional<std::string> mount;
  bool readOnly = false;
  std::string name = "Vondle";
  std::optional<std::vector<std::string>> localOnly;
  CacheLimits cache;
  bool thumbnails = true;
  bool thumbnailFailures = false;
  bool notices = true;

  // A file that cannot be read, is not a JSON object, or gives a key another type is an error that names the file and
  // the key: a setting that is silently not obeyed would be worse.
  static Result<ServiceSettings> load(const std::string& path, const std::string& home);
};

}  // namespace vondle
