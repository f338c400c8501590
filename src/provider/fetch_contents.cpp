#include "provider/fetch_contents.h"

#include <utility>

#include <fmt/format.h>

#include "api/provider_error.h"
#include "api/vondle_api.h"
#include "config/make_url.h"
#include "config/plog.h"
#include "fileprovider/error_codes.h"
#include "items/identifiers.h"
#include "items/vondle_item.h"
#include "state/item_cache.h"
#include "state/pending.h"
#include "transfer/throttled_transfer.h"

namespace vondle {
namespace {

constexpr std::string_view FINDER = "finder";
constexpr std::string_view SYNC = "sync";
constexpr std::string_view OTHER = "other";

std::string_view kindOf(const Request& request) {
  if (request.isFileViewerRequest) return FINDER;
  return request.isSystemRequest ? SYNC : OTHER;
}

// Only what is known to come from the service's own synchronisation gives way to others.
int priorityOf(std::string_view kind) {
  return kind == SYNC ? 1 : ThrottledTransfer::viewerPriority;
}

}  // namespace

FetchContents::FetchContents(const ProviderServices& services, ItemIdentifier identifier, Request request,
                             Completion<Result<FetchedContents>> completion)
    : services_(services),
      identifier_(std::move(identifier)),
      kind_(kindOf(request)),
      progress_(Progress::make()),
      completion_(std::move(completion)) {}

std::shared_ptr<Progress> FetchContents::start() {
  ThrottledTransfer::describe(*progress_, FileOperationKind::downloading);
  pendingID_ = services_.pending.begin(fmt::format("fetch {} [{}]", identifier_.text, kind_), 1);
  services_.api.item(serverIDFor(identifier_),
                     [self = shared_from_this()](Result<Entry> entry) { self->lookedUp(std::move(entry)); });
  return progress_;
}

void FetchContents::lookedUp(Result<Entry> entry) {
  const auto url = entry && entry->url ? makeURL(*entry->url) : std::nullopt;
  if (!url) {
    services_.pending.end(pendingID_);
    return finish(failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}));
  }
  entry_ = std::move(*entry);
  download(*url);
}

void FetchContents::download(const std::string& url) {
  services_.cache.store(entry_);
  plog.log("fetchContents %{public}@ (%lld bytes) [%{public}@]", entry_.name, entry_.size, kind_);
  services_.transfers.download(
      url, progress_, entry_.size, priorityOf(kind_),
      [self = shared_from_this()](Result<std::string> path) { self->downloaded(std::move(path)); });
}

void FetchContents::downloaded(Result<std::string> path) {
  services_.pending.end(pendingID_);
  if (!path) {
    plog.error("fetch failed: %{public}@", path.error().localizedDescription());
    return finish(failure(providerError(path.error(), entry_.name)));
  }
  plog.info("materialised %{public}@", entry_.name);
  finish(FetchedContents{std::move(*path), VondleItem(entry_, services_.pins).item()});
}

void FetchContents::finish(Result<FetchedContents> result) {
  std::move(completion_)(std::move(result));
}

}  // namespace vondle
