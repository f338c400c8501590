#include "items/working_set_changes.h"

#include <set>
#include <utility>

#include "api/vondle_api.h"
#include "config/plog.h"
#include "items/cursor_enumerator.h"
#include "items/identifiers.h"
#include "items/vondle_item.h"
#include "platform/dispatch_group.h"
#include "state/cursor.h"
#include "state/item_cache.h"
#include "state/pins.h"

namespace vondle {
namespace {

std::vector<std::string> withoutDuplicates(const std::vector<std::string>& ids) {
  std::vector<std::string> once;
  std::set<std::string_view> seen;
  for (const std::string& id : ids)
    if (seen.insert(id).second) once.push_back(id);
  return once;
}

}  // namespace

WorkingSetChanges::WorkingSetChanges(const ItemServices& services, Domain domain, ManagerForDomain managerForDomain,
                                     std::shared_ptr<ChangeObserver> observer, SyncAnchor from)
    : services_(services),
      domain_(std::move(domain)),
      managerForDomain_(std::move(managerForDomain)),
      observer_(std::move(observer)),
      from_(std::move(from)) {}

void WorkingSetChanges::start() {
  deadline_ =
      services_.scheduler.global().after(PIN_WORK_DEADLINE, [self = shared_from_this()] { self->pinWorkExceeded(); });
  applyPinRequests();
}

void WorkingSetChanges::applyPinRequests() {
  const auto requests = services_.pins.takePending();
  const auto service = requests.empty() ? nullptr : manager();
  if (!service) return announcePinChanges();

  const auto group = std::make_shared<DispatchGroup>();
  for (const auto& request : requests) {
    group->enter();
    service->getUserVisibleURL(
        {request.id}, [self = shared_from_this(), group, service, pinned = request.pin](Result<std::string> path) {
          if (!path) return group->leave();
          service->getIdentifierForUserVisibleFile(*path, [self, group, pinned](Result<ItemIdentifier> identifier) {
            if (identifier) self->applied(*identifier, pinned);
            group->leave();
          });
        });
  }
  group->notify(services_.scheduler.global(), [self = shared_from_this()] {
    std::size_t count = 0;
    {
      MutexLock hold(self->lock_);
      count = self->applied_.size();
    }
    plog.log("applied %d pin request(s)", count);
    self->announcePinChanges();
  });
}

void WorkingSetChanges::applied(const ItemIdentifier& identifier, bool pinned) {
  services_.pins.set(identifier.text, pinned);
  MutexLock hold(lock_);
  applied_.push_back(identifier.text);
}

void WorkingSetChanges::announcePinChanges() {
  std::vector<std::string> ids = services_.pins.takeDirty();
  {
    MutexLock hold(lock_);
    ids.insert(ids.begin(), applied_.begin(), applied_.end());
  }
  ids = withoutDuplicates(ids);
  if (ids.empty()) return pinWorkFinished();

  const auto group = std::make_shared<DispatchGroup>();
  for (const std::string& id : ids) {
    group->enter();
    services_.api.item(id, [self = shared_from_this(), group](Result<Entry> entry) {
      if (entry) self->fetched(std::move(*entry));
      group->leave();
    });
  }
  group->notify(services_.scheduler.global(),
                [self = shared_from_this(), ids = std::move(ids)] { self->announce(ids); });
}

void WorkingSetChanges::fetched(Entry entry) {
  services_.cache.store(entry);
  Item item = VondleItem(std::move(entry), services_.pins).item();
  MutexLock hold(lock_);
  announced_.push_back(std::move(item));
}

void WorkingSetChanges::announce(const std::vector<std::string>& ids) {
  std::vector<Item> items;
  {
    MutexLock hold(lock_);
    items.swap(announced_);
  }
  const std::size_t count = items.size();
  if (!items.empty()) observer_->didUpdateItems(std::move(items));
  plog.log("announced %d pin change(s)", count);
  evictUnpinned(ids);
  pinWorkFinished();
}

void WorkingSetChanges::evictUnpinned(const std::vector<std::string>& ids) {
  const auto service = manager();
  if (!service) return;
  for (const std::string& id : ids) {
    if (services_.pins.contains(id)) continue;
    service->evictItem({id}, [id](std::optional<Error> error) {
      if (error) plog.info("evict %{public}@: %{public}@", id, error->localizedDescription());
    });
  }
}

void WorkingSetChanges::pinWorkFinished() {
  services_.scheduler.global().cancel(deadline_);
  continueOnce();
}

void WorkingSetChanges::pinWorkExceeded() {
  bool late = false;
  {
    MutexLock hold(lock_);
    late = !continued_;
  }
  if (late) plog.error("pin work exceeded %.0fs, continuing without it", inSeconds(PIN_WORK_DEADLINE));
  continueOnce();
}

void WorkingSetChanges::continueOnce() {
  {
    MutexLock hold(lock_);
    if (std::exchange(continued_, true)) return;
  }
  readServerChanges();
}

void WorkingSetChanges::readServerChanges() {
  const std::int64_t cursor = services_.cursor.load();
  if (cursor == 0) {
    readHead();
  } else {
    readPage(cursor);
  }
}

void WorkingSetChanges::readHead() {
  services_.api.changes(0, 0, [self = shared_from_this()](Result<ChangeSet> page) {
    if (!page) return self->observer_->finishEnumeratingChangesUpToSyncAnchor(self->from_, false);
    self->services_.cursor.save(page->head);
    plog.log("cold start: cursor set to head %d", page->head);
    self->observer_->finishEnumeratingChangesUpToSyncAnchor(syncAnchorOf(page->head), false);
  });
}

void WorkingSetChanges::readPage(std::int64_t cursor) {
  services_.api.changes(cursor, PAGE_LIMIT, [self = shared_from_this(), cursor](Result<ChangeSet> page) {
    if (!page) return self->observer_->finishEnumeratingWithError(page.error());
    self->deliver(cursor, std::move(*page));
  });
}

void WorkingSetChanges::deliver(std::int64_t cursor, ChangeSet page) {
  const std::size_t updated = page.entries.size();
  const std::size_t deleted = page.deleted.size();
  services_.cache.store(page.entries);
  if (updated > 0) observer_->didUpdateItems(makeItems(std::move(page.entries), services_.pins));
  if (deleted > 0) {
    std::vector<ItemIdentifier> identifiers;
    for (const std::string& id : page.deleted) identifiers.push_back(identifierFor(id));
    observer_->didDeleteItemsWithIdentifiers(std::move(identifiers));
    for (const std::string& id : page.deleted) services_.cache.forget(id);
  }
  services_.cursor.save(page.seq);
  plog.log("changes since %d: %d updated, %d deleted (now at %d)", cursor, updated, deleted, page.seq);
  observer_->finishEnumeratingChangesUpToSyncAnchor(syncAnchorOf(page.seq), page.more);
}

}  // namespace vondle
