#include "upload/copy_range.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace vondle {
namespace {

constexpr std::int64_t BUFFER_BYTES = 4'194'304;

Result<void> copy(ReadableFile& source, std::int64_t offset, std::int64_t length, WritableFile& target) {
  std::vector<std::byte> buffer(static_cast<std::size_t>(std::min(length, BUFFER_BYTES)));
  while (length > 0) {
    const auto wanted = static_cast<std::size_t>(std::min(length, BUFFER_BYTES));
    const auto count = source.readAt(offset, std::span(buffer).first(wanted));
    if (!count) return failure(count.error());
    if (*count == 0) return failure({COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN, "the file is shorter than it was"});
    if (auto written = target.write(std::span(buffer).first(*count)); !written) return written;
    offset += static_cast<std::int64_t>(*count);
    length -= static_cast<std::int64_t>(*count);
  }
  return target.close();
}

}  // namespace

Result<void> copyRange(Files& files, const std::string& from, std::int64_t offset, std::int64_t length,
                       const std::string& to) {
  auto target = files.create(to);
  if (!target) return failure(target.error());
  auto source = files.open(from);
  auto copied = source ? copy(**source, offset, length, **target) : failure(source.error());
  if (!copied) static_cast<void>(files.remove(to));
  return copied;
}

}  // namespace vondle
