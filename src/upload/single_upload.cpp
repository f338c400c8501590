#include "upload/single_upload.h"

#include <utility>

#include "platform/dispatch_group.h"
#include "platform/scheduler.h"
#include "preview/client_thumb.h"
#include "transfer/throttled_transfer.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

constexpr Duration TIMEOUT = seconds(60);

struct BothWays {
  DispatchGroup group;
  bool previewStored = false;
  Result<std::string> reply = failure(TransferError::noResponse());
};

}  // namespace

void sendInOneRequest(const UploadServices& services, SingleUpload upload, std::shared_ptr<Progress> progress,
                      Completion<Result<bool>> completion) {
  const auto both = std::make_shared<BothWays>();
  both->group.enter();
  services.thumbs.send(upload.file, std::move(upload.name), upload.thumb, [both](bool stored) {
    both->previewStored = stored;
    both->group.leave();
  });
  both->group.enter();
  services.transfers.upload({.url = std::move(upload.url),
                             .method = "PUT",
                             .headers = {{"Content-Type", std::move(upload.contentType)}},
                             .timeout = TIMEOUT},
                            std::move(upload.file), std::move(progress), [both](Result<std::string> reply) {
                              both->reply = std::move(reply);
                              both->group.leave();
                            });
  both->group.notify(services.scheduler.global(), [both, completion = std::move(completion)]() mutable {
    if (!both->reply) return std::move(completion)(failure(std::move(both->reply.error())));
    std::move(completion)(both->previewStored);
  });
}

}  // namespace vondle
