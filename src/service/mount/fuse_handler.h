#pragma once

#include <cstdint>
#include <string>

#include "service/inode.h"
#include "service/mount/fuse_request.h"

namespace vondle {

// Who answers the kernel. Called on several threads at once; nothing may block. Requests that would change something do
// not come: the folder is mounted for reading.
class FuseHandler {
 public:
  virtual ~FuseHandler() = default;
  virtual void lookup(FuseRequest request, Inode folder, std::string name) = 0;
  virtual void attributes(FuseRequest request, Inode inode) = 0;
  virtual void open(FuseRequest request, Inode inode) = 0;
  virtual void read(FuseRequest request, Inode inode, std::int64_t offset, std::size_t size) = 0;
  // A program closed a descriptor of the file, perhaps by dying; others may still have it open.
  virtual void flush(FuseRequest request, Inode inode) = 0;
  virtual void release(FuseRequest request, Inode inode) = 0;  // once for each open
  virtual void openFolder(FuseRequest request, Inode folder) = 0;
  virtual void readFolder(FuseRequest request, Inode folder, std::uint64_t handle, std::int64_t offset,
                          std::size_t room) = 0;
  virtual void releaseFolder(FuseRequest request, std::uint64_t handle) = 0;
  virtual void statistics(FuseRequest request) = 0;
  virtual void forget(Inode inode) = 0;  // the kernel holds nothing of it any more
};

}  // namespace vondle
