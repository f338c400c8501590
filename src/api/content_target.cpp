#include "api/content_target.h"

#include "config/make_url.h"

namespace vondle {
namespace {

std::optional<std::string> optionalText(const json::Object& object, std::string_view key) {
  const auto value = json::text(object, key);
  return value ? std::optional<std::string>(*value) : std::nullopt;
}

}  // namespace

std::optional<ContentTarget> ContentTarget::parse(const json::Object& object) {
  const auto key = json::text(object, "key");
  if (!key) return std::nullopt;
  ContentTarget target;
  target.key = *key;
  target.contentType = json::text(object, "content_type").value_or("application/octet-stream");
  target.thumbUpload = optionalText(object, "thumb_upload_url");
  target.uploadID = optionalText(object, "upload_id");
  target.partSize = json::integer(object, "part_size").value_or(0);
  if (target.uploadID && target.partSize >= 1) return target;

  target.uploadID.reset();
  target.partSize = 0;
  const auto address = json::text(object, "upload_url");
  target.uploadURL = address ? makeURL(*address) : std::nullopt;
  if (!target.uploadURL) return std::nullopt;
  return target;
}

}  // namespace vondle
