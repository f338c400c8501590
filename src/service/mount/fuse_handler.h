#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "service/inode.h"
#include "service/mount/fuse_request.h"

namespace vondle {

// How a program opens a file.
struct OpenMode {
  bool writes = false;
  bool truncates = false;  // to nothing
};

// What a program wants changed; what is absent stays.
struct AttributeChange {
  std::optional<unsigned> permissions;  // 0 to 0777
  std::optional<std::int64_t> size;
  std::optional<timespec> modified;  // UTIME_NOW means now
};

// Who answers the kernel. Called on several threads at once; nothing may block. On a folder that is mounted for
// reading, requests that would change something are answered by the kernel.
class FuseHandler {
 public:
  virtual ~FuseHandler() = default;
  virtual void lookup(FuseRequest request, Inode folder, std::string name) = 0;
  virtual void attributes(FuseRequest request, Inode inode) = 0;
  virtual void open(FuseRequest request, Inode inode, OpenMode mode) = 0;
  virtual void read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) = 0;
  // A program closed a descriptor of the file, perhaps by dying; others may still have it open.
  virtual void flush(FuseRequest request, Inode inode) = 0;
  virtual void release(FuseRequest request, Inode inode, OpenMode mode) = 0;  // once for each open
  virtual void openFolder(FuseRequest request, Inode folder) = 0;
  virtual void readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                          std::size_t room) = 0;
  virtual void releaseFolder(FuseRequest request, std::uint64_t handle) = 0;
  virtual void statistics(FuseRequest request) = 0;
  virtual void forget(Inode inode) = 0;  // the kernel holds nothing of it any more

  // Makes the file, unless it is there (and may be), and opens it. `permissions` are as in AttributeChange.
  virtual void create(FuseRequest request, Inode folder, std::string name, unsigned permissions, OpenMode mode,
                      bool mayExist) = 0;
  virtual void makeFile(FuseRequest request, Inode folder, std::string name, unsigned permissions) = 0;
  virtual void makeFolder(FuseRequest request, Inode folder, std::string name, unsigned permissions) = 0;
  virtual void removeFile(FuseRequest request, Inode folder, std::string name) = 0;
  virtual void removeFolder(FuseRequest request, Inode folder, std::string name) = 0;
  virtual void rename(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName,
                      bool mayReplace) = 0;
  virtual void change(FuseRequest request, Inode inode, const AttributeChange& change) = 0;
  // The data is there during the call only. isAppend: at the end of the file, which the offset should be.
  virtual void write(FuseRequest request, Inode inode, std::string_view data, std::int64_t offset, bool isAppend) = 0;
  virtual void allocate(FuseRequest request, Inode inode, int mode, std::int64_t offset, std::int64_t length) = 0;
  // Of extended attributes whose names begin with "user."; a program has so many bytes for the value, or asks with 0
  // how many it takes. No value: the attribute is removed.
  virtual void readAttribute(FuseRequest request, Inode inode, std::string name, std::size_t room) = 0;
  virtual void setAttribute(FuseRequest request, Inode inode, std::string name, std::optional<std::string> value,
                            int flags) = 0;
  // What was done before is to survive power loss.
  virtual void sync(FuseRequest request, Inode inode) = 0;
};

}  // namespace vondle
