#include "storage/content_handlers.h"

#include <algorithm>
#include <charconv>

namespace vondle::storage {
namespace {

const Refusal NO_CONTENTS{404, "there is nothing stored at this address"};

std::optional<std::string> queryOf(const ContentRequest& request, const std::string& name) {
  return request.query.count(name) == 1 ? std::optional(request.query.find(name)->second) : std::nullopt;
}

// The key that follows the prefix, when what follows looks like one.
std::optional<std::string_view> keyAfter(std::string_view path, std::string_view prefix) {
  if (!path.starts_with(prefix)) return std::nullopt;
  path.remove_prefix(prefix.size());
  const bool isKey = path.size() == 32 &&
                     std::ranges::all_of(path, [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
  return isKey ? std::optional(path) : std::nullopt;
}

std::optional<std::int64_t> countOf(std::string_view text) {
  std::int64_t value = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

Answer<std::optional<std::pair<std::int64_t, std::int64_t>>> rangeOf(std::string_view header, std::int64_t size) {
  if (!header.starts_with("bytes=") || header.find(',') != std::string_view::npos) return std::nullopt;
  header.remove_prefix(6);
  const auto dash = header.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto first = countOf(header.substr(0, dash));
  const auto last = countOf(header.substr(dash + 1));
  if (!first) {
    if (dash != 0 || !last) return std::nullopt;
    if (*last == 0 || size == 0) return refuse(416, "no byte of this range exists");
    return std::pair(std::max<std::int64_t>(0, size - *last), size - 1);
  }
  if (!last && dash + 1 != header.size()) return std::nullopt;
  if (last && *last < *first) return std::nullopt;
  if (*first >= size) return refuse(416, "no byte of this range exists");
  return std::pair(*first, std::min(last.value_or(size - 1), size - 1));
}

Answer<void> ContentHandlers::check(const ContentRequest& request) const {
  if (request.hasApiKey)
    return refuse(400, "this address carries its own permission; never send the account key to it");
  const auto expires = queryOf(request, "expires");
  const auto signature = queryOf(request, "signature");
  const auto now = static_cast<std::int64_t>(clock_.now().secondsSince1970);
  if (!expires || !signature || request.query.size() != 2 ||
      !signer_.isValid(request.method, request.path, *expires, *signature, now))
    return refuse(403, "the address is not signed for this request, or has expired");
  return {};
}

Answer<Download> ContentHandlers::download(const ContentRequest& request) {
  if (auto allowed = check(request); !allowed) return refuse(std::move(allowed.error()));
  const auto contentsKey = keyAfter(request.path, "/vondle/contents/");
  const auto thumbKey = keyAfter(request.path, "/vondle/thumbs/");
  if (!contentsKey && !thumbKey) return refuse(NO_CONTENTS);
  const std::string key(contentsKey ? *contentsKey : *thumbKey);

  // Contents that were replaced or purged are not given out, even while they still lie on the disk.
  auto store = stores_.reader();
  if (!store) return refuse(500, "the service's database cannot be opened");
  const auto item = (*store)->read<Item>([&]() -> Answer<Item> {
    auto found = (*store)->itemWithKey(key);
    if (!found || (thumbKey && !found->hasThumb)) return refuse(NO_CONTENTS);
    return std::move(*found);
  });
  if (!item) return refuse(item.error());
  auto file = contents_.read(contentsKey ? ContentStore::Kind::contents : ContentStore::Kind::thumb, key);
  if (!file) {
    // Replaced between the two looks; or the disk lost it, which the service must say.
    const auto again = (*store)->read<bool>([&]() -> Answer<bool> { return (*store)->itemWithKey(key).has_value(); });
    if (again && !*again) return refuse(NO_CONTENTS);
    return refuse(500, "the stored contents cannot be read");
  }
  return Download{.file = std::move(*file),
                  .contentType = contentsKey ? "application/octet-stream" : "image/jpeg",
                  .etag = "\"" + key + "\""};
}

}  // namespace vondle::storage
