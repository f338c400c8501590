#include "state/pins.h"

#include <algorithm>
#include <utility>

#include "base/json.h"
#include "base/shared_instance.h"

namespace vondle {
namespace {

constexpr Duration CHECK_INTERVAL = seconds(1);

// None unless the file is a JSON list whose members are all of that kind.
std::optional<json::Value> readList(Files& files, const std::string& path, bool (*isMember)(const json::Value&)) {
  const auto bytes = files.read(path);
  if (!bytes) return std::nullopt;
  auto value = json::parse(*bytes);
  if (!value || !value->is_array() || !std::ranges::all_of(value->get_array(), isMember)) return std::nullopt;
  return *std::move(value);
}

std::optional<std::vector<std::string>> readTexts(Files& files, const std::string& path) {
  const auto list = readList(files, path, [](const json::Value& member) { return member.is_string(); });
  if (!list) return std::nullopt;
  std::vector<std::string> texts;
  for (const auto& member : list->get_array()) texts.emplace_back(member.get_string());
  return texts;
}

std::optional<PinRequest> pinRequest(const json::Object& object) {
  const auto id = json::text(object, "id");
  auto pin = json::boolean(object, "pin");
  if (const auto number = json::number(object, "pin")) pin = *number != 0;
  if (!id || !pin) return std::nullopt;
  return PinRequest{.id = std::string(*id), .pin = *pin};
}

}  // namespace

Pins& Pins::shared() {
  return SharedInstance<Pins>::current();
}

bool Pins::contains(const std::string& id) {
  const MutexLock lock(lock_);
  return loaded().contains(id);
}

void Pins::set(const std::string& id, bool pinned) {
  const MutexLock lock(lock_);
  auto& ids = loaded();
  if (pinned)
    ids.insert(id);
  else
    ids.erase(id);
  static_cast<void>(files_.createFolder(paths_.folder()));
  if (files_.writeAtomically(fileURL(), json::serialize(json::Array(ids.begin(), ids.end())))) {
    lastMtime_ = files_.modificationTime(fileURL());
  }
}

std::vector<std::string> Pins::takeDirty() {
  const MutexLock lock(lock_);
  auto ids = readTexts(files_, dirtyURL());
  if (!ids) return {};
  static_cast<void>(files_.remove(dirtyURL()));
  return *std::move(ids);
}

std::vector<PinRequest> Pins::takePending() {
  const MutexLock lock(lock_);
  const auto list = readList(files_, pendingURL(), [](const json::Value& member) { return member.is_object(); });
  if (!list) return {};
  static_cast<void>(files_.remove(pendingURL()));
  std::vector<PinRequest> requests;
  for (const auto& member : list->get_array()) {
    if (auto request = pinRequest(member.get_object())) requests.push_back(*std::move(request));
  }
  return requests;
}

// Looks at the file at most once a second, and reads it only when it is not the one read or written last.
std::set<std::string>& Pins::loaded() {
  const auto now = clock_.monotonic();
  if (ids_ && now - lastCheck_ < CHECK_INTERVAL) return *ids_;
  lastCheck_ = now;
  const auto modified = files_.modificationTime(fileURL());
  if (ids_ && modified == lastMtime_) return *ids_;
  lastMtime_ = modified;
  const auto texts = readTexts(files_, fileURL()).value_or(std::vector<std::string>());
  return ids_.emplace(texts.begin(), texts.end());
}

}  // namespace vondle
