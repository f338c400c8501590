#include "api/api_error.h"
#include "base/utf8.h"
#include "fuzzing.h"
#include "items/identifiers.h"
#include "items/vondle_item.h"
#include "testing/items_rig.h"

// The server's replies, over the client that asks for them: the first byte chooses what was asked, the rest is the
// body.
namespace vondle {
namespace {

template <class T>
void requireOnlyRefusals(const Result<T>& answer) {
  if (answer) return;
  const auto error = APIError::from(answer.error());
  REQUIRE(error == APIError::malformed() || error == APIError::badResponse(200));
}

void requireSound(ItemsRig& rig, const Entry& entry) {
  for (const auto& text : {entry.id, entry.parentID, entry.name, entry.path, entry.ownerName, entry.key.value_or(""),
                           entry.url.value_or(""), entry.thumbURL.value_or(""), entry.role.value_or("")})
    REQUIRE(isUTF8(text));
  REQUIRE(entry.fetchedAt == rig.scheduler.now());
  REQUIRE(!entry.showsShared() || entry.isFolder);

  const auto item = VondleItem(entry, rig.pins).item();
  REQUIRE(serverIDFor(item.itemIdentifier) == (entry.id == ROOT_CONTAINER.text ? "root" : entry.id));
  REQUIRE(entry.deleted == (item.parentItemIdentifier == TRASH_CONTAINER) || entry.parentID == TRASH_CONTAINER.text);
  REQUIRE(item.filename == entry.name && item.isFolder() == entry.isFolder);
  REQUIRE(item.documentSize.has_value() == !entry.isFolder);
  REQUIRE(!item.documentSize || *item.documentSize == entry.size);
  REQUIRE((item.capabilities & ALLOWS_READING) != 0);
  REQUIRE(!entry.isReadOnly() || item.capabilities == ALLOWS_READING);
  REQUIRE(!entry.isReadOnly() || (item.fileSystemFlags & USER_WRITABLE) == 0);
  REQUIRE(!item.contentModificationDate || item.contentModificationDate->secondsSince1970 > 0);
  REQUIRE(!item.ownerNameComponents || item.ownerNameComponents->givenName);
  REQUIRE(VondleItem(entry, rig.pins).itemVersion() == item.itemVersion);
}

template <class T, class Ask>
Result<T> ask(ItemsRig& rig, const Ask& call) {
  int answers = 0;
  std::optional<Result<T>> answer;
  call([&](Result<T> given) {
    ++answers;
    answer.emplace(std::move(given));
  });
  rig.scheduler.runUntilIdle();
  REQUIRE(answers == 1);
  requireOnlyRefusals(*answer);
  return std::move(*answer);
}

void fuzzListing(ItemsRig& rig, bool byPath) {
  const auto entries = ask<std::vector<Entry>>(rig, [&](auto completion) {
    byPath ? rig.api.browsePath("a/b", std::move(completion)) : rig.api.browse("7", std::move(completion));
  });
  if (!entries) return;
  bool inFiles = false;
  for (const auto& entry : *entries) {
    requireSound(rig, entry);
    REQUIRE(!byPath || entry.role);
    REQUIRE(!entry.isFolder || !inFiles);
    inFiles = !entry.isFolder;
  }
}

void fuzzChanges(ItemsRig& rig) {
  const auto page = ask<ChangeSet>(rig, [&](auto completion) { rig.api.changes(12, 1000, std::move(completion)); });
  if (!page) return;
  for (const auto& entry : page->entries) requireSound(rig, entry);
  for (const auto& id : page->deleted) REQUIRE(isUTF8(id));
}

void fuzzTrash(ItemsRig& rig) {
  const auto entries = ask<std::vector<Entry>>(rig, [&](auto completion) { rig.api.trash(std::move(completion)); });
  if (!entries) return;
  for (const auto& entry : *entries) {
    requireSound(rig, entry);
    REQUIRE(entry.deleted);
  }
}

}  // namespace

void fuzz(std::string_view bytes) {
  if (bytes.empty()) return;
  ItemsRig rig;
  rig.answer("", std::string(bytes.substr(1)));
  switch (bytes[0] % 6) {
    case 0:
      return fuzzListing(rig, false);
    case 1:
      return fuzzListing(rig, true);
    case 2:
      return fuzzChanges(rig);
    case 3:
      return fuzzTrash(rig);
    case 4: {
      const auto entry = ask<Entry>(rig, [&](auto completion) { rig.api.item("7", std::move(completion)); });
      if (entry) requireSound(rig, *entry);
      return;
    }
    default:
      static_cast<void>(
          ask<json::Object>(rig, [&](auto completion) { rig.api.post("move", {}, std::move(completion)); }));
  }
}

}  // namespace vondle
