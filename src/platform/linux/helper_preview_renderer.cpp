#include "platform/linux/helper_preview_renderer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <string_view>
#include <thread>
#include <utility>

namespace vondle {
namespace {

using std::chrono::steady_clock;

// Raw pictures of cameras. Most look like TIFF files whose first picture is tiny; none can be developed here.
constexpr std::array<std::string_view, 24> RAW_EXTENSIONS = {"3fr", "arw", "cr2", "cr3", "crw", "dcr", "dng", "erf",
                                                             "iiq", "k25", "kdc", "mef", "mos", "mrw", "nef", "nrw",
                                                             "orf", "pef", "raf", "raw", "rw2", "sr2", "srf", "x3f"};

constexpr std::string_view PICTURE = "picture";

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }

  [[nodiscard]] int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }
  void reset() { *this = Descriptor(); }

 private:
  int number_;
};

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

// The program on these two descriptors, with nothing else of this process: no other descriptor, no environment, no
// signals blocked or ignored. In a process group of its own. -1 when it can't be started.
pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, int input, int output) {
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  char locale[] = "LC_ALL=C";
  std::array<char*, 2> environment = {locale, nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  const int error = posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), environment.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

// A running helper; the end of this object is the end of it and of all that it started.
class Helper {
 public:
  explicit Helper(pid_t pid) : pid_(pid), ended_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;
  ~Helper() {
    if (pid_ > 0) finish();
  }

  // Becomes readable when the helper has ended.
  [[nodiscard]] int ended() const { return ended_.get(); }

  // Its exit status, or -1 when it had to be killed.
  int finish() {
    // Until it is waited for, its number, and so that of its group, belongs to nobody else.
    kill(-pid_, SIGKILL);
    int status = 0;
    pid_t waited = 0;
    do waited = waitpid(pid_, &status, 0);
    while (waited < 0 && errno == EINTR);
    pid_ = -1;
    return waited > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_;
  Descriptor ended_;
};

class Deadline {
 public:
  explicit Deadline(Duration time) : end_(steady_clock::now() + time) {}

  // True when the descriptor can be read; false when time is up or the event came first.
  [[nodiscard]] bool waitFor(int descriptor, int event) const {
    std::array<pollfd, 2> watched = {pollfd{descriptor, POLLIN, 0}, pollfd{event, POLLIN, 0}};
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - steady_clock::now()).count();
      if (left <= 0) return false;
      const int ready = poll(watched.data(), watched.size(), static_cast<int>(left));
      if (ready < 0 && errno != EINTR) return false;
      if (ready > 0) return watched[1].revents == 0;
    }
  }

 private:
  const steady_clock::time_point end_;
};

// All that the helper writes; none when it writes too much or takes too long.
std::optional<std::string> readToEnd(int pipe, const Deadline& deadline, int closing) {
  std::string bytes;
  std::array<char, 1 << 16> buffer;
  while (deadline.waitFor(pipe, closing)) {
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
  const Deadline deadline(time);
  Descriptor file = openRegularFile(path);
  if (!file || (arguments.front() == PICTURE && !beginsLikeAPicture(file))) return std::nullopt;
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  const Descriptor from(ends[0]);
  Descriptor to(ends[1]);
  const pid_t pid = spawn(program, arguments, file.get(), to.get());
  if (pid < 0) return std::nullopt;
  Helper helper(pid);
  file.reset();
  to.reset();

  auto jpeg = readToEnd(from.get(), deadline, closing);
  if (!jpeg || !deadline.waitFor(helper.ended(), closing) || helper.finish() != 0) return std::nullopt;
  return jpeg->starts_with("\xFF\xD8\xFF") ? std::move(jpeg) : std::nullopt;
}

std::string qualityArgument(double quality) {
  return std::to_string(std::lround(quality * 100));
}

}  // namespace

std::string HelperPreviewRenderer::helperBesideProgram() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "vondle-preview";
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
