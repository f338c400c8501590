#include "platform/linux/helper_preview_renderer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/linux/helper_process.h"

namespace vondle {
namespace {

// Raw pictures of cameras. Most look like TIFF files whose first picture is tiny; none can be developed here.
constexpr std::array<std::string_view, 24> RAW_EXTENSIONS = {"3fr", "arw", "cr2", "cr3", "crw", "dcr", "dng", "erf",
                                                             "iiq", "k25", "kdc", "mef", "mos", "mrw", "nef", "nrw",
                                                             "orf", "pef", "raf", "raw", "rw2", "sr2", "srf", "x3f"};

constexpr std::string_view PICTURE = "picture";

// A named pipe would block, a device has no end: only regular files, looked at after opening.
Descriptor openRegularFile(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return Descriptor();
  return file;
}

// Whether the file begins like one of the formats that the helper reads: most files that go up are no pictures, and a
// helper takes a tenth of a second to find that out.
bool beginsLikeAPicture(const Descriptor& file) {
  using namespace std::string_view_literals;
  constexpr std::array SIGNATURES = {"\xFF\xD8\xFF"sv,                                           // JPEG
                                     "\x89PNG"sv,      "GIF8"sv,          "RIFF"sv,              // WebP
                                     "II*\0"sv,        "MM\0*"sv,         "II+\0"sv, "MM\0+"sv,  // TIFF
                                     "\xFF\x0A"sv,     "\0\0\0\x0CJXL "sv};                      // JXL
  std::array<char, 16> start{};
  const auto count = ::pread(file.get(), start.data(), start.size(), 0);
  const std::string_view bytes(start.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
  if (bytes.size() > 8 && bytes.substr(4, 4) == "ftyp") return true;  // HEIF, AVIF
  return std::ranges::any_of(SIGNATURES, [bytes](std::string_view signature) { return bytes.starts_with(signature); });
}

// All that the helper writes; none when it writes too much or takes too long.
std::optional<std::string> readToEnd(int pipe, const HelperDeadline& deadline, int closing) {
  std::string bytes;
  std::array<char, 1 << 16> buffer;
  while (deadline.waitFor(pipe, POLLIN, closing)) {
    const auto count = read(pipe, buffer.data(), buffer.size());
    if (count == 0) return bytes;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 || bytes.size() + static_cast<std::size_t>(count) > HelperPreviewRenderer::MAX_JPEG_BYTES) break;
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return std::nullopt;
}

std::optional<std::string> renderWithHelper(const std::string& program, const std::string& path,
                                            const std::vector<std::string>& arguments, Duration time, int closing) {
  const HelperDeadline deadline(time);
  Descriptor file = openRegularFile(path);
  if (!file || (arguments.front() == PICTURE && !beginsLikeAPicture(file))) return std::nullopt;
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  const Descriptor from(ends[0]);
  Descriptor to(ends[1]);
  auto helper = HelperProcess::start(program, arguments, file.get(), to.get());
  if (!helper) return std::nullopt;
  file.reset();
  to.reset();

  auto jpeg = readToEnd(from.get(), deadline, closing);
  if (!jpeg || !deadline.waitFor(helper->ended(), POLLIN, closing) || helper->finish() != 0) return std::nullopt;
  return jpeg->starts_with("\xFF\xD8\xFF") ? std::move(jpeg) : std::nullopt;
}

std::string qualityArgument(double quality) {
  return std::to_string(std::lround(quality * 100));
}

}  // namespace

std::string HelperPreviewRenderer::helperBesideProgram() {
  return HelperProcess::besideProgram();
}

HelperPreviewRenderer::HelperPreviewRenderer(std::string helper, Duration deadline)
    : helper_(std::move(helper)), deadline_(deadline), closing_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

HelperPreviewRenderer::~HelperPreviewRenderer() {
  eventfd_write(closing_, 1);
  {
    MutexLock hold(lock_);
    while (running_ > 0) idle_.wait(lock_);
  }
  close(closing_);
}

void HelperPreviewRenderer::picture(std::string path, std::string extension, int maxPixels, double quality,
                                    PreviewCompletion completion) {
  if (std::ranges::find(RAW_EXTENSIONS, extension) != RAW_EXTENSIONS.end()) path.clear();
  render(std::move(path), {std::string(PICTURE), std::to_string(maxPixels), qualityArgument(quality)},
         std::move(completion));
}

void HelperPreviewRenderer::video(std::string path, double maxWidth, double maxHeight, double quality,
                                  PreviewCompletion completion) {
  render(std::move(path),
         {"video", std::to_string(std::lround(maxWidth)), std::to_string(std::lround(maxHeight)),
          qualityArgument(quality)},
         std::move(completion));
}

void HelperPreviewRenderer::render(std::string path, std::vector<std::string> arguments, PreviewCompletion completion) {
  {
    MutexLock hold(lock_);
    ++running_;
  }
  std::thread([this, path = std::move(path), arguments = std::move(arguments),
               completion = std::move(completion)]() mutable {
    std::move(completion)(renderWithHelper(helper_, path, arguments, deadline_, closing_));
    MutexLock hold(lock_);
    --running_;
    idle_.notify_all();  // with the lock held: once it is free, this object may be gone
  }).detach();
}

}  // namespace vondle
