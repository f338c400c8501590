#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/completion.h"
#include "crash_points.h"
#include "platform/log.h"
#include "simulation.h"

namespace vondle::sim {
namespace {

// How many seeds the planted mistake may take to be found.
constexpr std::uint64_t CANARY_SEEDS = 20;
constexpr std::size_t SHOWN_LINES = 40;

struct Arguments {
  std::uint64_t seed = 1;
  std::uint64_t runs = 1;
  unsigned jobs = 1;
  bool isCanary = false;
  bool isShown = false;
  bool showsHashes = false;
};

Simulation* current = nullptr;

void showEnd() {
  if (!current) return;
  const auto& lines = current->trace().lines();
  for (std::size_t i = lines.size() > SHOWN_LINES ? lines.size() - SHOWN_LINES : 0; i < lines.size(); ++i)
    fmt::print("  {}\n", lines[i]);
}

[[noreturn]] void stopped(const char* why) {
  fmt::print("the program stopped: {}\n", why);
  showEnd();
  std::fflush(stdout);
  ::_exit(1);
}

// The service's own words go into the trace.
class TraceLog final : public LogSink {
 public:
  explicit TraceLog(Trace& trace) : trace_(trace) {}
  void write(LogLevel level, std::string_view, std::string_view category, std::string_view message) override {
    if (level == LogLevel::error) trace_.add("  log: {}: {}", category, message);
  }

 private:
  Trace& trace_;
};

// In a process of its own, which ends with it.
[[noreturn]] void runOne(const Arguments& arguments, std::uint64_t seed, const std::string& folder) {
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
    std::signal(signal, [](int number) { stopped(::strsignal(number)); });
  setDroppedCompletionHandler([] { stopped("a completion was dropped unanswered"); });
  CrashPoints::install();
  const std::string own = fmt::format("{}/{}", folder, seed);
  std::filesystem::create_directories(own);
  Simulation simulation({.seed = seed, .isCanary = arguments.isCanary, .isShown = arguments.isShown}, own);
  current = &simulation;
  TraceLog log(simulation.trace());
  setLogSink(&log);
  std::string wrong;
  try {
    simulation.run();
  } catch (const std::exception& error) {
    wrong = error.what();
  }
  std::filesystem::remove_all(own);
  if (arguments.showsHashes) fmt::print("seed {} trace {:016x}\n", seed, simulation.trace().hash());
  if (!wrong.empty()) {
    fmt::print("seed {}: {}\n", seed, wrong);
    if (!arguments.isCanary) showEnd();
    fmt::print("repeat with: ./dev sim {}--seed {} --runs 1\n", arguments.isCanary ? "--canary " : "", seed);
  }
  std::fflush(stdout);
  ::_exit(wrong.empty() ? 0 : 1);
}

std::string makeFolder() {
  std::string folder =
      (std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp") + std::string("/vondle-sim-XXXXXX");
  if (!::mkdtemp(folder.data())) throw std::runtime_error("cannot make " + folder);
  return folder;
}

// Runs the seeds, several at a time. Answers how many failed; with a canary, it ends with the first.
std::uint64_t runAll(const Arguments& arguments, const std::string& folder) {
  std::uint64_t failures = 0;
  std::map<pid_t, std::uint64_t> running;
  std::uint64_t next = 0;
  const std::uint64_t runs = arguments.isCanary ? std::max(arguments.runs, CANARY_SEEDS) : arguments.runs;
  while (next < runs || !running.empty()) {
    while (next < runs && running.size() < arguments.jobs && !(arguments.isCanary && failures > 0)) {
      const auto seed = arguments.seed + next++;
      std::fflush(stdout);
      const pid_t child = ::fork();
      if (child == 0) runOne(arguments, seed, folder);
      running[child] = seed;
    }
    if (running.empty()) break;
    int status = 0;
    const pid_t ended = ::wait(&status);
    const auto seed = running.extract(ended).mapped();
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) continue;
    ++failures;
    if (!WIFEXITED(status)) fmt::print("seed {}: ended by signal {}\n", seed, WTERMSIG(status));
  }
  return failures;
}

int run(const Arguments& arguments) {
  const auto folder = makeFolder();
  const auto began = std::chrono::steady_clock::now();
  const auto failures = runAll(arguments, folder);
  std::filesystem::remove_all(folder);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  if (arguments.isCanary) {
    fmt::print("{}\n", failures > 0 ? "the planted mistake was found" : "THE PLANTED MISTAKE WAS NOT FOUND");
    return failures > 0 ? 0 : 1;
  }
  if (!arguments.showsHashes) fmt::print("{} run(s), {} failed, {:.1f} s\n", arguments.runs, failures, took.count());
  return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace vondle::sim

int main(int argc, char** argv) {
  vondle::sim::Arguments arguments;
  CLI::App app(
      "The simulator: extension, service and storage service on one thread in virtual time, with programs, another "
      "device, faults of the network and deaths of the service, all from one seed. The same seed is the same run. At "
      "the end nothing that was saved may be missing.",
      "./dev sim");
  app.add_option("--seed", arguments.seed, "The first seed (default 1)");
  app.add_option("--runs", arguments.runs, "How many seeds (default 1)");
  app.add_option("--jobs", arguments.jobs, "How many at a time (default 1)")->check(CLI::Range(1, 64));
  app.add_flag("--canary", arguments.isCanary,
               "Plant a mistake: edits leave the queue when they are sent. Succeeds when that is found");
  app.add_flag("--trace", arguments.isShown, "Print every step");
  app.add_flag("--hashes", arguments.showsHashes, "Print one number for all steps of each run, to compare runs");
  CLI11_PARSE(app, argc, argv);
  std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
  return vondle::sim::run(arguments);
}
