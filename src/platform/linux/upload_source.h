#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "base/error.h"

namespace vondle {

// The bytes of a request's body, from memory or from a file that stays open until the task ends. Its length is fixed
// when it is opened. Errors are of URL_ERROR_DOMAIN.
class UploadSource {
 public:
  explicit UploadSource(std::string bytes);
  static Result<std::unique_ptr<UploadSource>> openFile(const std::string& path);
  ~UploadSource();
  UploadSource(const UploadSource&) = delete;
  UploadSource& operator=(const UploadSource&) = delete;

  [[nodiscard]] std::int64_t length() const { return length_; }
  // Fills the buffer from the offset, fewer bytes only at the end; fails when the file has become shorter.
  Result<std::size_t> readAt(std::int64_t offset, std::span<char> buffer) const;

 private:
  UploadSource(int descriptor, std::int64_t length);

  const std::string bytes_;
  const int descriptor_ = -1;
  const std::int64_t length_;
};

}  // namespace vondle
