#include "provider/perform_action.h"

#include <utility>

#include "config/plog.h"
#include "platform/dispatch_group.h"
#include "platform/scheduler.h"
#include "provider/item_lookup.h"
#include "provider/vondle_file_provider.h"
#include "state/pins.h"

namespace vondle {
namespace {

// Absent for an action that is not ours.
std::optional<bool> pinValueOf(const std::string& action) {
  if (action == VondleFileProvider::keepAction) return true;
  if (action == VondleFileProvider::unkeepAction) return false;
  return std::nullopt;
}

}  // namespace

PerformAction::PerformAction(const ProviderServices& services, Domain domain, ManagerForDomain managerForDomain,
                             std::string action, std::vector<ItemIdentifier> identifiers,
                             Completion<std::optional<Error>> completion)
    : services_(services),
      domain_(std::move(domain)),
      managerForDomain_(std::move(managerForDomain)),
      action_(std::move(action)),
      identifiers_(std::move(identifiers)),
      progress_(Progress::make(static_cast<std::int64_t>(identifiers_.size()))),
      completion_(std::move(completion)) {}

std::shared_ptr<Progress> PerformAction::start() {
  const auto pinned = pinValueOf(action_);
  if (!pinned) {
    plog.error("unknown action %{public}@", action_);
    finish(noSuchItem());
    return progress_;
  }
  pin(*pinned);
  if (const auto manager = managerForDomain_(domain_)) {
    signalWorkingSet(*manager);
    *pinned ? finish(std::nullopt) : evict(*manager);
  } else {
    finish(std::nullopt);
  }
  return progress_;
}

void PerformAction::pin(bool pinned) {
  std::int64_t done = 0;
  for (const auto& identifier : identifiers_) {
    services_.pins.set(identifier.text, pinned);
    progress_->setCompletedUnitCount(++done);
  }
  plog.info("%{public}@ %d item(s)", pinned ? "keep downloaded:" : "stop keeping:", identifiers_.size());
}

void PerformAction::signalWorkingSet(Manager& manager) {
  manager.signalEnumerator(WORKING_SET_CONTAINER, [](const std::optional<Error>& error) {
    if (error) plog.error("signal after pin change failed: %{public}@", error->localizedDescription());
  });
}

void PerformAction::evict(Manager& manager) {
  const auto group = std::make_shared<DispatchGroup>();
  for (const auto& identifier : identifiers_) {
    group->enter();
    manager.evictItem(identifier, [group, id = identifier.text](const std::optional<Error>& error) {
      if (error) plog.info("evict %{public}@: %{public}@", id, error->localizedDescription());
      group->leave();
    });
  }
  group->notify(services_.scheduler.global(), [self = shared_from_this()] { self->finish(std::nullopt); });
}

void PerformAction::finish(std::optional<Error> error) {
  std::move(completion_)(std::move(error));
}

}  // namespace vondle
