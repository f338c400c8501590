#include "provider/conflicted_copy.h"

#include <utility>

#include <fmt/format.h>

#include "api/api_error.h"
#include "api/provider_error.h"
#include "api/vondle_api.h"
#include "base/json.h"
#include "config/plog.h"
#include "platform/files.h"
#include "provider/item_lookup.h"
#include "upload/upload.h"

namespace vondle {
namespace {

constexpr std::int64_t CONFLICT = 409;

std::string_view folderOf(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// One call of resolveConflict(). Kept alive by what it waits for.
class ConflictedCopy final : public std::enable_shared_from_this<ConflictedCopy> {
 public:
  ConflictedCopy(const ProviderServices& services, Entry entry, std::optional<std::string> uploadedKey,
                 std::string source, std::shared_ptr<Progress> progress, Completion<Result<SavedItem>> completion)
      : services_(services),
        entry_(std::move(entry)),
        uploadedKey_(std::move(uploadedKey)),
        source_(std::move(source)),
        progress_(std::move(progress)),
        completion_(std::move(completion)) {}

  void start() { keep(); }

 private:
  void keep() {
    const auto path = conflictedPath(entry_.path, entry_.name, number_);
    plog.log("conflict on %{public}@ — keeping the edit as %{public}@", entry_.path, path);
    if (uploadedKey_)
      services_.api.registerContents(*uploadedKey_, path,
                                     [self = shared_from_this()](Result<json::Object> reply) { self->kept(reply); });
    else
      upload();
  }

  void upload() {
    const auto attributes = services_.upload.files.attributes(source_);
    if (!attributes) return lost(attributes.error());
    vondle::upload(services_.upload,
                   {.file = source_,
                    .to = std::string(folderOf(entry_.path)),
                    .filename = conflictedName(entry_.name, number_),
                    .size = attributes->size,
                    .resumeID = std::nullopt},
                   progress_, [self = shared_from_this()](Result<std::string> key) { self->kept(key); });
  }

  template <class Answer>
  void kept(const Result<Answer>& answer) {
    if (!answer) return refused(answer.error());
    changedItem(services_, entry_.id, std::nullopt,
                [self = shared_from_this()](Result<SavedItem> item) { self->finish(std::move(item)); });
  }

  void refused(const Error& error) {
    changedItem(services_, entry_.id, uploadedKey_, [self = shared_from_this(), error](Result<SavedItem> item) {
      if (item && item->hasGivenContents) return self->finish(std::move(item));
      if (APIError::from(error) == APIError::badResponse(CONFLICT) && self->number_ < MAX_CONFLICTED_COPIES) {
        ++self->number_;
        return self->keep();
      }
      self->lost(error);
    });
  }

  void lost(const Error& error) {
    plog.log("could not preserve the conflicting edit: %{public}@", error.localizedDescription());
    finish(failure(providerError(error, entry_.name)));
  }

  void finish(Result<SavedItem> result) { std::move(completion_)(std::move(result)); }

  const ProviderServices services_;
  const Entry entry_;
  const std::optional<std::string> uploadedKey_;
  const std::string source_;
  const std::shared_ptr<Progress> progress_;
  Completion<Result<SavedItem>> completion_;
  int number_ = 1;
};

}  // namespace

std::string conflictedName(std::string_view name, int number) {
  const auto suffix = number == 1 ? std::string(" (conflicted copy)") : fmt::format(" (conflicted copy {})", number);
  const auto dot = name.rfind('.');
  const bool hasExtension = dot != std::string_view::npos && dot > 0 && dot + 1 < name.size();
  if (!hasExtension) return std::string(name) + suffix;
  return fmt::format("{}{}{}", name.substr(0, dot), suffix, name.substr(dot));
}

std::string conflictedPath(std::string_view path, std::string_view name, int number) {
  const auto folder = folderOf(path);
  auto newName = conflictedName(name, number);
  return folder.empty() ? newName : fmt::format("{}/{}", folder, newName);
}

void resolveConflict(const ProviderServices& services, Entry entry, std::optional<std::string> uploadedKey,
                     std::string source, std::shared_ptr<Progress> progress, Completion<Result<SavedItem>> completion) {
  std::make_shared<ConflictedCopy>(services, std::move(entry), std::move(uploadedKey), std::move(source),
                                   std::move(progress), std::move(completion))
      ->start();
}

}  // namespace vondle
