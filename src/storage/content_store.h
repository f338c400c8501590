#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/error.h"
#include "storage/crypto.h"

namespace vondle::storage {

// A file of the store, open for reading; it stays readable when it is removed meanwhile. Any thread.
class StoredFile {
 public:
  StoredFile(int descriptor, std::int64_t size) : descriptor_(descriptor), size_(size) {}
  ~StoredFile();
  StoredFile(const StoredFile&) = delete;
  StoredFile& operator=(const StoredFile&) = delete;

  [[nodiscard]] std::int64_t size() const { return size_; }
  // As many bytes as the file has there, up to the buffer's size; 0 at the end.
  Result<std::size_t> readAt(std::int64_t offset, std::span<char> buffer) const;

 private:
  int descriptor_;
  std::int64_t size_;
};

// The bytes of files and previews, in files named by their keys, two levels of folders deep. What stands under its key
// is whole and on the disk: bytes arrive in another folder and take their place by renaming. Any thread.
class ContentStore {
 public:
  enum class Kind { contents, thumb };

  // Bytes on their way in; dropped unless finished.
  class Incoming {
   public:
    ~Incoming();
    Incoming(const Incoming&) = delete;
    Incoming& operator=(const Incoming&) = delete;

    Result<void> write(std::string_view bytes);
    [[nodiscard]] std::int64_t size() const { return size_; }
    // Puts the bytes on the disk under the key, in the place of earlier ones. Answers their SHA-256 in hexadecimal
    // digits. With `sync` false the caller sees to the disk with syncAll.
    Result<std::string> finish(bool sync = true);

   private:
    friend class ContentStore;
    Incoming(std::string path, std::string target, int descriptor)
        : path_(std::move(path)), target_(std::move(target)), descriptor_(descriptor) {}
    Result<void> flush();

    std::string path_;
    std::string target_;
    int descriptor_;
    std::int64_t size_ = 0;
    std::string buffer_;
    Sha256 hasher_;
    bool finished_ = false;
  };

  // Makes the folders below `root` when they are missing and clears what a crash left of single uploads.
  static Result<ContentStore> open(const std::string& root);

  [[nodiscard]] Result<std::unique_ptr<Incoming>> receive(Kind kind, std::string_view key) const;
  [[nodiscard]] Result<std::unique_ptr<StoredFile>> read(Kind kind, std::string_view key) const;
  [[nodiscard]] bool has(Kind kind, std::string_view key) const;
  // With the preview and the parts; what is not there is removed already.
  Result<void> remove(std::string_view key) const;

  // Contents that arrive in parts, in any order, into one file that is not visible under its key before assemble.
  Result<void> beginParts(std::string_view key) const;
  Result<void> writePart(std::string_view key, std::int64_t offset, std::string_view bytes) const;
  Result<void> syncParts(std::string_view key) const;
  Result<void> assemble(std::string_view key, std::int64_t size) const;

  // Everything written so far is on the disk when this returns.
  Result<void> syncAll() const;

 private:
  explicit ContentStore(std::string root) : root_(std::move(root)) {}
  [[nodiscard]] std::string pathOf(Kind kind, std::string_view key) const;
  [[nodiscard]] std::string partsPath(std::string_view key) const;

  std::string root_;
};

}  // namespace vondle::storage
