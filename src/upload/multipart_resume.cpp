#include "upload/multipart_resume.h"

#include <utility>

#include <fmt/format.h>

#include "api/vondle_api.h"
#include "base/json.h"
#include "base/shared_instance.h"
#include "config/paths.h"
#include "config/plog.h"
#include "upload/final_error.h"

namespace vondle {
namespace {

using Saved = MultipartResume::Saved;

constexpr double MAX_AGE = 518'400;                           // seconds: six days
constexpr double REFERENCE_SECONDS_SINCE_1970 = 978'307'200;  // 2001-01-01 00:00:00 UTC, from which "started" counts

std::optional<Saved> readSaved(const json::Object& object) {
  const auto key = json::text(object, "key");
  const auto uploadID = json::text(object, "uploadID");
  const auto size = json::integer(object, "size");
  const auto partSize = json::integer(object, "partSize");
  const auto* etags = json::object(object, "etags");
  const auto started = json::number(object, "started");
  if (!key || !uploadID || !size || !partSize || !etags || !started) return std::nullopt;
  Saved saved{.key = std::string(*key),
              .uploadID = std::string(*uploadID),
              .size = *size,
              .partSize = *partSize,
              .etags = {},
              .started = {*started + REFERENCE_SECONDS_SINCE_1970}};
  for (const auto& [part, etag] : *etags) {
    if (!etag.is_string()) return std::nullopt;
    saved.etags.emplace(part, etag.get_string());
  }
  return saved;
}

json::Object written(const Saved& saved) {
  json::Object etags;
  for (const auto& [part, etag] : saved.etags) etags[part] = etag;
  return {{"key", saved.key},          {"uploadID", saved.uploadID},
          {"size", saved.size},        {"partSize", saved.partSize},
          {"etags", std::move(etags)}, {"started", saved.started.secondsSince1970 - REFERENCE_SECONDS_SINCE_1970}};
}

// Whether the server, which knows the upload, still wants parts of the same size.
bool confirms(const Result<json::Object>& status, const Saved& saved) {
  return status && saved.partSize >= 1 && json::integer(*status, "part_size") == saved.partSize;
}

std::int64_t wholeSeconds(Timestamp time) {
  constexpr double LIMIT = 9e18;  // well within 64 bits
  const double value = time.secondsSince1970;
  return value > -LIMIT && value < LIMIT ? static_cast<std::int64_t>(value) : 0;
}

}  // namespace

MultipartResume& MultipartResume::shared() {
  return SharedInstance<MultipartResume>::current();
}

std::string MultipartResume::identity(std::string_view name, std::int64_t size, std::optional<Timestamp> modified) {
  return fmt::format("{}|{}|{}", name, size, modified ? wholeSeconds(*modified) : 0);
}

std::optional<std::string> MultipartResume::fileURL() {
  auto container = files_.applicationGroupContainer(APPLICATION_GROUP);
  if (!container) return std::nullopt;
  return *container + "/multipart-resume.json";
}

std::optional<Saved> MultipartResume::load(const std::string& id) {
  const MutexLock hold(lock_);
  auto table = readAll();
  const auto found = table.find(id);
  if (found == table.end()) return std::nullopt;
  return std::move(found->second);
}

void MultipartResume::begin(const std::string& id, const std::string& key, const std::string& uploadID,
                            std::int64_t size, std::int64_t partSize) {
  const MutexLock hold(lock_);
  auto table = readAll();
  table[id] = {
      .key = key, .uploadID = uploadID, .size = size, .partSize = partSize, .etags = {}, .started = clock_.now()};
  writeAll(table);
}

void MultipartResume::record(const std::string& id, const std::string& uploadID, std::int64_t part,
                             const std::string& etag) {
  const MutexLock hold(lock_);
  auto table = readAll();
  const auto found = table.find(id);
  if (found != table.end() && found->second.uploadID == uploadID) found->second.etags[fmt::format("{}", part)] = etag;
  writeAll(table);
}

void MultipartResume::forget(const std::string& id) {
  const MutexLock hold(lock_);
  auto table = readAll();
  table.erase(id);
  writeAll(table);
}

void MultipartResume::check(const std::string& id, std::int64_t size, VondleAPI& api,
                            Completion<Result<std::optional<Saved>>> completion) {
  auto saved = load(id);
  if (!saved || saved->size != size) return std::move(completion)(std::nullopt);
  json::Object body{{"key", saved->key}, {"upload_id", saved->uploadID}};
  api.post("upload-status", std::move(body),
           [this, id, saved = *std::move(saved),
            completion = std::move(completion)](const Result<json::Object>& status) mutable {
             if (confirms(status, saved)) return std::move(completion)(std::move(saved));
             if (!status && !isFinal(status.error())) return std::move(completion)(failure(status.error()));
             plog.log("saved multipart upload of %{public}@ can't be resumed, starting again", saved.key);
             forget(id);
             std::move(completion)(std::nullopt);
           });
}

// All of it, without what is too old; nothing when any of it can't be understood.
MultipartResume::Table MultipartResume::readAll() {
  const auto path = fileURL();
  if (!path) return {};
  const auto bytes = files_.read(*path);
  const auto object = bytes ? json::parseObject(*bytes) : std::nullopt;
  if (!object) return {};
  const auto now = clock_.now().secondsSince1970;
  Table table;
  for (const auto& [id, value] : *object) {
    auto saved = value.is_object() ? readSaved(value.get_object()) : std::nullopt;
    if (!saved) return {};
    if (now - saved->started.secondsSince1970 < MAX_AGE) table.emplace(id, *std::move(saved));
  }
  return table;
}

void MultipartResume::writeAll(const Table& table) {
  const auto path = fileURL();
  if (!path) return;
  json::Object object;
  for (const auto& [id, saved] : table) object[id] = written(saved);
  static_cast<void>(files_.writeAtomically(*path, json::serialize(object)));
}

}  // namespace vondle
