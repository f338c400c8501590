#include "provider/item_lookup.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "api/api_error.h"
#include "api/vondle_api.h"
#include "config/containers.h"
#include "fileprovider/error_codes.h"
#include "items/vondle_item.h"
#include "provider/shared_listings.h"
#include "state/item_cache.h"

namespace vondle {
namespace {

constexpr std::int64_t NOT_FOUND = 404;
constexpr std::int64_t GONE = 410;

}  // namespace

void parentPath(const ProviderServices& services, const std::string& id,
                Completion<std::optional<std::string>> completion) {
  if (id == SERVER_ROOT) return std::move(completion)("");
  services.cache.resolve(id, mutationFreshness,
                         [completion = std::move(completion)](std::optional<Entry> entry) mutable {
                           std::move(completion)(entry ? std::optional(std::move(entry->path)) : std::nullopt);
                         });
}

void findChild(const ProviderServices& services, std::string name, std::string folderID,
               Completion<std::optional<Entry>> completion) {
  services.listings.list(folderID, [name = std::move(name), completion = std::move(completion)](
                                       const SharedListings::Entries& entries) mutable {
    if (!entries) return std::move(completion)(std::nullopt);
    const auto found = std::ranges::find(*entries, name, &Entry::name);
    std::move(completion)(found == entries->end() ? std::nullopt : std::optional(*found));
  });
}

void currentEntry(const ProviderServices& services, const std::string& id, Completion<Result<Entry>> completion) {
  services.api.item(id, [services, id, completion = std::move(completion)](Result<Entry> entry) mutable {
    if (entry) {
      services.cache.store(*entry);
    } else if (auto known = services.cache.get(id)) {
      entry = *std::move(known);
    }
    std::move(completion)(std::move(entry));
  });
}

void changedItem(const ProviderServices& services, const std::string& id, std::optional<std::string> givenKey,
                 Completion<Result<SavedItem>> completion) {
  services.cache.forget(id);
  services.api.item(
      id, [services, givenKey = std::move(givenKey), completion = std::move(completion)](Result<Entry> entry) mutable {
        if (!entry) return std::move(completion)(failure(std::move(entry.error())));
        services.cache.store(*entry);
        std::move(completion)(savedItem(services, *std::move(entry), givenKey));
      });
}

SavedItem savedItem(const ProviderServices& services, Entry entry, const std::optional<std::string>& givenKey) {
  const bool hasGivenContents = givenKey && entry.key == givenKey;
  return {.item = VondleItem(std::move(entry), services.pins).item(), .hasGivenContents = hasGivenContents};
}

bool saysGone(const Error& error) {
  const auto api = APIError::from(error);
  return api == APIError::badResponse(NOT_FOUND) || api == APIError::badResponse(GONE);
}

Error noSuchItem() {
  return {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM};
}

}  // namespace vondle
