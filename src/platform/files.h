#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/time.h"

namespace vondle {

// A file open for writing, from its start. One owner at a time.
class WritableFile {
 public:
  virtual ~WritableFile() = default;                                 // closes, errors ignored
  virtual Result<void> write(std::span<const std::byte> bytes) = 0;  // all of them or an error
  virtual Result<void> close() = 0;                                  // once; nothing may be written afterwards
};

// A file open for reading at any offset. Any thread.
class ReadableFile {
 public:
  virtual ~ReadableFile() = default;
  // Up to buffer.size() bytes; 0 at the end.
  virtual Result<std::size_t> readAt(std::int64_t offset, std::span<std::byte> buffer) = 0;
};

struct FileAttributes {
  std::int64_t size = 0;
  Timestamp modified;
  bool isFolder = false;
  unsigned permissions = 0;  // 0 to 0777
};

// Of a file system, in bytes.
struct DiskSpace {
  std::int64_t size = 0;
  std::int64_t free = 0;  // for this user
};

// The file system, for the extension's small state files and the contents it moves. Paths are absolute texts. Any
// thread. Errors are of POSIX_ERROR_DOMAIN (code: errno).
class Files {
 public:
  virtual ~Files() = default;

  virtual Result<std::string> read(const std::string& path) = 0;
  // Temporary file in the same folder, fsync, rename, fsync of the folder: readers see the old bytes or the new ones.
  // New files get the permissions given; a file that is replaced keeps its own.
  virtual Result<void> writeAtomically(const std::string& path, std::string_view bytes,
                                       unsigned permissions = 0600) = 0;
  virtual Result<FileAttributes> attributes(const std::string& path) = 0;
  virtual Result<void> setPermissions(const std::string& path, unsigned permissions) = 0;
  virtual Result<void> remove(const std::string& path) = 0;  // a file
  virtual Result<void> rename(const std::string& from, const std::string& to) = 0;
  virtual Result<void> hardLink(const std::string& from, const std::string& to) = 0;
  // With the folders above it, each 0700; an existing folder is success.
  virtual Result<void> createFolder(const std::string& path) = 0;
  virtual Result<std::unique_ptr<WritableFile>> create(const std::string& path) = 0;  // 0600, emptied when it exists
  virtual Result<std::unique_ptr<ReadableFile>> open(const std::string& path) = 0;
  // Of the file system that the path, which exists, is on.
  virtual Result<DiskSpace> space(const std::string& path) = 0;

  // Where temporary files go, without a final slash; exists.
  virtual std::string temporaryFolder() = 0;
  // The folder that processes of one application group share, without a final slash, made on first use (0700); none
  // when it can't be had.
  virtual std::optional<std::string> applicationGroupContainer(std::string_view group) = 0;

  // Absent when the file is missing or can't be examined.
  std::optional<Timestamp> modificationTime(const std::string& path);
  bool exists(const std::string& path);
};

}  // namespace vondle
