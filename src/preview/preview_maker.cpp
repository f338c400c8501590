#include "preview/preview_maker.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "preview/client_thumb.h"

namespace vondle {
namespace {

constexpr double POSTER_HEIGHT = 10000;  // in effect unbounded

// What stands after the last dot of the name; a dot at its start hides the file and begins no extension.
std::string extensionOf(std::string_view path) {
  const auto name = path.substr(path.rfind('/') + 1);
  const auto dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string() : std::string(name.substr(dot + 1));
}

std::string lowerCase(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; });
  return text;
}

}  // namespace

void PreviewMaker::make(const std::string& file, PreviewCompletion completion) const {
  const auto extension = extensionOf(file);
  auto lower = lowerCase(extension);
  if (std::ranges::find(ClientThumb::videoTypes, lower) != ClientThumb::videoTypes.end())
    makeFromVideo(file, extension, std::move(completion));
  else
    makeFromPicture(file, std::move(lower), std::move(completion));
}

void PreviewMaker::makeFromPicture(const std::string& file, std::string extension, PreviewCompletion completion) const {
  renderer_.picture(file, std::move(extension), ClientThumb::maxPixels, ClientThumb::quality, std::move(completion));
}

// Through a link of its own, so that the video stays whole when its name goes elsewhere meanwhile. Where the temporary
// folder is on another file system there can be none, and the file itself serves.
void PreviewMaker::makeFromVideo(const std::string& file, const std::string& extension,
                                 PreviewCompletion completion) const {
  const std::string link = files_.temporaryFolder() + "/" + random_.uuid() + "." + extension;
  const bool linked = files_.hardLink(file, link).has_value();
  renderer_.video(
      linked ? link : file, ClientThumb::posterWidth, POSTER_HEIGHT, ClientThumb::quality,
      [&files = files_, link, linked, completion = std::move(completion)](std::optional<std::string> jpeg) mutable {
        if (linked) (void)files.remove(link);
        std::move(completion)(std::move(jpeg));
      });
}

}  // namespace vondle
