#include "measure.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

namespace vondle::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t MIN_ROUNDS = 3;
constexpr std::size_t MAX_ROUNDS = 9;

double secondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

double processorSeconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double processorSecondsOfThisProcess() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return processorSeconds(usage);
}

}  // namespace

Cost costOf(const std::function<void()>& work) {
  const auto start = SteadyClock::now();
  const double before = processorSecondsOfThisProcess();
  work();
  return {.seconds = secondsSince(start), .processorSeconds = processorSecondsOfThisProcess() - before};
}

Cost costOfProgram(const std::vector<std::string>& words, const std::string& input) {
  std::vector<char*> arguments;
  for (const auto& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
  const auto start = SteadyClock::now();
  pid_t pid = 0;
  const int failed = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  if (failed != 0 || ::wait4(pid, &status, 0, &usage) != pid || status != 0)
    throw std::runtime_error(words[0] + " failed");
  return {secondsSince(start), processorSeconds(usage), static_cast<double>(usage.ru_maxrss) * 1024};
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values.at(values.size() / 2);
}

Comparison compare(double budgetSeconds, const std::function<Cost()>& reference, const std::function<Cost()>& ours) {
  reference();
  ours();
  const auto start = SteadyClock::now();
  std::vector<double> referenceTimes, referenceProcessor, ourTimes, ourProcessor, timeRatios, processorRatios;
  while (timeRatios.size() < MIN_ROUNDS || (timeRatios.size() < MAX_ROUNDS && secondsSince(start) < budgetSeconds)) {
    const Cost theirs = reference();
    const Cost mine = ours();
    referenceTimes.push_back(theirs.seconds);
    referenceProcessor.push_back(theirs.processorSeconds);
    ourTimes.push_back(mine.seconds);
    ourProcessor.push_back(mine.processorSeconds);
    timeRatios.push_back(mine.seconds / theirs.seconds);
    processorRatios.push_back(mine.processorSeconds / theirs.processorSeconds);
  }
  return {.reference = {.seconds = median(referenceTimes), .processorSeconds = median(referenceProcessor)},
          .ours = {.seconds = median(ourTimes), .processorSeconds = median(ourProcessor)},
          .timeRatio = median(timeRatios),
          .processorRatio = median(processorRatios)};
}

void report(std::string_view what, std::string_view asked, std::string_view reference, std::string_view ours,
            std::string_view ratio) {
  fmt::print("{:<58} asked {:<12} reference {:<14} ours {:<14} ratio {}\n", what, asked,
             reference.empty() ? "-" : reference, ours, ratio.empty() ? "-" : ratio);
  std::fflush(stdout);
}

std::string figure(double value, std::string_view unit) {
  return fmt::format("{:.{}f} {}", value, value >= 100 ? 0 : value >= 10 ? 1 : 3, unit);
}

bool isGiven(int count, char** words, std::string_view option) {
  return std::ranges::find(words, words + count, option, [](const char* word) { return std::string_view(word); }) !=
         words + count;
}

TemporaryFolder::TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "vondle-bench.XXXXXX") {
  if (!::mkdtemp(path_.data())) throw std::runtime_error("no temporary folder can be made");
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace vondle::bench
