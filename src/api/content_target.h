#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/json.h"

namespace vondle {

// Files of at least this size, in bytes, are offered to the server as uploads in parts.
inline constexpr std::int64_t multipartThreshold = 104'857'600;

// Where and how new contents of a file go up: in one request to `uploadURL`, or in parts when there is an `uploadID`.
struct ContentTarget {
  std::optional<std::string> uploadURL;    // absolute
  std::string key;                         // of the contents, for the commit
  std::string contentType;                 // to be sent with the bytes
  std::optional<std::string> uploadID;     // the server's name of an upload in parts
  std::int64_t partSize = 0;               // bytes, at least 1 for an upload in parts
  std::optional<std::string> thumbUpload;  // where a preview made here may go, as the server wrote it

  // None when it says neither of both ways. An upload in parts without a usable part size counts as one request.
  static std::optional<ContentTarget> parse(const json::Object& object);

  friend bool operator==(const ContentTarget&, const ContentTarget&) = default;
};

}  // namespace vondle
