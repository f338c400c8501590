#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/completion.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/preview_renderer.h"
#include "platform/random_source.h"
#include "platform/scheduler.h"
#include "platform/url_data_client.h"
#include "preview/operation_queue.h"
#include "preview/preview_maker.h"

namespace vondle {

// Makes a small JPEG of a file that was just uploaded and puts it where the server asked for one. What can't be made
// here is left to the server, and no failure matters to the upload itself.
//
// Any thread may call. Completions run on a thread of the renderer, the network or the scheduler. When this object
// ends, uploads under way are given up and complete with false.
class ClientThumb {
 public:
  static constexpr bool enabled = true;
  static constexpr int maxPixels = 400;         // longest side of a preview made from a picture
  static constexpr double posterWidth = 960.0;  // widest preview made from a video
  static constexpr double quality = 0.82;       // of the JPEG, from 0 to 1
  static constexpr std::array<std::string_view, 4> videoTypes = {"mp4", "mov", "m4v", "3gp"};
  static constexpr int maxConcurrentOperations = 2;

  ClientThumb(const Clock& clock, Scheduler& scheduler, Files& files, RandomSource& random, URLLoading& loading,
              PreviewRenderer& renderer);
  static ClientThumb& shared();

  // Makes the preview of the file and puts it to the address `to`; at most two are made or sent at once, the others
  // wait. The completion receives whether the preview is stored; it is called before the return, with false, when there
  // is no address or it is none. The file must stay where it is until then; its extension says what it is. The name is
  // for log lines only.
  void send(std::string file, std::string name, const std::optional<std::string>& to, Completion<bool> completion);

  // The preview of the file, or none; at once, whatever else is being made. The name decides nothing.
  void make(const std::string& file, std::string_view name, PreviewCompletion completion);

 private:
  const Clock& clock_;
  Queue& queue_;
  const PreviewMaker maker_;
  const std::shared_ptr<URLDataClient> session_;  // shared only for the moment of sending
  OperationQueue work_;
};

}  // namespace vondle
