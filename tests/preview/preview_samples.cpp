#include "preview/preview_samples.h"

#include <stdlib.h>
#include <vips/vips.h>

#include <cmath>
#include <fstream>
#include <future>
#include <stdexcept>

#include <fmt/format.h>

namespace vondle {
namespace {

namespace fs = std::filesystem;

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = fs::temp_directory_path() / "vondle-preview-XXXXXX";
    path_ = mkdtemp(pattern.data());
  }
  ~TemporaryFolder() { fs::remove_all(path_); }
  [[nodiscard]] const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

Preview decode(std::string jpeg) {
  static const int started = VIPS_INIT("tests");
  VipsImage* image = nullptr;
  if (started != 0 ||
      vips_jpegload_buffer(jpeg.data(), jpeg.size(), &image, "fail_on", VIPS_FAIL_ON_WARNING, nullptr) != 0)
    throw std::runtime_error("the preview is no JPEG");
  std::size_t size = 0;
  void* pixels = vips_image_write_to_memory(image, &size);
  Preview preview{
      .jpeg = std::move(jpeg), .width = vips_image_get_width(image), .height = vips_image_get_height(image)};
  if (pixels) preview.rgb.assign(static_cast<unsigned char*>(pixels), static_cast<unsigned char*>(pixels) + size);
  g_free(pixels);
  g_object_unref(image);
  if (preview.rgb.size() != 3u * preview.width * preview.height) throw std::runtime_error("the preview is not RGB");
  return preview;
}

template <class Ask>
std::optional<Preview> answerTo(Ask&& ask) {
  std::promise<std::optional<std::string>> promise;
  HelperPreviewRenderer renderer;
  ask(renderer, [&promise](std::optional<std::string> jpeg) { promise.set_value(std::move(jpeg)); });
  auto jpeg = promise.get_future().get();
  if (!jpeg) return std::nullopt;
  return decode(std::move(*jpeg));
}

std::string inHexadecimal(const Colour& colour) {
  return fmt::format("#{:02x}{:02x}{:02x}", colour[0], colour[1], colour[2]);
}

}  // namespace

const fs::path& sampleFolder() {
  static const TemporaryFolder folder;
  return folder.path();
}

void run(const std::string& command) {
  // The tools that make samples are not what is under test, and have no business with its sanitizers.
  const std::string whole = "cd " + sampleFolder().string() + " && { " + command + "; } >log 2>&1 </dev/null";
  if (system(whole.c_str()) != 0) throw std::runtime_error(command + " failed: " + readSample("log"));
}

std::string sample(std::string_view name) {
  return sampleFolder() / name;
}

std::string readSample(std::string_view name) {
  std::ifstream stream(sample(name), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string writeSample(std::string_view name, std::string_view bytes) {
  std::ofstream(sample(name), std::ios::binary) << bytes;
  return sample(name);
}

Colour Preview::at(int x, int y) const {
  const auto* pixel = &rgb.at(3u * (static_cast<std::size_t>(y) * width + x));
  return {pixel[0], pixel[1], pixel[2]};
}

std::array<Colour, 4> Preview::quarters() const {
  const int left = width / 4;
  const int right = width - 1 - left;
  const int top = height / 4;
  const int bottom = height - 1 - top;
  return {at(left, top), at(right, top), at(left, bottom), at(right, bottom)};
}

bool isNear(const Colour& a, const Colour& b, int tolerance) {
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::abs(a[i] - b[i]) > tolerance) return false;
  return true;
}

std::optional<Preview> previewOfPicture(const std::string& path) {
  return answerTo([&](HelperPreviewRenderer& renderer, PreviewCompletion completion) {
    auto extension = fs::path(path).extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    renderer.picture(path, extension, 400, 0.82, std::move(completion));
  });
}

std::optional<Preview> previewOfVideo(const std::string& path) {
  return answerTo([&](HelperPreviewRenderer& renderer, PreviewCompletion completion) {
    renderer.video(path, 960, 10000, 0.82, std::move(completion));
  });
}

void makeQuarters(std::string_view name, int width, int height) {
  const auto tile = [&](const Colour& colour) {
    return fmt::format("-size {}x{} xc:'{}'", width / 2, height / 2, inHexadecimal(colour));
  };
  run(fmt::format("/usr/bin/convert \\( {} {} +append \\) \\( {} {} +append \\) -append -strip PNG24:{}", tile(RED),
                  tile(GREEN), tile(BLUE), tile(YELLOW), name));
}

}  // namespace vondle
