#include "provider/fetch_thumbnails.h"

#include <set>
#include <utility>

#include "api/api_error.h"
#include "api/provider_error.h"
#include "api/vondle_api.h"
#include "config/make_url.h"
#include "config/plog.h"
#include "items/identifiers.h"
#include "platform/dispatch_group.h"
#include "platform/scheduler.h"
#include "state/item_cache.h"
#include "state/pending.h"
#include "transfer/throttled_transfer.h"

namespace vondle {
namespace {

constexpr std::int64_t SERVICE_UNAVAILABLE = 503;

std::vector<std::string> serverIDsOf(const std::vector<ItemIdentifier>& identifiers) {
  std::vector<std::string> ids;
  std::set<std::string> seen;
  for (const auto& identifier : identifiers)
    if (auto id = serverIDFor(identifier); seen.insert(id).second) ids.push_back(std::move(id));
  return ids;
}

}  // namespace

FetchThumbnails::FetchThumbnails(const ProviderServices& services, const std::vector<ItemIdentifier>& identifiers,
                                 ThumbnailSize requestedSize, ThumbnailReceiver receiver,
                                 Completion<std::optional<Error>> completion)
    : services_(services),
      ids_(serverIDsOf(identifiers)),
      requestedSize_(requestedSize),
      receiver_(std::move(receiver)),
      progress_(Progress::make(static_cast<std::int64_t>(ids_.size()))),
      completion_(std::move(completion)) {}

std::shared_ptr<Progress> FetchThumbnails::start() {
  pendingID_ = services_.pending.begin("thumbnails", static_cast<std::int64_t>(ids_.size()));
  if (ids_.empty()) {
    services_.scheduler.global().post([self = shared_from_this()] { self->finish(); });
  } else {
    lookUpAll();
  }
  return progress_;
}

void FetchThumbnails::lookUpAll() {
  const auto lookups = std::make_shared<DispatchGroup>();
  for (const std::string& id : ids_) {
    lookups->enter();
    services_.cache.resolve(id, MAX_ENTRY_AGE,
                            [self = shared_from_this(), lookups, id](const std::optional<Entry>& entry) {
                              self->lookedUp(id, entry);
                              lookups->leave();
                            });
  }
  lookups->notify(services_.scheduler.global(), [self = shared_from_this()] { self->askForAll(); });
}

void FetchThumbnails::lookedUp(const std::string& id, const std::optional<Entry>& entry) {
  if (!entry || !entry->hasThumb || progress_->isCancelled()) return deliver(id, std::nullopt);
  MutexLock hold(lock_);
  wanted_.emplace(id, entry->name);
}

void FetchThumbnails::askForAll() {
  std::vector<std::string> ids;
  {
    MutexLock hold(lock_);
    for (const auto& [id, name] : wanted_) ids.push_back(id);
  }
  if (!ids.empty()) ask(std::move(ids), 0);
}

void FetchThumbnails::ask(std::vector<std::string> ids, std::size_t attempt) {
  services_.api.thumbURLs(ids, [self = shared_from_this(), ids, attempt](const Result<ThumbURLs>& thumbs) {
    if (thumbs) return self->answered(ids, attempt, *thumbs);
    for (const auto& id : ids) self->deliver(id, failure(providerError(thumbs.error(), self->nameOf(id))));
  });
}

void FetchThumbnails::answered(const std::vector<std::string>& ids, std::size_t attempt, const ThumbURLs& thumbs) {
  std::vector<std::string> later;
  for (const auto& id : ids) {
    if (thumbs.pending.contains(id)) {
      later.push_back(id);
    } else if (const auto found = thumbs.urls.find(id); found != thumbs.urls.end()) {
      fetch(id, found->second);
    } else {
      deliver(id, std::nullopt);
    }
  }
  if (later.empty()) return;
  if (attempt < RETRY_DELAYS.size())
    askAgain(std::move(later), attempt);
  else
    giveUp(later);
}

void FetchThumbnails::fetch(const std::string& id, const std::string& address) {
  const auto url = makeURL(address);
  if (!url || progress_->isCancelled()) return deliver(id, std::nullopt);
  services_.transfers.fetchData(
      *url, [self = shared_from_this(), id](Result<std::string> image) { self->fetched(id, std::move(image)); });
}

void FetchThumbnails::fetched(const std::string& id, Result<std::string> image) {
  const auto name = nameOf(id);
  if (image) {
    plog.info("thumbnail %{public}@: %d bytes", name, image->size());
    return deliver(id, std::move(*image));
  }
  plog.error("thumbnail %{public}@ failed: %{public}@", name, image.error().localizedDescription());
  deliver(id, failure(providerError(image.error(), name)));
}

void FetchThumbnails::askAgain(std::vector<std::string> ids, std::size_t attempt) {
  services_.scheduler.global().after(
      RETRY_DELAYS.at(attempt),
      [self = shared_from_this(), ids = std::move(ids), attempt]() mutable { self->ask(std::move(ids), attempt + 1); });
}

void FetchThumbnails::giveUp(const std::vector<std::string>& ids) {
  plog.info("thumbnails: %d still being made, leaving them for later", ids.size());
  const Error unavailable = APIError::badResponse(SERVICE_UNAVAILABLE);
  for (const auto& id : ids) deliver(id, failure(providerError(unavailable, nameOf(id))));
}

void FetchThumbnails::deliver(const std::string& id, Result<std::optional<std::string>> image) {
  receiver_(identifierFor(id), std::move(image));
  services_.pending.progress(pendingID_);
  {
    MutexLock hold(lock_);
    progress_->setCompletedUnitCount(static_cast<std::int64_t>(++delivered_));
    if (delivered_ < ids_.size()) return;
  }
  services_.scheduler.global().post([self = shared_from_this()] { self->finish(); });
}

void FetchThumbnails::finish() {
  services_.pending.end(pendingID_);
  plog.info("thumbnails: %d requested at %.0fx%.0f", ids_.size(), requestedSize_.width, requestedSize_.height);
  std::move(completion_)(progress_->isCancelled() ? std::optional(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED))
                                                  : std::nullopt);
}

std::string FetchThumbnails::nameOf(const std::string& id) const {
  MutexLock hold(lock_);
  return wanted_.at(id);
}

}  // namespace vondle
