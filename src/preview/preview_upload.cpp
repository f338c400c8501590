#include "preview/preview_upload.h"

#include <utility>

#include <fmt/format.h>

#include "config/plog.h"

namespace vondle {
namespace {

constexpr Duration TIMEOUT = seconds(60);
constexpr Duration RETRY_DELAY = seconds(2.0);
constexpr int MAX_ATTEMPTS = 2;
constexpr int STORED = 200;  // no other status is

// The status of the answer, also of one that was cut short because nobody needs so long a body.
Result<std::int64_t> statusOf(const Result<URLReply>& reply) {
  if (reply) return reply->response.status;
  if (const auto status = statusOfTooLongReply(reply.error())) return *status;
  return failure(reply.error());
}

}  // namespace

PreviewUpload::PreviewUpload(const Clock& clock, Queue& queue, PreviewMaker maker, std::weak_ptr<URLDataClient> session,
                             Job job, Finished finished)
    : clock_(clock),
      queue_(queue),
      maker_(maker),
      session_(std::move(session)),
      job_(std::move(job)),
      finished_(std::move(finished)) {}

void PreviewUpload::start() {
  maker_.make(job_.file,
              [self = shared_from_this()](std::optional<std::string> jpeg) { self->sendIfMade(std::move(jpeg)); });
}

void PreviewUpload::sendIfMade(std::optional<std::string> jpeg) {
  if (!jpeg) {
    plog.info("preview of %{public}@: can't make one here, the server will", job_.name);
    return finish(false);
  }
  jpeg_ = std::move(*jpeg);
  sentAt_ = clock_.monotonic();
  send(1);
}

void PreviewUpload::send(int attempt) {
  const auto session = session_.lock();
  if (!session) return receive(MAX_ATTEMPTS, failure({URL_ERROR_DOMAIN, URL_CANCELLED, "cancelled"}));
  session->send(
      {.url = job_.address,
       .method = "PUT",
       .headers = {{"Content-Type", "image/jpeg"}, {"Cache-Control", "public, max-age=2592000"}},
       .body = jpeg_,
       .timeout = TIMEOUT},
      [self = shared_from_this(), attempt](Result<URLReply> reply) { self->receive(attempt, std::move(reply)); });
}

void PreviewUpload::receive(int attempt, Result<URLReply> reply) {
  const auto status = statusOf(reply);
  if (status == STORED) {
    logOutcome(std::nullopt);
    return finish(true);
  }
  if (attempt < MAX_ATTEMPTS) {
    queue_.after(RETRY_DELAY, [self = shared_from_this(), attempt] { self->send(attempt + 1); });
    return;
  }
  logOutcome(status ? fmt::format("upload failed (HTTP {})", *status) : status.error().localizedDescription());
  finish(false);
}

void PreviewUpload::logOutcome(const std::optional<std::string>& failure) const {
  const double elapsed = inSeconds(clock_.monotonic() - sentAt_);
  if (failure)
    plog.error("preview of %{public}@: %d bytes in %.2fs, %{public}@", job_.name, jpeg_.size(), elapsed, *failure);
  else
    plog.info("preview of %{public}@: %d bytes in %.2fs, %{public}@", job_.name, jpeg_.size(), elapsed, "uploaded");
}

void PreviewUpload::finish(bool stored) {
  std::move(finished_)(stored);
}

}  // namespace vondle
