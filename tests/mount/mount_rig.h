#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/asio_scheduler.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_random.h"
#include "service/contents/content_store.h"
#include "service/contents/edited_contents.h"
#include "service/edits/local_edits.h"
#include "service/listing/folder_listing.h"
#include "service/mount/mount.h"
#include "service/replica/tree.h"
#include "testing/fake_extension.h"

namespace vondle {

// A folder below /tmp that goes with the test, and what is mounted in it.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A program that runs beside the test; killed at the end if it still runs.
class Program {
 public:
  // Its output goes to a file.
  Program(std::vector<std::string> arguments, const std::string& output);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  // The exit status, minus the signal that ended it, or none after ten seconds.
  std::optional<int> wait();
  [[nodiscard]] std::string output() const;

 private:
  pid_t pid_ = 0;
  std::string output_;
  std::optional<int> status_;
};

// A copy of this process that does something and ends. Who maps a file into memory to write to it must not be the
// process that serves the mount: while the kernel writes the pages of a mapping back, its process can get no memory.
class ChildProcess {
 public:
  // The action makes system calls and allocates nothing: other threads may have held locks.
  explicit ChildProcess(const std::function<bool()>& action);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Waits for what the action answers.
  bool succeeds();

 private:
  pid_t pid_;
};

// True as soon as the condition holds; false after ten seconds.
bool eventually(const std::function<bool()>& condition);

// The service's half that faces the kernel, real but for the extension.
class MountRig {
 public:
  explicit MountRig(const ScratchFolder& scratch);
  ~MountRig();

  // Programs can change the folder from the next start on. What they write lies in `edits` below the scratch folder.
  void makeWritable() { isWritable_ = true; }
  // The trash is shown from the next start on.
  void showTrash() { showsTrash_ = true; }
  void makeReadOnly() { isReadOnly_ = true; }
  // Stops the service and starts it again on the same state.
  void restart();
  void start();
  // The error of a start that fails.
  std::optional<Error> tryToStart();
  std::optional<Error> tryToMountAgain();
  void stop();

  // Tells the tree what the server says changed, and waits until the mount shows it.
  void announce(std::vector<Item> updates, std::vector<ItemIdentifier> deletions = {});

  [[nodiscard]] std::string path(const std::string& below = {}) const { return mountPoint_ + below; }
  // Of a shell command run in the mounted folder, with a limit of ten seconds.
  std::string shell(const std::string& command);

  FakeExtension extension;
  std::unique_ptr<Replica> replica;
  std::unique_ptr<Tree> tree;
  std::shared_ptr<FolderListing> listing;
  std::shared_ptr<ContentStore> contents;
  std::shared_ptr<LocalEdits> edits;  // null when the folder is not writable
  std::shared_ptr<EditedContents> edited;
  std::unique_ptr<Mount> mount;

 private:
  Result<std::unique_ptr<Mount>> startMount();

  const std::string folder_;
  const std::string mountPoint_;
  LinuxClock clock_;
  LinuxRandom random_;
  bool isWritable_ = false;
  bool isReadOnly_ = false;
  bool showsTrash_ = false;
  std::unique_ptr<AsioScheduler> scheduler_;
  std::unique_ptr<LastErrors> errors_;
  int programs_ = 0;
};

}  // namespace vondle
