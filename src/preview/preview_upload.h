#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/completion.h"
#include "platform/clock.h"
#include "platform/scheduler.h"
#include "platform/url_data_client.h"
#include "preview/preview_maker.h"

namespace vondle {

// One preview on its way: make it, send it, send it once more when that failed.
class PreviewUpload : public std::enable_shared_from_this<PreviewUpload> {
 public:
  struct Job {
    std::string file;
    std::string name;     // for log lines
    std::string address;  // authorises the upload by itself
  };
  // True when the preview is stored.
  using Finished = Completion<bool>;

  // The session may end meanwhile; what is not yet sent then never is.
  PreviewUpload(const Clock& clock, Queue& queue, PreviewMaker maker, std::weak_ptr<URLDataClient> session, Job job,
                Finished finished);

  void start();

 private:
  void sendIfMade(std::optional<std::string> jpeg);
  void send(int attempt);
  void receive(int attempt, Result<URLReply> reply);
  void logOutcome(const std::optional<std::string>& failure) const;
  void finish(bool stored);

  const Clock& clock_;
  Queue& queue_;
  const PreviewMaker maker_;
  const std::weak_ptr<URLDataClient> session_;
  const Job job_;
  std::string jpeg_;
  MonotonicTime sentAt_;
  Finished finished_;
};

}  // namespace vondle
