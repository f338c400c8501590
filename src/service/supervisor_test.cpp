#include "service/supervisor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vondle {
namespace {

constexpr WorkerEnd CRASHED{.exited = false, .status = SIGSEGV};

TEST(SupervisorPolicyTest, EndsAreAnsweredByTheirKind) {
  const struct {
    const char* name;
    WorkerEnd end;
    Duration ranFor;
    bool stopping;
    bool restart;
    Duration delay;
    int exitStatus;
  } cases[] = {
      {"stopped", {true, WORKER_STOPPED}, seconds(5), false, false, {}, 0},
      {"refused", {true, WORKER_REFUSED}, seconds(0.1), false, false, {}, 1},
      {"refused while stopping", {true, WORKER_REFUSED}, seconds(0.1), true, false, {}, 1},
      {"asked for a restart", {true, 0}, seconds(60), false, true, {}, 0},
      {"asked again and again", {true, 0}, seconds(0.5), false, true, seconds(1), 0},
      {"asked while stopping", {true, 0}, seconds(60), true, false, {}, 0},
      {"killed", {false, SIGKILL}, seconds(60), false, true, seconds(0.2), 0},
      {"killed while stopping", {false, SIGKILL}, seconds(60), true, false, {}, 0},
      {"another status", {true, 1}, seconds(60), false, true, seconds(0.2), 0},
  };
  for (const auto& each : cases) {
    SupervisorPolicy policy;
    const auto decision = policy.afterEnd(each.end, each.ranFor, each.stopping);
    EXPECT_EQ(decision.restart, each.restart) << each.name;
    EXPECT_EQ(decision.delay, each.delay) << each.name;
    EXPECT_EQ(decision.exitStatus, each.exitStatus) << each.name;
  }
}

TEST(SupervisorPolicyTest, FastCrashesInARowAreBoundedAndDelayed) {
  SupervisorPolicy policy;
  for (const double delay : {0.2, 0.4, 0.8, 1.6, 3.2}) {
    const auto decision = policy.afterEnd(CRASHED, seconds(29.9), false);
    EXPECT_TRUE(decision.restart);
    EXPECT_EQ(decision.delay, seconds(delay));
  }
  const auto last = policy.afterEnd(CRASHED, seconds(0), false);
  EXPECT_FALSE(last.restart);
  EXPECT_EQ(last.exitStatus, 1);
}

TEST(SupervisorPolicyTest, AWorkerThatLivedLongStartsTheCountAnew) {
  for (const bool asked : {false, true}) {
    SupervisorPolicy policy;
    for (int i = 0; i < SupervisorPolicy::MAX_FAST_CRASHES; ++i) policy.afterEnd(CRASHED, seconds(1), false);
    policy.afterEnd(asked ? WorkerEnd{true, 0} : CRASHED, seconds(30), false);
    EXPECT_TRUE(policy.afterEnd(CRASHED, seconds(1), false).restart) << asked;
  }
}

// Runs the supervisor over a shell script in a process of its own (it wants no threads and takes signals).
class SupervisorTest : public testing::Test {
 protected:
  SupervisorTest() {
    char pattern[] = "/tmp/vondle-supervisor-XXXXXX";
    folder_ = ::mkdtemp(pattern);
  }
  ~SupervisorTest() override { std::filesystem::remove_all(folder_); }

  // The script sees the status pipe as descriptor $fd and its run number in $run; what happens goes into a log.
  pid_t supervise(const std::string& script) {
    const auto path = folder_ + "/worker.sh";
    std::ofstream(path) << "fd=${1#--status-descriptor=}\ncd " << folder_
                        << "\necho >>runs; run=$(wc -l <runs)\n" + script;
    const pid_t process = ::fork();
    if (process != 0) return process;
    std::ofstream log(folder_ + "/log");
    Supervisor supervisor({"/bin/bash", path},
                          {.ready = [&] { log << "ready" << std::endl; },
                           .refused = [&](const std::string& reason) { log << "refused " << reason << std::endl; },
                           .ended = [&](const std::string& line) { log << line << std::endl; },
                           .stopping = [&] { log << "stopping" << std::endl; }});
    ::_exit(supervisor.run());
  }

  static int statusOf(pid_t process) {
    int status = 0;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  std::string log() {
    std::ifstream file(folder_ + "/log");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string folder_;
};

TEST_F(SupervisorTest, AWorkerThatStopsEndsIt) {
  EXPECT_EQ(statusOf(supervise("echo ready >&$fd; exec {fd}>&-; exit 100")), 0);
  EXPECT_EQ(log(), "ready\n");
}

TEST_F(SupervisorTest, ARefusalIsPassedOnAndNotRepeated) {
  EXPECT_EQ(statusOf(supervise("echo 'refused: the folder is not empty' >&$fd; exit 101")), 1);
  EXPECT_EQ(log(), "refused the folder is not empty\n");
}

TEST_F(SupervisorTest, AKilledWorkerIsStartedAgain) {
  EXPECT_EQ(statusOf(supervise("echo ready >&$fd; exec {fd}>&-; [ $run = 1 ] && kill -9 $$; exit 100")), 0);
  EXPECT_EQ(log(), "ready\nthe service was ended by signal 9 (Killed); starting it again\nready\n");
}

TEST_F(SupervisorTest, AWorkerThatAsksIsStartedAgain) {
  EXPECT_EQ(statusOf(supervise("echo ready >&$fd; exec {fd}>&-; [ $run = 1 ] && exit 0; exit 100")), 0);
  EXPECT_EQ(log(), "ready\nthe service ended with status 0; starting it again\nready\n");
}

TEST_F(SupervisorTest, ASignalIsPassedOnAndTheWorkersEndAwaited) {
  // The worker signals its parent, then waits for the signal to come back.
  EXPECT_EQ(statusOf(supervise("exec python3 -c 'import os, signal; os.kill(os.getppid(), signal.SIGTERM); "
                               "signal.sigwait({signal.SIGTERM}); os._exit(100)'")),
            0);
  EXPECT_EQ(log(), "stopping\n");
}

TEST_F(SupervisorTest, AProgramThatIsMissingIsARefusal) {
  const pid_t process = ::fork();
  if (process == 0) {
    std::string reason;
    Supervisor supervisor({"/nowhere/vondle-service"}, {.ready = [] {},
                                                        .refused = [&](const std::string& text) { reason = text; },
                                                        .ended = [](const std::string&) {},
                                                        .stopping = [] {}});
    const int status = supervisor.run();
    ::_exit(status == 1 && reason.starts_with("/nowhere/vondle-service cannot be started") ? 7 : 0);
  }
  EXPECT_EQ(statusOf(process), 7);
}

TEST(ProgramPathTest, IsAbsoluteAndExists) {
  EXPECT_TRUE(programPath().starts_with('/'));
  EXPECT_TRUE(std::filesystem::exists(programPath()));
}

}  // namespace
}  // namespace vondle
