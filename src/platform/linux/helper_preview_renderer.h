#pragma once

#include <condition_variable>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/time.h"
#include "platform/preview_renderer.h"

namespace vondle {

// Has every preview made by a process of its own, vondle-preview, that sees only the one file: descriptors, not paths,
// are handed over. Only regular files are opened. A helper that takes longer than the deadline, writes too much, fails
// or writes something that is not a JPEG gives no preview; whatever it started dies with it.
//
// One thread per preview while it is made: the kernel ends a helper when the thread that started it ends.
class HelperPreviewRenderer final : public PreviewRenderer {
 public:
  static constexpr Duration DEADLINE = seconds(30);
  static constexpr std::size_t MAX_JPEG_BYTES = 4u << 20;

  // Where the helper is when nobody says otherwise: in the folder of the running program.
  static std::string helperBesideProgram();

  explicit HelperPreviewRenderer(std::string helper = helperBesideProgram(), Duration deadline = DEADLINE);
  ~HelperPreviewRenderer() override;  // previews being made are given up and completed with none

  void picture(std::string path, std::string extension, int maxPixels, double quality,
               PreviewCompletion completion) override;
  void video(std::string path, double maxWidth, double maxHeight, double quality,
             PreviewCompletion completion) override;

 private:
  void render(std::string path, std::vector<std::string> arguments, PreviewCompletion completion) EXCLUDES(lock_);

  const std::string helper_;
  const Duration deadline_;
  const int closing_;  // an event that is set when all is to be given up
  Mutex lock_;
  ConditionVariable idle_;
  int running_ GUARDED_BY(lock_) = 0;
};

}  // namespace vondle
