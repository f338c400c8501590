#include "state/cursor.h"

#include "base/json.h"
#include "base/shared_instance.h"
#include "config/paths.h"

namespace vondle {
namespace {

constexpr std::string_view KEY = "changeCursor";

}  // namespace

Cursor& Cursor::shared() {
  return SharedInstance<Cursor>::current();
}

std::optional<std::string> Cursor::fileURL() {
  auto container = files_.applicationGroupContainer(APPLICATION_GROUP);
  if (!container) return std::nullopt;
  return *container + "/cursor.json";
}

std::int64_t Cursor::load() {
  const auto path = fileURL();
  if (!path) return 0;
  const auto bytes = files_.read(*path);
  if (!bytes) return 0;
  const auto object = json::parseObject(*bytes);
  return object ? json::integer(*object, KEY).value_or(0) : 0;
}

void Cursor::save(std::int64_t cursor) {
  const auto path = fileURL();
  if (!path) return;
  static_cast<void>(files_.writeAtomically(*path, json::serialize(json::Object{{KEY, cursor}})));
}

}  // namespace vondle
