#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "storage/content_store.h"
#include "storage/metadata_store.h"

namespace vondle::storage {

struct ImportReport {
  std::int64_t folders = 0;
  std::int64_t files = 0;
  std::int64_t bytes = 0;
  std::int64_t kept = 0;     // files whose name was taken already
  std::int64_t skipped = 0;  // what is neither file nor folder, can't be read, or has a name that the service refuses
};

// Copies a folder's tree into the top folder of an account, with names and modification times. What is there already
// stays as it is: folders of the same name are gone into, a file of the same name is left alone. So doing it again adds
// what is new and changes nothing else. Every skipped item is told on stderr. Not to be run beside a serving service.
Result<ImportReport> importFolder(MetadataStore& store, const ContentStore& contents, std::string_view account,
                                  const std::string& folder, std::int64_t now);

}  // namespace vondle::storage
