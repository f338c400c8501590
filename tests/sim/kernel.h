#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/scheduler.h"
#include "service/mount/fuse_handler.h"

namespace vondle::sim {

// What a system call comes back with.
struct KernelAnswer {
  int error = 0;  // errno
  NodeAttributes node{};
  std::uint64_t handle = 0;
  std::string bytes{};
  std::size_t written = 0;
};

// The kernel's side of the folder, without the kernel: asks the handler on behalf of programs, and wakes them on a
// queue of their own. It caches nothing.
class Kernel {
 public:
  using Then = std::move_only_function<void(KernelAnswer)>;

  Kernel(std::shared_ptr<FuseHandler> handler, Scheduler& scheduler);

  void lookup(Inode folder, std::string name, Then then);
  void open(Inode inode, OpenMode mode, Then then);
  void read(Inode inode, std::int64_t offset, std::size_t size, Then then);
  void flush(Inode inode, Then then);
  void release(Inode inode, OpenMode mode, Then then);
  void list(Inode folder, Then then);  // bytes: nothing; the folder is listed then
  void create(Inode folder, std::string name, bool mayExist, Then then);
  void makeFolder(Inode folder, std::string name, Then then);
  void removeFile(Inode folder, std::string name, Then then);
  void removeFolder(Inode folder, std::string name, Then then);
  void rename(Inode folder, std::string name, Inode toFolder, std::string toName, bool mayReplace, Then then);
  void change(Inode inode, const AttributeChange& change, Then then);
  void write(Inode inode, std::string_view data, std::int64_t offset, Then then);
  void sync(Inode inode, Then then);

  // Those that wait for the network hear that their program was interrupted.
  void interruptAll();

 private:
  FuseRequest request(Then then);

  const std::shared_ptr<FuseHandler> handler_;
  const std::shared_ptr<FuseChannel> channel_;
};

}  // namespace vondle::sim
