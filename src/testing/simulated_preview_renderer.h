#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/preview_renderer.h"
#include "platform/scheduler.h"

namespace vondle {

// Makes no previews: lists what was asked for, and answers each with the bytes set, on a queue of its own, or when held
// with what the test says later. For one thread.
class SimulatedPreviewRenderer final : public PreviewRenderer {
 public:
  struct Call {
    bool isVideo = false;
    std::string path;
    std::string extension;  // of a picture
    double width = 0;       // maxPixels of a picture
    double height = 0;
    double quality = 0;
  };

  explicit SimulatedPreviewRenderer(Scheduler& scheduler);

  void picture(std::string path, std::string extension, int maxPixels, double quality,
               PreviewCompletion completion) override;
  void video(std::string path, double maxWidth, double maxHeight, double quality,
             PreviewCompletion completion) override;

  // What later calls are answered with; at first the three bytes that every JPEG begins with.
  void setAnswer(std::optional<std::string> jpeg) { answer_ = std::move(jpeg); }

  // While held, calls wait for answerNext, which answers the oldest one.
  void hold() { held_ = true; }
  void answerNext(std::optional<std::string> jpeg);

  const std::vector<Call>& calls() const { return calls_; }
  std::size_t waiting() const { return waiting_.size(); }

 private:
  void answer(PreviewCompletion completion, std::optional<std::string> jpeg);
  void take(Call call, PreviewCompletion completion);

  const std::shared_ptr<Queue> queue_;
  std::optional<std::string> answer_ = "\xFF\xD8\xFF";
  bool held_ = false;
  std::vector<Call> calls_;
  std::deque<PreviewCompletion> waiting_;
};

}  // namespace vondle
