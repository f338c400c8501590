#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "measure.h"
#include "nginx.h"
#include "transfer_rig.h"

// How exactly downloads keep to a limit. A bucket that was full lets one second's worth pass at once, so the rate is
// that of a straight line through what had arrived at each moment after the first two seconds.

namespace vondle::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr double SETTLED = 2;  // seconds
constexpr auto BETWEEN_SAMPLES = std::chrono::milliseconds(20);
constexpr double KILOBYTE = 1024;

struct Sample {
  double at;
  double bytes;
};

double slope(const std::vector<Sample>& samples) {
  const auto count = static_cast<double>(samples.size());
  double atSum = 0, bytesSum = 0;
  for (const auto& [at, bytes] : samples) {
    atSum += at;
    bytesSum += bytes;
  }
  double above = 0, below = 0;
  for (const auto& [at, bytes] : samples) {
    above += (at - atSum / count) * (bytes - bytesSum / count);
    below += (at - atSum / count) * (at - atSum / count);
  }
  return above / below;
}

void measure(const Nginx& nginx, const std::string& home, int kilobytes, int transfers, double seconds) {
  const double rate = kilobytes * KILOBYTE;
  std::vector<Sample> samples;
  double total = 0, elapsed = 0;
  const Cost cost = costOf([&] {
    TransferRig rig(home, fmt::format(R"({{"max_download_kbps": {}}})", kilobytes));
    std::vector<std::shared_ptr<Progress>> progress;
    const auto start = SteadyClock::now();
    for (int i = 0; i < transfers; ++i) {
      progress.push_back(Progress::make());
      rig.transfers().download(nginx.url("endless"), progress.back(), 0, 0, [](const Result<std::string>&) {});
    }
    while (elapsed < seconds) {
      std::this_thread::sleep_for(BETWEEN_SAMPLES);
      total = 0;
      for (const auto& one : progress) total += static_cast<double>(one->completedUnitCount());
      elapsed = std::chrono::duration<double>(SteadyClock::now() - start).count();
      if (elapsed >= SETTLED) samples.push_back({elapsed, total});
    }
    for (const auto& one : progress) one->cancel();
  });
  const double reached = slope(samples);
  report(fmt::format("{} kB/s, {} transfer(s)", kilobytes, transfers), "1 +- 0.03", figure(rate / 1e6, "MB/s"),
         figure(reached / 1e6, "MB/s"), fmt::format("{:.3f}", reached / rate));
  fmt::print("    over all {:.1f} s, less the first second's worth: {:.3f}; processor {:.1f} %\n", elapsed,
             (total - rate) / (rate * elapsed), cost.processorSeconds / cost.seconds * 100);
}

int run(bool isFull) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.path() + "/served");
  std::ofstream(folder.path() + "/served/endless") << 'v';
  std::filesystem::resize_file(folder.path() + "/served/endless", std::uintmax_t{1} << 40);
  const Nginx nginx(folder.path() + "/server", folder.path() + "/served");
  for (const int kilobytes : {100, 1'000, 20'000, 100'000})
    for (const int transfers : {1, 5}) {
      const std::string home = folder.path() + "/home";
      measure(nginx, home, kilobytes, transfers, isFull ? 20 : 8);
      std::filesystem::remove_all(home);
    }
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main(int count, char** words) {
  return vondle::bench::run(vondle::bench::isGiven(count, words, "--full"));
}
