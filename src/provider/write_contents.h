#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "api/content_target.h"
#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "base/json.h"
#include "fileprovider/replicated_extension.h"
#include "provider/provider_services.h"
#include "upload/multipart_resume.h"
#include "upload/multipart_upload.h"

namespace vondle {

// The number of the entry's version that contents of this content version are based on; 0 when it names none.
std::int64_t baseVersionNumber(std::string_view contentVersion);

// Uploads new contents of a file and commits them as its next version. When the commit is refused, whatever the reason,
// or the server sees the clash before it takes the bytes, the edit is kept as a conflicted copy.
//
// Errors: NO_SUCH_ITEM when the server has no such file; those of providerError for everything that has to do with the
// upload; the local file's own; the API client's when the file can't be read anew after the commit. Kept alive by what
// it waits for.
class WriteContents final : public std::enable_shared_from_this<WriteContents> {
 public:
  // The contents are a local file, see ReplicatedExtension::modifyItem; without them nothing can be written.
  WriteContents(const ProviderServices& services, Item item, const ItemVersion& baseVersion,
                std::optional<std::string> contents, Completion<Result<SavedItem>> completion);

  // The progress can cancel and pause the upload.
  std::shared_ptr<Progress> start();

 private:
  void readAttributes();
  void lookedUp(Result<Entry> entry);
  void checkSavedUpload();
  void askForTarget();
  void send(Result<ContentTarget> target);
  void sendWhole(ContentTarget target);
  void sendInParts(MultipartUpload::Job job, std::optional<std::string> thumb);
  void resume(MultipartResume::Saved saved);
  void sendPreview(const std::string& key, const std::optional<std::string>& thumb);
  void commit(const std::string& key, bool previewStored);
  void committed(const std::string& key, const Result<json::Object>& reply);
  void keepCopy(std::optional<std::string> uploadedKey);
  void failed(const Error& error);
  void finish(Result<SavedItem> result);
  [[nodiscard]] bool isLarge() const { return size_ >= multipartThreshold; }

  const ProviderServices services_;
  const Item item_;
  const std::int64_t baseVersion_;
  const std::optional<std::string> contents_;
  const std::shared_ptr<Progress> progress_;
  Completion<Result<SavedItem>> completion_;
  std::int64_t size_ = 0;                // of the contents, bytes
  std::optional<std::string> resumeID_;  // of large ones
  Entry entry_;
};

}  // namespace vondle
