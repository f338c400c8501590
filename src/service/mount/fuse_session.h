#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "platform/scheduler.h"
#include "service/mount/fuse_handler.h"
#include "service/mount/kernel_caches.h"

namespace vondle {

// The conversation with the kernel over one /dev/fuse descriptor: reads requests on a few threads and hands them to the
// handler. The only user of libfuse.
class FuseSession final : public KernelCaches {
 public:
  static constexpr int THREADS = 4;

  // Takes the descriptor over. The handler outlives the session; interrupts come on the scheduler's threads. `ended`
  // runs once when the kernel ends the conversation (the folder was unmounted), not after stop; it must not call back.
  static Result<std::unique_ptr<FuseSession>> open(int device, FuseHandler& handler, Scheduler& scheduler,
                                                   std::function<void()> ended);
  ~FuseSession() override;

  // Requests are handed out from now on.
  void serve();

  // No request is handed out any more when it returns. Those not answered yet still can be.
  void stop();

  void forgetEntry(Inode folder, const std::string& name) override;
  void forgetItem(Inode folder, const std::string& name, Inode inode) override;
  void forgetAttributes(Inode inode) override;
  void forgetContents(Inode inode) override;

 private:
  explicit FuseSession(std::shared_ptr<FuseChannel> channel);

  std::shared_ptr<FuseChannel> channel_;
  std::vector<std::thread> threads_;
};

}  // namespace vondle
