#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "base/mutex.h"
#include "measure.h"
#include "nginx.h"
#include "transfer_rig.h"

// What the transfer engine costs over plain curl, from a server on this machine into files.

namespace vondle::bench {
namespace {

constexpr int PARALLEL = 5;
constexpr int SMALL_FILES = 10'000;
constexpr std::size_t SMALL_SIZE = 4096;

struct Measurement {
  explicit Measurement(bool isFull)
      : bigSize((isFull ? std::int64_t{2} : std::int64_t{1}) << 30), budget(isFull ? 60 : 15) {
    std::filesystem::create_directory(folder.path() + "/served");
    makeFile("big", bigSize);
    makeFile("part", bigSize / PARALLEL);
    for (int i = 0; i < SMALL_FILES; ++i) makeFile(fmt::format("small-{}", i), SMALL_SIZE);
  }

  void makeFile(const std::string& name, std::int64_t size) const {
    const std::string path = folder.path() + "/served/" + name;
    std::ofstream file(path, std::ios::binary);
    const std::string block(static_cast<std::size_t>(std::min<std::int64_t>(size, 1 << 20)), 'v');
    for (std::int64_t left = size; left > 0; left -= static_cast<std::int64_t>(block.size()))
      file.write(block.data(), std::min(left, static_cast<std::int64_t>(block.size())));
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
  }

  // Into a folder of its own each time. Small files stay until the end: ext4 is slow to make files for seconds after
  // many were deleted.
  Cost curl(const std::vector<std::string>& names) {
    const std::string list = folder.path() + "/list";
    const std::string target = fmt::format("{}/curl-{}", folder.path(), ++curlRuns);
    std::filesystem::create_directory(target);
    std::ofstream text(list);
    for (std::size_t i = 0; i < names.size(); ++i)
      text << fmt::format("url = \"{}\"\noutput = \"{}/{}\"\n", nginx.url(names[i]), target, i);
    text.close();
    const Cost cost = costOfProgram(names.size() == 1 ? std::vector<std::string>{"curl", "-s", "--fail", "-K", list}
                                                      : std::vector<std::string>{"curl", "-s", "--fail", "--parallel",
                                                                                 "--parallel-max",
                                                                                 std::to_string(PARALLEL), "-K", list});
    if (names.size() <= PARALLEL) std::filesystem::remove_all(target);
    return cost;
  }

  Cost engine(const std::vector<std::string>& names) {
    const Cost cost = costOf([&] {
      Mutex lock;
      ConditionVariable done;
      std::size_t left = names.size();
      bool failed = false;
      for (const auto& name : names)
        rig.transfers().download(nginx.url(name), Progress::make(), 0, 0, [&](const Result<std::string>& path) {
          MutexLock hold(lock);
          failed = failed || !path;
          if (--left == 0) done.notify_all();
        });
      MutexLock hold(lock);
      while (left > 0) done.wait(hold);
      if (failed) throw std::runtime_error("a download failed");
    });
    if (names.size() <= PARALLEL) empty(folder.path() + "/home/.local/share/vondle/temporary");
    return cost;
  }

  static void empty(const std::string& path) {
    for (const auto& file : std::filesystem::directory_iterator(path)) std::filesystem::remove(file.path());
  }

  void run(const std::string& what, const std::vector<std::string>& names, std::int64_t bytes, std::string_view asked,
           bool showsProcessor) {
    const auto comparison = compare(budget, [&] { return curl(names); }, [&] { return engine(names); });
    const auto speed = [&](const Cost& cost) {
      return names.size() > PARALLEL ? figure(static_cast<double>(names.size()) / cost.seconds, "files/s")
                                     : figure(static_cast<double>(bytes) / 1e6 / cost.seconds, "MB/s");
    };
    report(what + ", throughput", asked, speed(comparison.reference), speed(comparison.ours),
           fmt::format("{:.2f}", 1 / comparison.timeRatio));
    if (showsProcessor)
      report(what + ", processor time", "<= 1.3", figure(comparison.reference.processorSeconds, "s"),
             figure(comparison.ours.processorSeconds, "s"), fmt::format("{:.2f}", comparison.processorRatio));
  }

  const std::int64_t bigSize;
  const double budget;
  int curlRuns = 0;
  TemporaryFolder folder;
  Nginx nginx{folder.path() + "/server", folder.path() + "/served"};
  TransferRig rig{folder.path() + "/home", "{}"};
};

int run(bool isFull) {
  Measurement measurement(isFull);
  const auto size = measurement.bigSize;
  measurement.run(fmt::format("download of {} GiB against curl", size >> 30), {"big"}, size, ">= 0.95", true);
  measurement.run(fmt::format("{} downloads of {} MiB at once", PARALLEL, size / PARALLEL >> 20),
                  std::vector<std::string>(PARALLEL, "part"), size, ">= 0.95", true);
  std::vector<std::string> small;
  for (int i = 0; i < SMALL_FILES; ++i) small.push_back(fmt::format("small-{}", i));
  measurement.run(fmt::format("{} downloads of 4 KiB, {} at once", SMALL_FILES, PARALLEL), small,
                  SMALL_FILES * static_cast<std::int64_t>(SMALL_SIZE), ">= 0.9", true);
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main(int count, char** words) {
  return vondle::bench::run(vondle::bench::isGiven(count, words, "--full"));
}
