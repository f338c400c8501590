#include "mount_rig.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace vondle {

ScratchFolder::ScratchFolder() {
  std::string pattern = "/tmp/vondle-mount-test-XXXXXX";
  path_ = ::mkdtemp(pattern.data());
}

ScratchFolder::~ScratchFolder() {
  while (::umount2((path_ + "/mnt").c_str(), MNT_DETACH) == 0) {
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Program::Program(std::vector<std::string> arguments, const std::string& output) : output_(output) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
  ::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
}

Program::~Program() {
  if (status_) return;
  ::kill(pid_, SIGKILL);
  wait();
}

std::optional<int> Program::wait() {
  int status = 0;
  if (!status_ && eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }))
    status_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  return status_;
}

std::string Program::output() const {
  std::ifstream file(output_);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

ChildProcess::ChildProcess(const std::function<bool()>& action) : pid_(::fork()) {
  if (pid_ == 0) ::_exit(action() ? 0 : 1);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) succeeds();
}

bool ChildProcess::succeeds() {
  int status = 0;
  return ::waitpid(std::exchange(pid_, 0), &status, 0) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

MountRig::MountRig(const ScratchFolder& scratch)
    : extension([&] {
        std::filesystem::create_directories(scratch.path() + "/fetched");
        return scratch.path() + "/fetched";
      }()),
      folder_(scratch.path()),
      mountPoint_(scratch.path() + "/mnt") {}

MountRig::~MountRig() {
  stop();
}

void MountRig::start() {
  const auto error = tryToStart();
  ASSERT_FALSE(error) << error->localizedDescription();
}

std::optional<Error> MountRig::tryToStart() {
  scheduler_ = std::make_unique<AsioScheduler>();
  errors_ = std::make_unique<LastErrors>();
  replica = *Replica::open(folder_ + "/replica.sqlite");
  tree = std::make_unique<Tree>(*replica, *scheduler_);
  if (isWritable_) edits = *LocalEdits::open(folder_ + "/edits.db", *tree, clock_, random_);
  listing = std::make_shared<FolderListing>(*tree, extension, *errors_, *scheduler_, clock_);
  contents = *ContentStore::open(folder_ + "/contents", *tree, extension, *errors_, *scheduler_, clock_);
  tree->subscribe([store = contents](const std::vector<ReplicaChange>& changes) { store->apply(changes); });
  if (isWritable_) edited = *EditedContents::open(folder_ + "/edits", contents, edits, *tree, *scheduler_, clock_);
  auto started = startMount();
  if (started) {
    mount = std::move(*started);
    return std::nullopt;
  }
  stop();
  return started.error();
}

// What it is started with must be gone before the scheduler goes.
Result<std::unique_ptr<Mount>> MountRig::startMount() {
  auto keep =
      [parts =
           KeepAction::Parts{.tree = *tree, .extension = extension, .contents = contents, .scheduler = *scheduler_}](
          Inode inode, KeepAction::Kind kind, auto completion) {
        KeepAction::start(parts, kind, inode, std::move(completion));
      };
  MountOptions options{.path = mountPoint_, .readOnly = isReadOnly_, .keep = std::move(keep)};
  if (showsTrash_) options.extension = &extension;
  return Mount::start(options, *tree, *listing, *contents, *scheduler_, clock_, {edits, edited});
}

std::optional<Error> MountRig::tryToMountAgain() {
  auto second = Mount::start({.path = mountPoint_}, *tree, *listing, *contents, *scheduler_, clock_);
  return second ? std::nullopt : std::optional(second.error());
}

void MountRig::stop() {
  if (!scheduler_) return;
  mount.reset();
  listing->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
  contents->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
  extension.letAnswersGo();
  // The queues must be empty before what they use goes.
  std::promise<void> settled;
  tree->applyUpdates({}, [&] { settled.set_value(); });
  settled.get_future().wait();
  listing.reset();
  const std::weak_ptr<EditedContents> written = std::exchange(edited, nullptr);
  eventually([&] { return written.expired(); });
  const std::weak_ptr<ContentStore> store = std::exchange(contents, nullptr);
  const std::weak_ptr<LocalEdits> queue = std::exchange(edits, nullptr);
  tree.reset();
  eventually([&] { return store.expired() && queue.expired(); });
  replica.reset();
  errors_.reset();
  scheduler_.reset();
}

void MountRig::restart() {
  stop();
  start();
}

void MountRig::announce(std::vector<Item> updates, std::vector<ItemIdentifier> deletions) {
  std::promise<void> applied;
  tree->applyNews(std::move(updates), std::move(deletions), [&] { applied.set_value(); });
  applied.get_future().wait();
  mount->waitUntilShown();
}

std::string MountRig::shell(const std::string& command) {
  Program program({"timeout", "10", "sh", "-c", fmt::format("cd {} && {}", mountPoint_, command)},
                  fmt::format("{}/output-{}", folder_, ++programs_));
  program.wait();
  return program.output();
}

}  // namespace vondle
