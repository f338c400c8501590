#pragma once

#include <string>

#include "platform/files.h"
#include "platform/preview_renderer.h"
#include "platform/random_source.h"

namespace vondle {

// Decides how a file is shown small, by its extension alone. Any thread; the parts must outlive what it makes.
class PreviewMaker {
 public:
  PreviewMaker(Files& files, RandomSource& random, PreviewRenderer& renderer)
      : files_(files), random_(random), renderer_(renderer) {}

  void make(const std::string& file, PreviewCompletion completion) const;

 private:
  void makeFromPicture(const std::string& file, std::string extension, PreviewCompletion completion) const;
  void makeFromVideo(const std::string& file, const std::string& extension, PreviewCompletion completion) const;

  Files& files_;
  RandomSource& random_;
  PreviewRenderer& renderer_;
};

}  // namespace vondle
