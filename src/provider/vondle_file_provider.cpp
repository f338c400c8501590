#include "provider/vondle_file_provider.h"

#include <utility>

#include "config/extension_restart.h"
#include "config/plog.h"
#include "fileprovider/error_codes.h"
#include "items/identifiers.h"
#include "items/root_item.h"
#include "items/trash_enumerator.h"
#include "items/vondle_enumerator.h"
#include "items/vondle_item.h"
#include "items/working_set_enumerator.h"
#include "provider/create_item.h"
#include "provider/delete_item.h"
#include "provider/fetch_contents.h"
#include "provider/fetch_thumbnails.h"
#include "provider/item_lookup.h"
#include "provider/modify_item.h"
#include "provider/perform_action.h"
#include "provider/write_contents.h"
#include "state/cursor.h"
#include "state/item_cache.h"

namespace vondle {

VondleFileProvider::VondleFileProvider(Domain domain, ManagerForDomain managerForDomain,
                                       const ProviderServices& services, ExtensionRestart& restart)
    : domain_(std::move(domain)), managerForDomain_(std::move(managerForDomain)), services_(services) {
  plog.log("provider started for domain %{public}@ (cursor %d)", domain_.displayName, services_.cursor.load());
  restart.listen();
}

std::shared_ptr<Progress> VondleFileProvider::itemForIdentifier(ItemIdentifier identifier, Request,
                                                                Completion<Result<Item>> completion) {
  auto progress = Progress::make();
  if (identifier == ROOT_CONTAINER) {
    std::move(completion)(RootItem::item());
    return progress;
  }
  services_.cache.resolve(
      serverIDFor(identifier), std::nullopt,
      [services = services_, completion = std::move(completion)](std::optional<Entry> entry) mutable {
        if (!entry) return std::move(completion)(failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}));
        std::move(completion)(VondleItem(std::move(*entry), services.pins).item());
      });
  return progress;
}

std::shared_ptr<Enumerator> VondleFileProvider::enumeratorForContainer(ItemIdentifier container, Request request) {
  if (container == WORKING_SET_CONTAINER)
    return std::make_shared<WorkingSetEnumerator>(services_, domain_, managerForDomain_);
  if (container == TRASH_CONTAINER) return std::make_shared<TrashEnumerator>(services_);
  return std::make_shared<VondleEnumerator>(services_, container, request.isFileViewerRequest);
}

std::shared_ptr<Progress> VondleFileProvider::fetchContents(ItemIdentifier identifier, std::optional<ItemVersion>,
                                                            Request request,
                                                            Completion<Result<FetchedContents>> completion) {
  return std::make_shared<FetchContents>(services_, std::move(identifier), request, std::move(completion))->start();
}

std::shared_ptr<Progress> VondleFileProvider::createItem(Item basedOn, std::uint32_t,
                                                         std::optional<std::string> contents, std::uint32_t, Request,
                                                         Completion<Result<SavedItem>> completion) {
  return std::make_shared<CreateItem>(services_, std::move(basedOn), std::move(contents), std::move(completion))
      ->start();
}

std::shared_ptr<Progress> VondleFileProvider::modifyItem(Item item, ItemVersion baseVersion,
                                                         std::uint32_t changedFields,
                                                         std::optional<std::string> contents, std::uint32_t, Request,
                                                         Completion<Result<SavedItem>> completion) {
  if ((changedFields & FIELD_CONTENTS) != 0)
    return std::make_shared<WriteContents>(services_, std::move(item), baseVersion, std::move(contents),
                                           std::move(completion))
        ->start();
  return std::make_shared<ModifyItem>(services_, std::move(item), changedFields, std::move(completion))->start();
}

std::shared_ptr<Progress> VondleFileProvider::deleteItem(ItemIdentifier identifier, ItemVersion, std::uint32_t, Request,
                                                         Completion<std::optional<Error>> completion) {
  return std::make_shared<DeleteItem>(services_, identifier, std::move(completion))->start();
}

std::shared_ptr<Progress> VondleFileProvider::performAction(std::string action, std::vector<ItemIdentifier> identifiers,
                                                            Completion<std::optional<Error>> completion) {
  return std::make_shared<PerformAction>(services_, domain_, managerForDomain_, std::move(action),
                                         std::move(identifiers), std::move(completion))
      ->start();
}

std::shared_ptr<Progress> VondleFileProvider::fetchThumbnails(std::vector<ItemIdentifier> identifiers,
                                                              ThumbnailSize requestedSize, ThumbnailReceiver receiver,
                                                              Completion<std::optional<Error>> completion) {
  return std::make_shared<FetchThumbnails>(services_, identifiers, requestedSize, std::move(receiver),
                                           std::move(completion))
      ->start();
}

void VondleFileProvider::parentPath(const std::string& id, Completion<std::optional<std::string>> completion) {
  vondle::parentPath(services_, id, std::move(completion));
}

void VondleFileProvider::findChild(std::string name, std::string folderID,
                                   Completion<std::optional<Entry>> completion) {
  vondle::findChild(services_, std::move(name), std::move(folderID), std::move(completion));
}

Error VondleFileProvider::noWrites() {
  return {COCOA_ERROR_DOMAIN, FEATURE_UNSUPPORTED, "Vondle cannot upload file contents yet."};
}

}  // namespace vondle
