#include "service/service_settings.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "base/byte_size.h"
#include "base/json.h"

namespace vondle {

namespace {

Error invalid(const std::string& path, const std::string& why) {
  return {POSIX_ERROR_DOMAIN, EINVAL, path + ": " + why};
}

std::optional<std::vector<std::string>> textsOf(const json::Value& value) {
  if (!value.is_array()) return std::nullopt;
  std::vector<std::string> texts;
  for (const auto& each : value.get_array()) {
    if (!each.is_string() || each.get_string().empty()) return std::nullopt;
    texts.emplace_back(each.get_string());
  }
  return texts;
}

// Of a number of bytes, or a text.
std::optional<std::int64_t> sizeOf(const json::Value& value) {
  if (value.is_string()) return parseByteSize(std::string_view(value.get_string()));
  const auto bytes = json::integer(value);
  return bytes && *bytes >= 0 ? bytes : std::nullopt;
}

}  // namespace

Result<ServiceSettings> ServiceSettings::load(const std::string& path, const std::string& home) {
  ServiceSettings settings;
  std::error_code error;
  if (!std::filesystem::exists(path, error) && !error) return settings;
  std::ifstream file(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  if (!file.is_open() || file.bad()) return failure(invalid(path, "cannot be read; check its permissions"));
  const auto object = json::parseObject(bytes);
  if (!object) return failure(invalid(path, "is not a JSON object; correct it or move it away"));

  if (const auto* value = json::find(*object, "mount")) {
    if (!value->is_string() || value->get_string().empty()) return failure(invalid(path, "\"mount\" must be a text"));
    std::string mount(value->get_string());
    if (mount == "~" || mount.starts_with("~/")) mount = home + mount.substr(1);
    if (!mount.starts_with('/')) return failure(invalid(path, "\"mount\" must begin with / or ~/"));
    settings.mount = mount;
  }
  if (const auto* value = json::find(*object, "read_only")) {
    if (!value->is_bool()) return failure(invalid(path, "\"read_only\" must be true or false"));
    settings.readOnly = value->get_bool();
  }
  if (const auto* value = json::find(*object, "name")) {
    if (!value->is_string() || value->get_string().empty()) return failure(invalid(path, "\"name\" must be a text"));
    settings.name = std::string(value->get_string());
  }
  if (const auto* value = json::find(*object, "local_only")) {
    auto patterns = textsOf(*value);
    if (!patterns) return failure(invalid(path, "\"local_only\" must be a list of texts"));
    settings.localOnly = std::move(*patterns);
  }
  if (const auto* value = json::find(*object, "cache_limit")) {
    const auto size = sizeOf(*value);
    if (!size || *size == 0)
      return failure(
          invalid(path, R"("cache_limit" must be a size above zero: a number of bytes, or a text such as "20 GiB")"));
    settings.cache.limit = *size;
  }
  if (const auto* value = json::find(*object, "disk_reserve")) {
    const auto size = sizeOf(*value);
    if (!size)
      return failure(
          invalid(path, R"("disk_reserve" must be a size: a number of bytes, or a text such as "5 GiB"; 0 for none)"));
    settings.cache.reserve = size;
  }
  if (const auto* value = json::find(*object, "thumbnails")) {
    if (!value->is_bool()) return failure(invalid(path, "\"thumbnails\" must be true or false"));
    settings.thumbnails = value->get_bool();
  }
  if (const auto* value = json::find(*object, "thumbnail_failures")) {
    if (!value->is_bool()) return failure(invalid(path, "\"thumbnail_failures\" must be true or false"));
    settings.thumbnailFailures = value->get_bool();
  }
  if (const auto* value = json::find(*object, "notices")) {
    if (!value->is_bool()) return failure(invalid(path, "\"notices\" must be true or false"));
    settings.notices = value->get_bool();
  }
  return settings;
}

}  // namespace vondle
