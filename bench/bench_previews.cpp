#include <sys/resource.h>

#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "measure.h"
#include "platform/linux/helper_preview_renderer.h"

// What a preview costs as the extension has it made, with a process of its own in a sandbox, over libvips' own program
// with the same settings.

namespace vondle::bench {
namespace {

constexpr int SIDE = 400;
constexpr double QUALITY = 0.82;
constexpr double MEBIBYTE = 1 << 20;

struct Measurement {
  explicit Measurement(bool isFull) : budget(isFull ? 60 : 10) {}

  // Soft shapes and some detail, as a camera sees them: about 8 MB for 24 megapixels.
  std::string picture(int width, int height) {
    const auto path = [&](std::string_view name) { return fmt::format("{}/{}", folder.path(), name); };
    const auto vips = [](std::vector<std::string> words) {
      words.insert(words.begin(), "vips");
      costOfProgram(words);
    };
    std::string bands;
    for (const char* band : {"r.v", "g.v", "b.v"}) {
      const auto side = [](int length) { return std::to_string(length / 4); };
      vips({"gaussnoise", path("n.v"), side(width), side(height), "--mean", "128", "--sigma", "30"});
      vips({"resize", path("n.v"), path("w.v"), "4"});
      vips({"cast", path("w.v"), path(band), "uchar"});
      bands += path(band) + " ";
    }
    vips({"bandjoin", bands, path("rgb.v")});
    const std::string jpeg = path(fmt::format("{}x{}.jpg", width, height));
    vips({"copy", path("rgb.v"), jpeg + "[Q=92]", "--interpretation", "srgb"});
    return jpeg;
  }

  // As politely as the helper works.
  [[nodiscard]] Cost vipsthumbnail(const std::string& jpeg) const {
    return costOfProgram({"nice", "-n", "10", "vipsthumbnail", jpeg, "--size", fmt::format("{}x{}", SIDE, SIDE), "-o",
                          folder.path() + fmt::format("/small.jpg[Q={:.0f},strip]", QUALITY * 100)});
  }

  Cost preview(const std::string& jpeg) {
    const double before = processorSecondsOfChildren();
    Cost cost = costOf([&] {
      std::promise<bool> made;
      renderer.picture(jpeg, "jpg", SIDE, QUALITY, [&](const auto& bytes) { made.set_value(bytes.has_value()); });
      if (!made.get_future().get()) throw std::runtime_error("no preview was made");
    });
    cost.processorSeconds += processorSecondsOfChildren() - before;
    return cost;
  }

  static double processorSecondsOfChildren() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }

  void run(const std::string& what, const std::string& jpeg, std::string_view asked) {
    const auto comparison = compare(budget, [&] { return vipsthumbnail(jpeg); }, [&] { return preview(jpeg); });
    const auto line = [&](std::string_view kind, std::string_view wanted, double reference, double ours, double ratio) {
      report(fmt::format("{}, {}", what, kind), wanted, figure(reference * 1000, "ms"), figure(ours * 1000, "ms"),
             fmt::format("{:.2f}", ratio));
    };
    line("time", asked, comparison.reference.seconds, comparison.ours.seconds, comparison.timeRatio);
    line("processor time", "-", comparison.reference.processorSeconds, comparison.ours.processorSeconds,
         comparison.processorRatio);
  }

  void memory(const std::string& what, const std::string& jpeg) {
    const Cost helper = costOfProgram({HelperPreviewRenderer::helperBesideProgram(), "picture", std::to_string(SIDE),
                                       fmt::format("{:.0f}", QUALITY * 100)},
                                      jpeg);
    const Cost reference = vipsthumbnail(jpeg);
    report(what + ", peak memory", "< 200 MiB", figure(reference.peakBytes / MEBIBYTE, "MiB"),
           figure(helper.peakBytes / MEBIBYTE, "MiB"), fmt::format("{:.2f}", helper.peakBytes / reference.peakBytes));
  }

  const double budget;
  TemporaryFolder folder;
  HelperPreviewRenderer renderer;
};

int run(bool isFull) {
  Measurement measurement(isFull);
  const auto large = measurement.picture(6000, 4000);
  measurement.memory("preview of a JPEG of 24 megapixels", large);
  measurement.run("preview of a JPEG of 24 megapixels", large, "<= 1.2");
  // Nearly all of it is the start of the program.
  measurement.run("preview of a JPEG of a tenth of a megapixel", measurement.picture(400, 264), "-");
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main(int count, char** words) {
  return vondle::bench::run(vondle::bench::isGiven(count, words, "--full"));
}
