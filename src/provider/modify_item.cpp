#include "provider/modify_item.h"

#include <utility>

#include "api/vondle_api.h"
#include "config/plog.h"
#include "items/identifiers.h"
#include "provider/item_lookup.h"
#include "state/item_cache.h"

namespace vondle {

ModifyItem::ModifyItem(const ProviderServices& services, Item item, std::uint32_t changedFields,
                       Completion<Result<SavedItem>> completion)
    : services_(services), item_(std::move(item)), changedFields_(changedFields), completion_(std::move(completion)) {}

std::shared_ptr<Progress> ModifyItem::start() {
  services_.cache.resolve(
      serverIDFor(item_.itemIdentifier), mutationFreshness,
      [self = shared_from_this()](std::optional<Entry> entry) { self->lookedUp(std::move(entry)); });
  return Progress::make();
}

void ModifyItem::lookedUp(std::optional<Entry> entry) {
  if (!entry) return finish(failure(noSuchItem()));
  entry_ = *std::move(entry);
  if (!changes(FIELD_FILENAME) && !changes(FIELD_PARENT_ITEM_IDENTIFIER)) return nothingToSend();
  if (changes(FIELD_PARENT_ITEM_IDENTIFIER) && item_.parentItemIdentifier == TRASH_CONTAINER) return trash();
  if (entry_.deleted) return restore();
  relocate();
}

void ModifyItem::trash() {
  if (entry_.deleted) return nothingToSend();
  plog.log("trashing %{public}@", entry_.id);
  auto completion = [self = shared_from_this()](const Result<json::Object>& reply) { self->changed(reply); };
  if (entry_.isFolder) return services_.api.deleteFolder(entry_.path, std::move(completion));
  if (entry_.key) return services_.api.deleteFile(*entry_.key, std::move(completion));
  finish(failure(noSuchItem()));
}

void ModifyItem::restore() {
  plog.log("restoring %{public}@", entry_.id);
  services_.api.restore(entry_.id,
                        [self = shared_from_this()](const Result<json::Object>& reply) { self->changed(reply); });
}

void ModifyItem::relocate() {
  const auto folder = changes(FIELD_PARENT_ITEM_IDENTIFIER) ? serverIDFor(item_.parentItemIdentifier) : entry_.parentID;
  parentPath(services_, folder,
             [self = shared_from_this()](const std::optional<std::string>& path) { self->move(path); });
}

void ModifyItem::move(const std::optional<std::string>& folderPath) {
  if (!folderPath) return finish(failure(noSuchItem()));
  const auto& name = changes(FIELD_FILENAME) ? item_.filename : entry_.name;
  const auto target = folderPath->empty() ? name : *folderPath + "/" + name;
  if (target == entry_.path) return nothingToSend();
  plog.log("modify %{public}@ -> %{public}@", entry_.path, target);
  auto completion = [self = shared_from_this()](const Result<json::Object>& reply) { self->changed(reply); };
  if (entry_.isFolder) return services_.api.moveFolder(entry_.path, target, std::move(completion));
  if (entry_.key) return services_.api.move(*entry_.key, target, std::move(completion));
  finish(failure(noSuchItem()));
}

void ModifyItem::changed(const Result<json::Object>& reply) {
  if (!reply) return finish(failure(reply.error()));
  changedItem(services_, entry_.id, std::nullopt,
              [self = shared_from_this()](Result<SavedItem> item) { self->finish(std::move(item)); });
}

void ModifyItem::nothingToSend() {
  finish(savedItem(services_, entry_, std::nullopt));
}

void ModifyItem::finish(Result<SavedItem> result) {
  std::move(completion_)(std::move(result));
}

}  // namespace vondle
