#include "platform/content_types.h"

#include <algorithm>
#include <array>
#include <functional>

namespace vondle {
namespace {

struct Row {
  std::string_view extension;
  std::string_view type;
};

constexpr Row TABLE[] = {
#include "content_types_table.inc"
};
static_assert(std::ranges::is_sorted(TABLE, std::less(), &Row::extension));

constexpr std::size_t LONGEST =
    std::ranges::max(TABLE, std::less(), [](const Row& row) { return row.extension.size(); }).extension.size();

}  // namespace

std::optional<std::string_view> contentTypeForExtension(std::string_view extension) {
  if (extension.size() > LONGEST) return std::nullopt;
  std::array<char, LONGEST> buffer;
  const auto end = std::ranges::transform(extension, buffer.begin(), [](char c) {
                     return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
                   }).out;
  const std::string_view wanted(buffer.begin(), end);
  const auto found = std::ranges::lower_bound(TABLE, wanted, std::less(), &Row::extension);
  if (found == std::end(TABLE) || found->extension != wanted) return std::nullopt;
  return found->type;
}

}  // namespace vondle
