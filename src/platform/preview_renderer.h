#pragma once

#include <optional>
#include <string>

#include "base/completion.h"

namespace vondle {

// The bytes of a JPEG; none when no preview can be made of the file here.
using PreviewCompletion = Completion<std::optional<std::string>>;

// Makes small JPEGs, upright, in sRGB, without metadata and with white where the original is transparent. What the file
// holds is never trusted: it can be damaged, of another format than its name says, or made to do harm.
//
// Any thread may call; no call waits. Completions run on a thread of the renderer, and never before the call returns.
// Each call costs a process while it runs: it is the caller who bounds how many run at once. The file must stay where
// it is until the completion, and may change or vanish after it. Quality is from 0 to 1.
class PreviewRenderer {
 public:
  virtual ~PreviewRenderer() = default;

  // The first picture in the file, its longer side maxPixels; smaller ones keep their size. The extension (lower case,
  // without the dot) hints at the format where the contents alone mislead.
  virtual void picture(std::string path, std::string extension, int maxPixels, double quality,
                       PreviewCompletion completion) = 0;

  // The video's frame at one second, or at half its duration when that is shorter than two seconds; within the box,
  // never enlarged. None when it takes longer than 30 seconds.
  virtual void video(std::string path, double maxWidth, double maxHeight, double quality,
                     PreviewCompletion completion) = 0;
};

}  // namespace vondle
