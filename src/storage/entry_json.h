#pragma once

#include <string>
#include <string_view>

#include "storage/signed_url.h"
#include "storage/tree.h"

namespace vondle::storage {

// Where clients reach the service, and how it signs addresses for them.
struct Addresses {
  std::string base;  // scheme, host and port, without "/" at the end
  const SignedUrl& signer;
  std::int64_t now;  // seconds since 1970

  [[nodiscard]] std::string signedFor(std::string_view method, std::string_view path) const;
};

// The paths of contents, previews and uploads below the service's address.
std::string contentsPath(std::string_view key);
std::string thumbPath(std::string_view key);
std::string uploadPath(std::string_view key);
std::string partPath(std::string_view key, std::int64_t number);

// Appends a JSON string.
void appendJson(std::string& out, std::string_view text);

// The entry with everything that there is to say, addresses included.
void appendEntry(std::string& out, const View& view, const Addresses& addresses);
// For listings that must be quick: without what follows from the folder (path, role) and without addresses.
void appendLiteEntry(std::string& out, const View& view, const View& folder);

}  // namespace vondle::storage
