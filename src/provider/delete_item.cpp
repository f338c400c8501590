#include "provider/delete_item.h"

#include <utility>

#include "api/vondle_api.h"
#include "config/plog.h"
#include "items/identifiers.h"
#include "provider/item_lookup.h"
#include "state/item_cache.h"

namespace vondle {

DeleteItem::DeleteItem(const ProviderServices& services, const ItemIdentifier& identifier,
                       Completion<std::optional<Error>> completion)
    : services_(services), id_(serverIDFor(identifier)), completion_(std::move(completion)) {}

std::shared_ptr<Progress> DeleteItem::start() {
  services_.cache.resolve(id_, mutationFreshness, [self = shared_from_this()](const std::optional<Entry>& entry) {
    entry ? self->remove(*entry) : self->finish(std::nullopt);
  });
  return Progress::make();
}

void DeleteItem::remove(const Entry& entry) {
  plog.info("purging %{public}@", id_);
  auto completion = [self = shared_from_this()](const Result<json::Object>& reply) { self->removed(reply); };
  if (entry.deleted) return services_.api.purge(id_, std::move(completion));
  if (entry.isFolder) return services_.api.deleteFolder(entry.path, std::move(completion));
  if (entry.key) return services_.api.deleteFile(*entry.key, std::move(completion));
  finish(std::nullopt);
}

void DeleteItem::removed(const Result<json::Object>& reply) {
  if (!reply && !saysGone(reply.error())) return finish(reply.error());
  services_.cache.forget(id_);
  finish(std::nullopt);
}

void DeleteItem::finish(std::optional<Error> error) {
  std::move(completion_)(std::move(error));
}

}  // namespace vondle
