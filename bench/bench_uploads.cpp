#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "api/vondle_api.h"
#include "base/mutex.h"
#include "config/config_loader.h"
#include "measure.h"
#include "nginx.h"
#include "platform/linux/helper_preview_renderer.h"
#include "preview/client_thumb.h"
#include "testing/simulated_keychain.h"
#include "transfer_rig.h"
#include "upload/multipart_resume.h"
#include "upload/multipart_upload.h"

// What uploads cost over plain curl, from files to a server on this machine, and how much memory they take.

namespace vondle::bench {
namespace {

constexpr std::int64_t MEBIBYTE = 1 << 20;
constexpr std::int64_t WHOLE_SIZE = 90 * MEBIBYTE;
constexpr int AT_ONCE = 5;
constexpr std::int64_t LARGE_SIZE = 1024 * MEBIBYTE;
constexpr std::int64_t PART_SIZE = 64 * MEBIBYTE;
constexpr int PARTS = LARGE_SIZE / PART_SIZE;
constexpr int PARTS_AT_ONCE = 3;

class UploadRig : public TransferRig {
 public:
  using TransferRig::TransferRig;

  void sendInParts(const std::string& file, Completion<Result<std::string>> completion) {
    std::make_shared<MultipartUpload>(
        UploadServices{api_, transfers_, resume_, thumbs_, largeUpload_, limits_, files_, scheduler_, random_},
        MultipartUpload::Job{.file = file,
                             .key = "bench/large",
                             .uploadID = "u",
                             .size = LARGE_SIZE,
                             .partSize = PART_SIZE,
                             .resumeID = "large"},
        Progress::make(), std::move(completion))
        ->start();
  }

 private:
  SimulatedKeychain keychain_;
  ConfigLoader config_{files_, keychain_, Paths(users_)};
  HelperPreviewRenderer previews_;
  MultipartResume resume_{files_, clock_};
  VondleAPI api_{loading_, clock_, config_, "bench/1 (1); vondle"};
  ClientThumb thumbs_{clock_, scheduler_, files_, random_, loading_, previews_};
};

// The most memory that this process has held since the last call of forgetPeak.
double peakMebibytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmHWM:")) return std::stod(line.substr(std::string_view("VmHWM:").size())) / 1024;
  throw std::runtime_error("the kernel does not tell the peak of memory");
}
void forgetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

struct Measurement {
  explicit Measurement(bool isFull) : budget(isFull ? 120 : 20) {
    std::filesystem::create_directories(putFolder);
    makeFile("whole", WHOLE_SIZE);
    makeFile("large", LARGE_SIZE);
    makeFile("part", PART_SIZE);
  }

  [[nodiscard]] std::string pathOf(const std::string& name) const { return folder.path() + "/" + name; }

  void makeFile(const std::string& name, std::int64_t size) const {
    std::ofstream file(pathOf(name), std::ios::binary);
    const std::string block(MEBIBYTE, 'v');
    for (std::int64_t left = size; left > 0; left -= MEBIBYTE) file.write(block.data(), std::min(left, MEBIBYTE));
    file.close();
    if (!file) throw std::runtime_error("cannot write " + pathOf(name));
  }

  [[nodiscard]] std::string target(int number) const { return nginx.url(fmt::format("put/{}", number)); }

  // What arrived goes before the next round.
  Cost cleared(const Cost& cost) const {
    std::filesystem::remove_all(putFolder);
    std::filesystem::create_directory(putFolder);
    return cost;
  }

  // One curl for each that runs at once, which sends its share one after the other: with --parallel curl lets a second
  // pass before it begins the next.
  Cost curl(const std::string& file, int count, int atOnce) {
    std::string script = "all=; ";
    for (int first = 0; first < atOnce; ++first) {
      const std::string list = pathOf(fmt::format("list-{}", first));
      std::ofstream text(list);
      for (int i = first; i < count; i += atOnce)
        text << fmt::format("url = \"{}\"\nupload-file = \"{}\"\n", target(i), pathOf(file));
      script += fmt::format("curl -s --fail -K {} & all=\"$all $!\"; ", list);
    }
    return cleared(costOfProgram({"sh", "-c", script + "for one in $all; do wait $one || exit 1; done"}));
  }

  // Of so many uploads that `begin` begins, with what each calls at its end.
  Cost costOfUploads(int count, const std::function<void(int, Completion<Result<std::string>>)>& begin) {
    return cleared(costOf([&] {
      Mutex lock;
      ConditionVariable done;
      int left = count;
      bool failed = false;
      for (int i = 0; i < count; ++i)
        begin(i, [&](const Result<std::string>& answer) {
          MutexLock hold(lock);
          failed = failed || !answer;
          if (--left == 0) done.notify_all();
        });
      MutexLock hold(lock);
      while (left > 0) done.wait(hold);
      if (failed) throw std::runtime_error("an upload failed");
    }));
  }

  Cost engine(int count) {
    return costOfUploads(count, [&](int number, Completion<Result<std::string>> completion) {
      rig.transfers().upload({.url = target(number), .method = "PUT", .timeout = seconds(60)}, pathOf("whole"),
                             Progress::make(), std::move(completion));
    });
  }

  Cost inParts() {
    return costOfUploads(1, [&](int, Completion<Result<std::string>> completion) {
      rig.sendInParts(pathOf("large"), std::move(completion));
    });
  }

  void run(const std::string& what, std::int64_t bytes, std::string_view asked, const std::function<Cost()>& reference,
           const std::function<Cost()>& ours) const {
    forgetPeak();
    const auto comparison = compare(budget, reference, ours);
    const auto speed = [&](const Cost& cost) {
      return figure(static_cast<double>(bytes) / 1e6 / cost.seconds, "MB/s");
    };
    report(what + ", throughput", asked, speed(comparison.reference), speed(comparison.ours),
           fmt::format("{:.2f}", 1 / comparison.timeRatio));
    report(what + ", processor time", "-", figure(comparison.reference.processorSeconds, "s"),
           figure(comparison.ours.processorSeconds, "s"), fmt::format("{:.2f}", comparison.processorRatio));
    report(what + ", peak memory", "< 100 MiB", "", figure(peakMebibytes(), "MiB"), "");
  }

  const double budget;
  TemporaryFolder folder;
  const std::string putFolder = folder.path() + "/served/put";
  Nginx nginx{folder.path() + "/server", folder.path() + "/served"};
  UploadRig rig{folder.path() + "/home", fmt::format(R"({{"server":"{}","api_key":"k"}})", nginx.origin())};
};

int run(bool isFull) {
  Measurement measurement(isFull);
  for (const int count : {1, AT_ONCE})
    measurement.run(
        fmt::format("{} upload(s) of 90 MiB at once", count), count * WHOLE_SIZE, ">= 0.85",
        [&] { return measurement.curl("whole", count, count); }, [&] { return measurement.engine(count); });
  measurement.run(
      "1 GiB in parts of 64 MiB", LARGE_SIZE, ">= 0.8", [&] { return measurement.curl("part", PARTS, PARTS_AT_ONCE); },
      [&] { return measurement.inParts(); });
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main(int count, char** words) {
  return vondle::bench::run(vondle::bench::isGiven(count, words, "--full"));
}
