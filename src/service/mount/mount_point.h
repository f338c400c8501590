#pragma once

#include <memory>
#include <string>

#include "base/error.h"

namespace vondle {

// A place on the file system where the kernel asks us. As root mounts itself; others through fusermount3.
class MountPoint {
 public:
  // A missing folder is made; a dead mount of ours there is taken off first; a folder that is not
  // empty, and a live mount of ours, are refused, and so is a symbolic link in its place. Errors say what to do.
  static Result<std::unique_ptr<MountPoint>> mount(const std::string& path, const std::string& name, bool readOnly);
  // Unmounts.
  ~MountPoint();
  MountPoint(const MountPoint&) = delete;
  MountPoint& operator=(const MountPoint&) = delete;

  // The /dev/fuse descriptor; the caller owns it from now on.
  [[nodiscard]] int takeDevice();

  // Takes it off the file system at once, also while programs are in it. Does nothing when somebody else has done that.
  void unmount();

 private:
  MountPoint(std::string path, int device, std::string mountID)
      : path_(std::move(path)), device_(device), mountID_(std::move(mountID)) {}

  const std::string path_;
  int device_;
  std::string mountID_;
};

}  // namespace vondle
