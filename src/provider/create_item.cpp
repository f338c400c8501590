#include "provider/create_item.h"

#include <utility>

#include "api/provider_error.h"
#include "api/vondle_api.h"
#include "config/plog.h"
#include "items/identifiers.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "provider/item_lookup.h"
#include "provider/vondle_file_provider.h"
#include "state/item_cache.h"
#include "upload/multipart_resume.h"
#include "upload/upload.h"

namespace vondle {

CreateItem::CreateItem(const ProviderServices& services, Item basedOn, std::optional<std::string> contents,
                       Completion<Result<SavedItem>> completion)
    : services_(services),
      template_(std::move(basedOn)),
      parentID_(serverIDFor(template_.parentItemIdentifier)),
      contents_(std::move(contents)),
      progress_(Progress::make()),
      completion_(std::move(completion)) {}

std::shared_ptr<Progress> CreateItem::start() {
  parentPath(services_, parentID_,
             [self = shared_from_this()](std::optional<std::string> path) { self->foundParent(std::move(path)); });
  return progress_;
}

void CreateItem::foundParent(std::optional<std::string> path) {
  if (!path) return finish(failure(noSuchItem()));
  parentPath_ = *std::move(path);
  if (template_.isFolder()) return makeFolder();
  if (!contents_) return finish(failure(VondleFileProvider::noWrites()));
  makeFile(*contents_);
}

void CreateItem::makeFolder() {
  plog.log("createItem folder %{public}@", template_.filename);
  services_.api.createFolder(
      template_.filename, parentPath_,
      [self = shared_from_this()](const Result<json::Object>& reply) { self->folderMade(reply); });
}

// A server may answer the new folder itself.
void CreateItem::folderMade(const Result<json::Object>& reply) {
  if (!reply) return finish(failure(reply.error()));
  auto entry = Entry::parse(*reply, parentPath_, std::nullopt, services_.clock.now());
  if (!entry || !entry->isFolder || entry->parentID != parentID_) return findMade(std::nullopt);
  services_.cache.store(*entry);
  finish(savedItem(services_, *std::move(entry), std::nullopt));
}

void CreateItem::makeFile(const std::string& contents) {
  const auto attributes = services_.upload.files.attributes(contents);
  if (!attributes) return finish(failure(attributes.error()));
  const auto name = "new|" + parentPath_ + "/" + template_.filename;
  upload(services_.upload,
         {.file = contents,
          .to = parentPath_,
          .filename = template_.filename,
          .size = attributes->size,
          .resumeID = MultipartResume::identity(name, attributes->size, attributes->modified)},
         progress_, [self = shared_from_this()](Result<std::string> key) { self->uploaded(std::move(key)); });
}

void CreateItem::uploaded(Result<std::string> key) {
  if (!key) {
    plog.log("upload of %{public}@ failed: %{public}@", template_.filename, key.error().localizedDescription());
    return finish(failure(providerError(key.error(), template_.filename)));
  }
  findMade(*std::move(key));
}

void CreateItem::findMade(std::optional<std::string> givenKey) {
  findChild(services_, template_.filename, parentID_,
            [self = shared_from_this(), givenKey = std::move(givenKey)](std::optional<Entry> entry) {
              if (!entry) return self->finish(failure(noSuchItem()));
              self->finish(savedItem(self->services_, *std::move(entry), givenKey));
            });
}

void CreateItem::finish(Result<SavedItem> result) {
  std::move(completion_)(std::move(result));
}

}  // namespace vondle
