#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/error.h"

namespace vondle {

// Downloaded contents, open for reading. Removing or replacing the file on disk does not touch it. Any thread.
class ContentFile {
 public:
  static Result<std::shared_ptr<const ContentFile>> open(const std::string& path, std::uint64_t tag);
  ~ContentFile();
  ContentFile(const ContentFile&) = delete;
  ContentFile& operator=(const ContentFile&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] std::int64_t size() const { return size_; }
  // ItemAttributes::contentTag of the version.
  [[nodiscard]] std::uint64_t tag() const { return tag_; }

 private:
  ContentFile(int descriptor, std::int64_t size, std::uint64_t tag) : descriptor_(descriptor), size_(size), tag_(tag) {}

  const int descriptor_;
  const std::int64_t size_;
  const std::uint64_t tag_;
};

}  // namespace vondle
