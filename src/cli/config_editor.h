#pragma once

#include <functional>
#include <string>

#include "base/error.h"
#include "base/json.h"
#include "platform/files.h"

namespace vondle {

// The one place that changes ~/.vondle/config.json: keys it is not asked to change stay, readers see the old file or
// the new one, and the file is its owner's alone.
class ConfigEditor {
 public:
  ConfigEditor(Files& files, std::string path);

  // What the file holds; an empty object when there is none. A file that is there but no JSON object is an error, so
  // that it is not overwritten.
  Result<json::Object> read();
  // Nothing is written when the object stays as it was.
  Result<void> edit(const std::function<void(json::Object&)>& change);

 private:
  Files& files_;
  const std::string path_;
};

}  // namespace vondle
