#include "cli/config_editor.h"

#include <cerrno>

#include "config/paths.h"

namespace vondle {

ConfigEditor::ConfigEditor(Files& files, std::string path) : files_(files), path_(std::move(path)) {}

Result<json::Object> ConfigEditor::read() {
  const auto bytes = files_.read(path_);
  if (!bytes) {
    if (bytes.error().is(POSIX_ERROR_DOMAIN, ENOENT)) return json::Object();
    return failure(bytes.error());
  }
  auto object = json::parseObject(*bytes);
  if (!object) {
    return failure(Error(POSIX_ERROR_DOMAIN, EINVAL,
                         path_ + " is not a JSON object; correct it, or move it away and sign in again"));
  }
  return std::move(*object);
}

Result<void> ConfigEditor::edit(const std::function<void(json::Object&)>& change) {
  auto object = read();
  if (!object) return failure(object.error());
  const auto before = *object;
  change(*object);
  if (*object == before) return {};
  if (auto made = files_.createFolder(parentOfPath(path_)); !made) return made;
  if (auto written = files_.writeAtomically(path_, json::serializePretty(*object), 0600); !written) return written;
  return files_.setPermissions(path_, 0600);
}

}  // namespace vondle
