#include "upload/multipart_upload.h"

#include <array>
#include <cassert>
#include <charconv>
#include <string_view>
#include <utility>

#include "api/api_error.h"
#include "api/vondle_api.h"
#include "config/make_url.h"
#include "config/plog.h"
#include "platform/files.h"
#include "platform/random_source.h"
#include "preview/client_thumb.h"
#include "transfer/large_upload.h"
#include "transfer/limits.h"
#include "transfer/throttled_transfer.h"
#include "upload/copy_range.h"
#include "upload/final_error.h"
#include "upload/multipart_resume.h"

namespace vondle {
namespace {

constexpr int MAX_RUNNING = 3;
constexpr Duration TIMEOUT = seconds(60);
constexpr Duration PAUSE_INTERVAL = seconds(10);
constexpr std::int64_t MEBIBYTE = 1'048'576;
constexpr std::int64_t NOT_FOUND = 404;

// Seconds before the next try, by the number of tries that failed before this one.
constexpr std::array<double, 8> RETRY_DELAYS = {5, 15, 30, 60, 120, 120, 300, 300};

std::int64_t numberOfParts(std::int64_t size, std::int64_t partSize) {
  assert(partSize >= 1);
  return size / partSize + (size % partSize == 0 ? 0 : 1);
}

// A decimal integer, with an optional sign ("+-1" is taken for -1, which numbers no part either).
std::optional<std::int64_t> integerOf(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Where the one part that was asked for goes.
std::optional<std::string> partAddress(const json::Object& answer) {
  const auto* parts = json::list(answer, "parts");
  if (!parts || parts->empty() || !parts->front().is_object()) return std::nullopt;
  const auto url = json::text(parts->front().get_object(), "url");
  return url ? makeURL(*url) : std::nullopt;
}

std::string_view lastPathComponent(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

MultipartUpload::MultipartUpload(const UploadServices& services, Job job, std::shared_ptr<Progress> progress,
                                 Completion<Result<std::string>> completion)
    : services_(services),
      job_(std::move(job)),
      progress_(std::move(progress)),
      completion_(std::move(completion)),
      queue_(services.scheduler.makeSerialQueue("com.ferrow.vondle.multipart")),
      count_(numberOfParts(job_.size, job_.partSize)) {
  if (job_.resumeID) adoptSavedParts(*job_.resumeID);
}

void MultipartUpload::adoptSavedParts(const std::string& resumeID) {
  const auto saved = services_.resume.load(resumeID);
  if (!saved || saved->uploadID != job_.uploadID)
    return services_.resume.begin(resumeID, job_.key, job_.uploadID, job_.size, job_.partSize);
  for (const auto& [name, etag] : saved->etags) {
    const auto number = integerOf(name);
    if (number && *number >= 1 && *number <= count_) etags_[*number] = etag;
  }
}

void MultipartUpload::start() {
  std::int64_t sent = 0;
  for (const auto& [number, etag] : etags_) sent += lengthOf(number);
  if (etags_.empty())
    plog.log("multipart upload of %{public}@: %d parts of %lld MB", job_.key, count_, job_.partSize / MEBIBYTE);
  else
    plog.log("multipart upload of %{public}@: resuming, %d of %d parts already sent", job_.key, etags_.size(), count_);
  services_.largeUpload.started(job_.size - sent);
  progress_->setTotalUnitCount(job_.size);
  progress_->setCompletedUnitCount(sent);
  // Parts that wait for their next try are not told of a cancellation: the pump is.
  progress_->setCancellationHandler([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->pumpSoon();
  });
  pumpSoon();
}

void MultipartUpload::pumpSoon() {
  queue_->post([self = shared_from_this()] { self->pump(); });
}

void MultipartUpload::pump() {
  if (finished_) return;
  if (progress_->isCancelled()) return fail({COCOA_ERROR_DOMAIN, USER_CANCELLED});
  if (std::cmp_equal(etags_.size(), count_)) return join();
  while (running_ < MAX_RUNNING && next_ <= count_) {
    const auto number = next_++;
    if (!etags_.contains(number)) issue(number);
  }
}

void MultipartUpload::issue(std::int64_t number) {
  ++running_;
  const auto length = lengthOf(number);
  const auto child = Progress::make(length);
  ThrottledTransfer::describe(*child, FileOperationKind::uploading);
  progress_->addChild(child, length);
  request({.number = number, .length = length, .child = child});
}

// A fresh address for every try.
void MultipartUpload::request(Part part) {
  auto body = aboutThisUpload();
  body["parts"] = json::Array{json::Value(part.number)};
  services_.api.post("upload-parts", std::move(body),
                     [self = shared_from_this(), part = std::move(part)](Result<json::Object> answer) mutable {
                       self->queue_->post([self, part = std::move(part), answer = std::move(answer)]() mutable {
                         self->send(std::move(part), answer);
                       });
                     });
}

void MultipartUpload::send(Part part, const Result<json::Object>& answer) {
  if (finished_) return;
  if (!answer) return retry(std::move(part), answer.error());
  auto url = partAddress(*answer);
  if (!url) return retry(std::move(part), APIError::malformed());
  auto file = slice(part);
  if (!file) return unreadable(file.error());
  put(std::move(part), *std::move(url), *std::move(file));
}

void MultipartUpload::put(Part part, std::string url, std::string file) {
  services_.transfers.uploadPart({.url = std::move(url), .method = "PUT", .timeout = TIMEOUT}, file, part.child,
                                 [self = shared_from_this(), part, file](Result<std::string> etag) mutable {
                                   static_cast<void>(self->services_.files.remove(file));
                                   self->answered(std::move(part), std::move(etag));
                                 });
}

void MultipartUpload::answered(Part part, Result<std::string> etag) {
  if (etag && job_.resumeID) services_.resume.record(*job_.resumeID, job_.uploadID, part.number, *etag);
  queue_->post([self = shared_from_this(), part = std::move(part), etag = std::move(etag)]() mutable {
    if (!etag) return self->retry(std::move(part), std::move(etag.error()));
    self->etags_[part.number] = *std::move(etag);
    --self->running_;
    self->pump();
  });
}

// A part keeps its place among those that run while it waits.
void MultipartUpload::retry(Part part, Error error) {
  if (finished_) return;
  if (progress_->isCancelled() || isFinal(error) || std::cmp_greater_equal(part.attempt, RETRY_DELAYS.size()))
    return fail(error);
  part.child->setCompletedUnitCount(0);
  services_.limits.refresh();
  if (services_.limits.paused()) return retryWhenNotPaused(std::move(part), std::move(error));
  const double delay = RETRY_DELAYS[static_cast<std::size_t>(part.attempt)];
  plog.log("multipart %{public}@: part %d failed (%{public}@), retrying in %.0f s", job_.key, part.number,
           error.localizedDescription(), delay);
  ++part.attempt;
  queue_->after(seconds(delay), [self = shared_from_this(), part = std::move(part)]() mutable {
    if (!self->finished_) self->request(std::move(part));
  });
}

void MultipartUpload::retryWhenNotPaused(Part part, Error error) {
  queue_->after(PAUSE_INTERVAL,
                [self = shared_from_this(), part = std::move(part), error = std::move(error)]() mutable {
                  self->retry(std::move(part), std::move(error));
                });
}

void MultipartUpload::join() {
  finished_ = true;
  json::Array parts;
  for (const auto& [number, etag] : etags_) parts.push_back(json::Object{{"part", number}, {"etag", etag}});
  auto body = aboutThisUpload();
  body["parts"] = std::move(parts);
  services_.api.post("upload-complete", std::move(body), [self = shared_from_this()](Result<json::Object> answer) {
    self->queue_->post([self, answer = std::move(answer)] { self->complete(answer); });
  });
}

void MultipartUpload::complete(const Result<json::Object>& answer) {
  if (!answer) {
    plog.error("multipart %{public}@: complete failed: %{public}@", job_.key, answer.error().localizedDescription());
    const auto refused = APIError::from(answer.error());
    if (refused && refused->kind == APIError::Kind::badResponse && refused->status != 0) abandon();
    return finish(failure(answer.error()));
  }
  forget();
  if (!job_.notify) return done();
  services_.thumbs.send(job_.file, std::string(lastPathComponent(job_.key)), job_.thumb,
                        [self = shared_from_this()](bool previewStored) {
                          self->services_.api.notifyUpload(self->job_.key, previewStored, [self] { self->done(); });
                        });
}

void MultipartUpload::done() {
  plog.log("multipart upload of %{public}@ done", job_.key);
  finish(job_.key);
}

void MultipartUpload::unreadable(const Error& error) {
  finished_ = true;
  plog.error("multipart upload of %{public}@ abandoned: %{public}@", job_.key, error.localizedDescription());
  abandon();
  finish(failure(error));
}

void MultipartUpload::fail(const Error& error) {
  finished_ = true;
  if (APIError::from(error) == APIError::badResponse(NOT_FOUND)) {
    plog.error("multipart upload of %{public}@: the server no longer has it", job_.key);
    forget();
  } else {
    plog.error("multipart upload of %{public}@ stopped with %d of %d parts sent, kept to resume: %{public}@", job_.key,
               etags_.size(), count_, error.localizedDescription());
  }
  finish(failure(error));
}

// The server discards the parts, and nobody waits for that.
void MultipartUpload::abandon() {
  forget();
  services_.api.post("upload-abort", aboutThisUpload(), [](const Result<json::Object>&) {});
}

void MultipartUpload::forget() {
  if (job_.resumeID) services_.resume.forget(*job_.resumeID);
}

void MultipartUpload::finish(Result<std::string> key) {
  std::move(completion_)(std::move(key));
}

std::int64_t MultipartUpload::offsetOf(std::int64_t number) const {
  return (number - 1) * job_.partSize;
}

std::int64_t MultipartUpload::lengthOf(std::int64_t number) const {
  return std::min(job_.partSize, job_.size - offsetOf(number));
}

json::Object MultipartUpload::aboutThisUpload() const {
  return {{"key", job_.key}, {"upload_id", job_.uploadID}};
}

Result<std::string> MultipartUpload::slice(const Part& part) {
  auto path = services_.files.temporaryFolder() + "/vondle-part-" + services_.random.uuid();
  const auto copied = copyRange(services_.files, job_.file, offsetOf(part.number), part.length, path);
  if (!copied) return failure(copied.error());
  return path;
}

}  // namespace vondle
