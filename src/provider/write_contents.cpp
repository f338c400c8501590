#include "provider/write_contents.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include <fmt/format.h>

#include "api/api_error.h"
#include "api/provider_error.h"
#include "api/vondle_api.h"
#include "base/utf8.h"
#include "config/plog.h"
#include "items/identifiers.h"
#include "platform/files.h"
#include "preview/client_thumb.h"
#include "provider/conflicted_copy.h"
#include "provider/item_lookup.h"
#include "provider/vondle_file_provider.h"
#include "transfer/throttled_transfer.h"
#include "upload/single_upload.h"

namespace vondle {
namespace {

constexpr std::int64_t CONFLICT = 409;

}  // namespace

std::int64_t baseVersionNumber(std::string_view contentVersion) {
  if (!isUTF8(contentVersion)) return 0;
  auto piece = contentVersion.substr(std::min(contentVersion.find_first_not_of('-'), contentVersion.size()));
  piece = piece.substr(0, piece.find('-'));
  if (piece.starts_with('+')) piece.remove_prefix(1);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), number);
  return error == std::errc() && end == piece.data() + piece.size() ? number : 0;
}

WriteContents::WriteContents(const ProviderServices& services, Item item, const ItemVersion& baseVersion,
                             std::optional<std::string> contents, Completion<Result<SavedItem>> completion)
    : services_(services),
      item_(std::move(item)),
      baseVersion_(baseVersionNumber(baseVersion.contentVersion)),
      contents_(std::move(contents)),
      progress_(Progress::make()),
      completion_(std::move(completion)) {}

std::shared_ptr<Progress> WriteContents::start() {
  ThrottledTransfer::describe(*progress_, FileOperationKind::uploading);
  if (contents_)
    readAttributes();
  else
    finish(failure(VondleFileProvider::noWrites()));
  return progress_;
}

void WriteContents::readAttributes() {
  const auto& identifier = item_.itemIdentifier.text;
  plog.log("writeContents %{public}@ (base version %d)", identifier, baseVersion_);
  const auto attributes = services_.upload.files.attributes(*contents_);
  if (!attributes) return finish(failure(attributes.error()));
  size_ = attributes->size;
  if (isLarge())
    resumeID_ =
        MultipartResume::identity(fmt::format("edit|{}|{}", identifier, baseVersion_), size_, attributes->modified);
  currentEntry(services_, serverIDFor(item_.itemIdentifier),
               [self = shared_from_this()](Result<Entry> entry) { self->lookedUp(std::move(entry)); });
}

void WriteContents::lookedUp(Result<Entry> entry) {
  if (!entry && saysGone(entry.error())) return finish(failure(noSuchItem()));
  if (!entry) return failed(entry.error());
  entry_ = *std::move(entry);
  if (resumeID_) return checkSavedUpload();
  askForTarget();
}

void WriteContents::checkSavedUpload() {
  services_.upload.resume.check(*resumeID_, size_, services_.api,
                                [self = shared_from_this()](Result<std::optional<MultipartResume::Saved>> saved) {
                                  if (!saved) return self->failed(saved.error());
                                  if (!*saved) return self->askForTarget();
                                  self->resume(**std::move(saved));
                                });
}

void WriteContents::resume(MultipartResume::Saved saved) {
  sendInParts({.file = *contents_,
               .key = std::move(saved.key),
               .uploadID = std::move(saved.uploadID),
               .size = size_,
               .partSize = saved.partSize,
               .notify = false,
               .resumeID = resumeID_},
              std::nullopt);
}

void WriteContents::askForTarget() {
  services_.api.contentURL(entry_.id, baseVersion_, size_, [self = shared_from_this()](Result<ContentTarget> target) {
    self->send(std::move(target));
  });
}

void WriteContents::send(Result<ContentTarget> target) {
  if (!target && APIError::from(target.error()) == APIError::badResponse(CONFLICT)) return keepCopy(std::nullopt);
  if (!target) return failed(target.error());
  if (!target->uploadID) return sendWhole(*std::move(target));
  sendInParts({.file = *contents_,
               .key = std::move(target->key),
               .uploadID = *std::move(target->uploadID),
               .size = size_,
               .partSize = target->partSize,
               .notify = false,
               .resumeID = resumeID_},
              std::move(target->thumbUpload));
}

void WriteContents::sendWhole(ContentTarget target) {
  SingleUpload whole{.file = *contents_,
                     .name = entry_.name,
                     .url = *std::move(target.uploadURL),
                     .contentType = std::move(target.contentType),
                     .thumb = std::move(target.thumbUpload)};
  sendInOneRequest(services_.upload, std::move(whole), progress_,
                   [self = shared_from_this(), key = std::move(target.key)](Result<bool> previewStored) {
                     if (!previewStored) return self->failed(previewStored.error());
                     self->commit(key, *previewStored);
                   });
}

void WriteContents::sendInParts(MultipartUpload::Job job, std::optional<std::string> thumb) {
  auto sent = [self = shared_from_this(), thumb = std::move(thumb)](const Result<std::string>& key) {
    if (!key) return self->failed(key.error());
    self->sendPreview(*key, thumb);
  };
  std::make_shared<MultipartUpload>(services_.upload, std::move(job), progress_, std::move(sent))->start();
}

void WriteContents::sendPreview(const std::string& key, const std::optional<std::string>& thumb) {
  services_.upload.thumbs.send(*contents_, entry_.name, thumb,
                               [self = shared_from_this(), key](bool stored) { self->commit(key, stored); });
}

void WriteContents::commit(const std::string& key, bool previewStored) {
  services_.api.contentCommit(
      entry_.id, baseVersion_, key, previewStored,
      [self = shared_from_this(), key](const Result<json::Object>& reply) { self->committed(key, reply); });
}

// Why it was refused does not matter: no edit whose bytes are on the server may be dropped.
void WriteContents::committed(const std::string& key, const Result<json::Object>& reply) {
  if (!reply) return keepCopy(key);
  changedItem(services_, entry_.id, key,
              [self = shared_from_this()](Result<SavedItem> item) { self->finish(std::move(item)); });
}

void WriteContents::keepCopy(std::optional<std::string> uploadedKey) {
  resolveConflict(services_, entry_, std::move(uploadedKey), *contents_, progress_,
                  [self = shared_from_this()](Result<SavedItem> item) { self->finish(std::move(item)); });
}

void WriteContents::failed(const Error& error) {
  finish(failure(providerError(error, item_.filename)));
}

void WriteContents::finish(Result<SavedItem> result) {
  std::move(completion_)(std::move(result));
}

}  // namespace vondle
