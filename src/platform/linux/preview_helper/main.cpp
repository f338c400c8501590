// vondle-preview picture MAXPIXELS QUALITY
// vondle-preview video MAXWIDTH MAXHEIGHT QUALITY
// vondle-preview thumbnails SIDE...
//
// Reads a picture or video on standard input, which must be able to seek, and writes its preview as a JPEG to standard
// output. Started by the extension's process for each preview, so that a file made to break a decoder breaks only this
// process, which holds nothing but that file. Exit status 0: the preview is there; 1: there is none; 2: called wrongly.
// It says nothing else.
//
// The third form makes PNGs of many small pictures, which come one after the other; see thumbnails.h.

#include <unistd.h>
#include <vips/vips.h>

#include <charconv>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/preview_helper/picture.h"
#include "platform/linux/preview_helper/sandbox.h"
#include "platform/linux/preview_helper/thumbnails.h"
#include "platform/linux/preview_helper/video.h"

namespace vondle {
namespace {

constexpr int PICTURE_PROCESSOR_SECONDS = 20;
constexpr int VIDEO_PROCESSOR_SECONDS = 60;
constexpr int THUMBNAILS_PROCESSOR_SECONDS = 120;
constexpr int BACKGROUND_NICENESS = 10;

enum ExitStatus { DONE = 0, NO_PREVIEW = 1, CALLED_WRONGLY = 2 };

std::optional<int> number(std::string_view text, int largest) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 1 || value > largest) return std::nullopt;
  return value;
}

void ignoreLog(const char*, GLogLevelFlags, const char*, void*) {}

// Everything that reads files of its own happens here, before the sandbox closes.
bool startLibraries(const char* program) {
  g_log_set_default_handler(ignoreLog, nullptr);
  g_log_set_writer_func([](GLogLevelFlags, const GLogField*, gsize, gpointer) { return G_LOG_WRITER_HANDLED; }, nullptr,
                        nullptr);
  setenv("VIPS_NOVECTOR", "1", 1);  // which makes code at run time
  if (VIPS_INIT(program) != 0) return false;
  vips_concurrency_set(1);
  vips_cache_set_max(0);
  // Leaves only loaders that are tested against hostile files. The one for JPEG XL is not counted among them, but
  // cannot leave the sandbox either.
  vips_block_untrusted_set(TRUE);
  vips_operation_block_set("VipsForeignLoadJxl", FALSE);
  return true;
}

bool writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto written = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

int runThumbnails(const char* program, std::span<char*> arguments) {
  constexpr int MAX_SIDE = 1024;
  std::vector<int> sides;
  for (const char* argument : arguments) {
    const auto side = number(argument, MAX_SIDE);
    if (!side || (!sides.empty() && *side <= sides.back())) return CALLED_WRONGLY;
    sides.push_back(*side);
  }
  if (sides.empty()) return CALLED_WRONGLY;
  nice(BACKGROUND_NICENESS);
  if (!startLibraries(program) || !enterSandbox(THUMBNAILS_PROCESSOR_SECONDS)) return NO_PREVIEW;
  return makeThumbnails(STDIN_FILENO, STDOUT_FILENO, sides) ? DONE : NO_PREVIEW;
}

int run(std::span<char*> arguments) {
  constexpr int MAX_SIDE = 65500;  // of a JPEG
  constexpr int MAX_QUALITY = 100;
  const std::string_view kind = arguments.size() > 1 ? arguments[1] : "";
  if (kind == "thumbnails") return runThumbnails(arguments[0], arguments.subspan(2));
  if (!(kind == "picture" && arguments.size() == 4) && !(kind == "video" && arguments.size() == 5))
    return CALLED_WRONGLY;
  const auto width = number(arguments[2], MAX_SIDE);
  const auto height = kind == "video" ? number(arguments[3], MAX_SIDE) : width;
  const auto quality = number(arguments.back(), MAX_QUALITY);
  if (!width || !height || !quality) return CALLED_WRONGLY;

  nice(BACKGROUND_NICENESS);
  const bool isVideo = kind == "video";
  if (!startLibraries(arguments[0]) || !enterSandbox(isVideo ? VIDEO_PROCESSOR_SECONDS : PICTURE_PROCESSOR_SECONDS))
    return NO_PREVIEW;
  const auto jpeg =
      isVideo ? renderVideo(STDIN_FILENO, *width, *height, *quality) : renderPicture(STDIN_FILENO, *width, *quality);
  return jpeg && writeAll(*jpeg) ? DONE : NO_PREVIEW;
}

}  // namespace
}  // namespace vondle

// Without clean-up: whatever state a hostile file left the libraries in, none of their code runs again.
int main(int argc, char** argv) {
  _exit(vondle::run({argv, static_cast<std::size_t>(argc)}));
}
