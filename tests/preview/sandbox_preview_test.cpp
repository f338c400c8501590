#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include "platform/linux/helper_preview_renderer.h"

namespace vondle {
namespace {

// The real helper, which waits for its first byte: by then it is in its sandbox. Looked at, and made to do things, from
// outside as a debugger would.
class SandboxPreviewTest : public testing::TestWithParam<const char*> {
 protected:
  SandboxPreviewTest() {
    std::array<int, 2> in;
    std::array<int, 2> out;
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    input_ = in[1];
    output_ = out[0];
    const std::string program = HelperPreviewRenderer::helperBesideProgram();
    std::vector<std::string> arguments = {program, GetParam(), "400", "82"};
    if (arguments[1] == "video") arguments.insert(arguments.begin() + 2, "400");
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::array<char*, 1> environment = {nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const int error = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    if (error != 0) throw std::runtime_error("the helper does not start");
    waitUntilItReads();
  }
  ~SandboxPreviewTest() override {
    close(input_);
    close(output_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // One line of a file of /proc about the helper, after the name it begins with.
  [[nodiscard]] std::string fact(const std::string& file, const std::string& name) const {
    std::ifstream stream("/proc/" + std::to_string(pid_) + "/" + file);
    for (std::string line; std::getline(stream, line);)
      if (line.starts_with(name)) return line.substr(line.find_first_not_of(" \t", name.size()));
    return {};
  }

  // Behind the filter, there is nothing else to read than the input.
  void waitUntilItReads() {
    const std::string reading = std::to_string(SYS_read) + " ";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (fact("status", "Seccomp:") != "2" || fact("syscall", reading).empty()) {
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the helper does not read");
      poll(nullptr, 0, 2);
    }
  }

  // Its exit status when its input ends.
  int exitStatus() {
    close(input_);
    input_ = -1;
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Stops the helper for the calls below; its stack holds a path then.
  void takeOver(const char* path) {
    ASSERT_EQ(ptrace(PTRACE_ATTACH, pid_, nullptr, nullptr), 0);
    ASSERT_EQ(waitpid(pid_, nullptr, 0), pid_);
    ASSERT_EQ(ptrace(PTRACE_GETREGS, pid_, nullptr, &registers_), 0);
    constexpr long SYSCALL = 0x050F;
    ASSERT_EQ(ptrace(PTRACE_PEEKTEXT, pid_, registers_.rip - 2, nullptr) & 0xFFFF, SYSCALL);
    path_ = static_cast<long>((registers_.rsp - 4096) & ~7ull);
    std::array<long, 8> words{};
    std::strncpy(reinterpret_cast<char*>(words.data()), path, sizeof words - 1);
    for (std::size_t i = 0; i < words.size(); ++i)
      ASSERT_EQ(ptrace(PTRACE_POKEDATA, pid_, path_ + static_cast<long>(i * sizeof(long)), words[i]), 0);
  }

  // Makes the helper do this system call and answers its result.
  long call(long number, std::array<long, 6> arguments) {
    auto registers = registers_;
    registers.rip -= 2;
    registers.rax = static_cast<unsigned long long>(number);
    registers.orig_rax = ~0ull;
    registers.rdi = static_cast<unsigned long long>(arguments[0]);
    registers.rsi = static_cast<unsigned long long>(arguments[1]);
    registers.rdx = static_cast<unsigned long long>(arguments[2]);
    registers.r10 = static_cast<unsigned long long>(arguments[3]);
    registers.r8 = static_cast<unsigned long long>(arguments[4]);
    registers.r9 = static_cast<unsigned long long>(arguments[5]);
    int status = 0;
    if (ptrace(PTRACE_SETREGS, pid_, nullptr, &registers) != 0 ||
        ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) != 0 || waitpid(pid_, &status, 0) != pid_ ||
        !WIFSTOPPED(status) || ptrace(PTRACE_GETREGS, pid_, nullptr, &registers) != 0)
      throw std::runtime_error("the helper got out of hand");
    return static_cast<long>(registers.rax);
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  long path_ = 0;
  user_regs_struct registers_{};
};

struct Call {
  const char* what;
  long number;
  std::array<long, 6> arguments;
  long result;
};

TEST_P(SandboxPreviewTest, IsFilteredCannotGainRightsAndIsLimited) {
  EXPECT_EQ(fact("status", "Seccomp:"), "2");
  EXPECT_EQ(fact("status", "NoNewPrivs:"), "1");
  EXPECT_THAT(fact("limits", "Max open files"), testing::StartsWith("64 "));
  EXPECT_THAT(fact("limits", "Max core file size"), testing::StartsWith("0 "));
  EXPECT_THAT(fact("limits", "Max file size"), testing::StartsWith("8388608 "));
  EXPECT_THAT(fact("limits", "Max cpu time"), testing::StartsWith(std::string(GetParam()) == "video" ? "60 " : "20 "));
#ifndef VONDLE_SANITIZED
  EXPECT_THAT(fact("limits", "Max address space"), testing::StartsWith("1610612736 "));
#endif
  EXPECT_EQ(exitStatus(), 1);
}

TEST_P(SandboxPreviewTest, TheKernelRefusesFilesSocketsProcessesAndNewCode) {
  takeOver("/etc/passwd");
  ASSERT_EQ(call(SYS_getpid, {}), pid_);  // so the calls below are really made
  const Call calls[] = {
      {"open", SYS_open, {path_, O_RDONLY}, -ENOENT},
      {"openat", SYS_openat, {AT_FDCWD, path_, O_RDONLY}, -ENOENT},
      {"openat to write", SYS_openat, {AT_FDCWD, path_, O_WRONLY | O_CREAT, 0600}, -ENOENT},
      {"stat", SYS_stat, {path_, path_}, -ENOENT},
      {"access", SYS_access, {path_, R_OK}, -ENOENT},
      {"creat", SYS_creat, {path_, 0600}, -EPERM},
      {"unlink", SYS_unlink, {path_}, -EPERM},
      {"rename", SYS_rename, {path_, path_}, -EPERM},
      {"mkdir", SYS_mkdir, {path_, 0700}, -EPERM},
      {"socket", SYS_socket, {2, 1, 0}, -EPERM},
      {"socketpair", SYS_socketpair, {1, 1, 0, path_}, -EPERM},
      {"memfd_create", SYS_memfd_create, {path_, 0}, -EPERM},
      {"execve", SYS_execve, {path_, 0, 0}, -EPERM},
      {"execveat", SYS_execveat, {AT_FDCWD, path_, 0, 0, 0}, -EPERM},
      {"fork", SYS_fork, {}, -EPERM},
      {"vfork", SYS_vfork, {}, -EPERM},
      {"clone of a process", SYS_clone, {SIGCHLD, 0, 0, 0, 0}, -EPERM},
      {"clone3", SYS_clone3, {path_, 64}, -ENOSYS},
      {"kill", SYS_kill, {getpid(), 0}, -EPERM},
      {"ptrace", SYS_ptrace, {PTRACE_ATTACH, getpid()}, -EPERM},
      {"process_vm_readv", SYS_process_vm_readv, {getpid(), path_, 1, path_, 1, 0}, -EPERM},
      {"executable memory", SYS_mmap, {0, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0}, -EPERM},
      {"memory made executable", SYS_mprotect, {path_ & ~4095l, 4096, PROT_READ | PROT_EXEC}, -EPERM},
      {"io_uring_setup", SYS_io_uring_setup, {1, path_}, -EPERM},
      {"bpf", SYS_bpf, {0, path_, 64}, -EPERM},
      {"setrlimit", SYS_setrlimit, {7, path_}, -EPERM},
  };
  for (const auto& test : calls) EXPECT_EQ(call(test.number, test.arguments), test.result) << test.what;
}

INSTANTIATE_TEST_SUITE_P(Kinds, SandboxPreviewTest, testing::Values("picture", "video"),
                         [](const auto& kind) { return std::string(kind.param); });

}  // namespace
}  // namespace vondle
