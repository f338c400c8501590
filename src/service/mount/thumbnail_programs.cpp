#include "service/mount/thumbnail_programs.h"

#include <algorithm>
#include <fstream>
#include <string>

#include <fmt/format.h>

namespace vondle {
namespace {

// Those that file managers call. Where a file manager makes the pictures itself, it cannot be told from one that copies
// files.
constexpr std::string_view PROGRAMS[] = {
    "tumblerd",
    "gdk-pixbuf-thumbnailer",
    "glycin-thumbnailer",
    "totem-video-thumbnailer",
    "ffmpegthumbnailer",
    "gst-thumbnailer",
    "evince-thumbnailer",
    "papers-thumbnailer",
    "atril-thumbnailer",
    "xreader-thumbnailer",
    "gsf-office-thumbnailer",
    "gnome-thumbnail-font",
    "mate-thumbnail-font",
};
constexpr std::size_t KEPT = 15;  // bytes of a program's name

std::string firstLineWith(const std::string& path, std::string_view beginning) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(beginning)) return line.substr(beginning.size());
  return "";
}

}  // namespace

bool isThumbnailProgram(std::string_view shortName) {
  return std::ranges::any_of(PROGRAMS, [shortName](auto program) { return program.substr(0, KEPT) == shortName; });
}

// A thread may have a name of its own.
bool isOfThumbnailProgram(int thread) {
  const auto process = thread > 0 ? firstLineWith(fmt::format("/proc/{}/status", thread), "Tgid:\t") : "";
  return !process.empty() && isThumbnailProgram(firstLineWith(fmt::format("/proc/{}/comm", process), ""));
}

}  // namespace vondle
