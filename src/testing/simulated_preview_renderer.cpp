#include "testing/simulated_preview_renderer.h"

#include <stdexcept>
#include <utility>

namespace vondle {

SimulatedPreviewRenderer::SimulatedPreviewRenderer(Scheduler& scheduler)
    : queue_(scheduler.makeSerialQueue("simulated previews")) {}

void SimulatedPreviewRenderer::picture(std::string path, std::string extension, int maxPixels, double quality,
                                       PreviewCompletion completion) {
  const auto side = static_cast<double>(maxPixels);
  take({false, std::move(path), std::move(extension), side, side, quality}, std::move(completion));
}

void SimulatedPreviewRenderer::video(std::string path, double maxWidth, double maxHeight, double quality,
                                     PreviewCompletion completion) {
  take({true, std::move(path), {}, maxWidth, maxHeight, quality}, std::move(completion));
}

void SimulatedPreviewRenderer::take(Call call, PreviewCompletion completion) {
  calls_.push_back(std::move(call));
  if (held_)
    waiting_.push_back(std::move(completion));
  else
    answer(std::move(completion), answer_);
}

void SimulatedPreviewRenderer::answerNext(std::optional<std::string> jpeg) {
  if (waiting_.empty()) throw std::logic_error("no preview is being waited for");
  auto completion = std::move(waiting_.front());
  waiting_.pop_front();
  answer(std::move(completion), std::move(jpeg));
}

void SimulatedPreviewRenderer::answer(PreviewCompletion completion, std::optional<std::string> jpeg) {
  queue_->post([completion = std::move(completion), jpeg = std::move(jpeg)]() mutable {
    std::move(completion)(std::move(jpeg));
  });
}

}  // namespace vondle
