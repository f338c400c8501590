#include "upload/upload.h"

#include <utility>

#include "api/api_error.h"
#include "api/content_target.h"
#include "api/vondle_api.h"
#include "base/json.h"
#include "upload/multipart_resume.h"
#include "upload/multipart_upload.h"
#include "upload/single_upload.h"

namespace vondle {
namespace {

// The server answers with one target per file.
std::optional<ContentTarget> firstTarget(const json::Object& answer) {
  const auto* targets = json::list(answer, "urls");
  if (!targets || targets->empty() || !targets->front().is_object()) return std::nullopt;
  return ContentTarget::parse(targets->front().get_object());
}

// One call of upload(). Kept alive by what it waits for.
class Upload final : public std::enable_shared_from_this<Upload> {
 public:
  Upload(const UploadServices& services, UploadRequest request, std::shared_ptr<Progress> progress,
         Completion<Result<std::string>> completion)
      : services_(services),
        request_(std::move(request)),
        progress_(std::move(progress)),
        completion_(std::move(completion)) {}

  void start() {
    if (!isLarge() || !request_.resumeID) return askForTarget();
    services_.resume.check(*request_.resumeID, request_.size, services_.api,
                           [self = shared_from_this()](Result<std::optional<MultipartResume::Saved>> saved) {
                             if (!saved) return self->finish(failure(std::move(saved.error())));
                             if (!*saved) return self->askForTarget();
                             self->resume(**std::move(saved));
                           });
  }

 private:
  [[nodiscard]] bool isLarge() const { return request_.size >= multipartThreshold; }

  void resume(MultipartResume::Saved saved) {
    sendInParts({.file = request_.file,
                 .key = std::move(saved.key),
                 .uploadID = std::move(saved.uploadID),
                 .size = request_.size,
                 .partSize = saved.partSize,
                 .resumeID = request_.resumeID});
  }

  void askForTarget() {
    json::Object file{{"filename", request_.filename}, {"size", request_.size}, {"thumb", true}};
    if (isLarge()) file["multipart"] = true;
    services_.api.post("upload-urls", {{"path", request_.to}, {"files", json::Array{json::Value(std::move(file))}}},
                       [self = shared_from_this()](const Result<json::Object>& answer) { self->startUpload(answer); });
  }

  void startUpload(const Result<json::Object>& answer) {
    if (!answer) return finish(failure(answer.error()));
    auto target = firstTarget(*answer);
    if (!target) return finish(failure(APIError::malformed()));
    if (!target->uploadID) return sendWhole(*std::move(target));
    sendInParts({.file = request_.file,
                 .key = std::move(target->key),
                 .uploadID = *std::move(target->uploadID),
                 .size = request_.size,
                 .partSize = target->partSize,
                 .resumeID = request_.resumeID,
                 .thumb = std::move(target->thumbUpload)});
  }

  void sendInParts(MultipartUpload::Job job) {
    auto finished = [self = shared_from_this()](Result<std::string> key) { self->finish(std::move(key)); };
    std::make_shared<MultipartUpload>(services_, std::move(job), progress_, std::move(finished))->start();
  }

  void sendWhole(ContentTarget target) {
    SingleUpload whole{.file = request_.file,
                       .name = request_.filename,
                       .url = *std::move(target.uploadURL),
                       .contentType = std::move(target.contentType),
                       .thumb = std::move(target.thumbUpload)};
    sendInOneRequest(services_, std::move(whole), progress_,
                     [self = shared_from_this(), key = std::move(target.key)](Result<bool> previewStored) mutable {
                       if (!previewStored) return self->finish(failure(std::move(previewStored.error())));
                       self->notifyServer(std::move(key), *previewStored);
                     });
  }

  // Whatever becomes of it: the bytes are stored.
  void notifyServer(std::string key, bool previewStored) {
    services_.api.notifyUpload(key, previewStored, [self = shared_from_this(), key] { self->finish(key); });
  }

  void finish(Result<std::string> key) { std::move(completion_)(std::move(key)); }

  const UploadServices services_;
  const UploadRequest request_;
  const std::shared_ptr<Progress> progress_;
  Completion<Result<std::string>> completion_;
};

}  // namespace

void upload(const UploadServices& services, UploadRequest request, std::shared_ptr<Progress> progress,
            Completion<Result<std::string>> completion) {
  std::make_shared<Upload>(services, std::move(request), std::move(progress), std::move(completion))->start();
}

}  // namespace vondle
