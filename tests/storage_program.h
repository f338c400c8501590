#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vondle::storage {

// A run of vondle-storage (STORAGE_PROGRAM is its path); killed at the end of its life when it still runs.
class StorageProgram {
 public:
  explicit StorageProgram(const std::vector<std::string>& arguments) {
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    EXPECT_EQ(pipe2(out.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err.data(), O_CLOEXEC), 0);
    fcntl(err[1], F_SETPIPE_SZ, 1 << 20);  // what the program says is read at the end only
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<std::string> all{STORAGE_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (auto& argument : all) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, STORAGE_PROGRAM, &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~StorageProgram() {
    if (pid_ > 0) end(SIGKILL);
    ::close(out_);
    ::close(err_);
  }
  StorageProgram(const StorageProgram&) = delete;
  StorageProgram& operator=(const StorageProgram&) = delete;

  // The port of the line that says it is ready; 0 when the program ends first.
  int port() {
    std::string line;
    char c = 0;
    while (::read(out_, &c, 1) == 1 && c != '\n') line += c;
    const std::string start = "vondle-storage listening on http://127.0.0.1:";
    if (!line.starts_with(start)) return 0;
    return std::atoi(line.c_str() + start.size());
  }
  void signal(int number) const { ::kill(pid_, number); }
  // The exit code, or the negative number of the signal that ended it.
  int wait() {
    int status = 0;
    EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  int end(int number) {
    signal(number);
    return wait();
  }
  // The most memory that it ever took, in KiB.
  [[nodiscard]] long peakMemory() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + 6);
    return -1;
  }
  std::string output() { return all(out_); }
  std::string errors() { return all(err_); }

 private:
  static std::string all(int descriptor) {
    std::string text;
    std::array<char, 4096> bytes{};
    for (ssize_t count = 0; (count = ::read(descriptor, bytes.data(), bytes.size())) > 0;)
      text.append(bytes.data(), static_cast<std::size_t>(count));
    return text;
  }

  pid_t pid_ = 0;
  int out_ = -1;
  int err_ = -1;
};

}  // namespace vondle::storage
