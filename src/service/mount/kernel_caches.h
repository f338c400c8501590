#pragma once

#include <string>

#include "service/inode.h"

namespace vondle {

// What the kernel remembers of the folder, and how to make it forget. Each call may wait for requests on the same
// folder or file to be answered, so it must come from a thread that answers none and holds no lock.
class KernelCaches {
 public:
  virtual ~KernelCaches() = default;
  virtual void forgetEntry(Inode folder, const std::string& name) = 0;
  // The name's item is gone for good; those who hold it see no links to it.
  virtual void forgetItem(Inode folder, const std::string& name, Inode inode) = 0;
  virtual void forgetAttributes(Inode inode) = 0;
  virtual void forgetContents(Inode inode) = 0;  // and attributes
};

}  // namespace vondle
