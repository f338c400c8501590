#include "service/control/trash_operation.h"

#include <algorithm>
#include <utility>

#include "fileprovider/error_codes.h"
#include "service/control/control_text.h"
#include "service/listing/whole_listing.h"

namespace vondle {

namespace {

constexpr Request VIEWER{.isFileViewerRequest = true};

json::Object itemJSON(const Item& item) {
  json::Object object{
      {"id", controlText(item.itemIdentifier.text)}, {"name", controlText(item.filename)}, {"folder", item.isFolder()}};
  if (item.documentSize) object["size"] = *item.documentSize;
  if (item.contentModificationDate) object["modified"] = formatISO8601(*item.contentModificationDate);
  return object;
}

}  // namespace

TrashOperation::TrashOperation(ReplicatedExtension& extension, Action action,
                               std::optional<std::vector<std::string>> identifiers, Sync sync, Scheduler& scheduler,
                               std::shared_ptr<ControlReply> reply)
    : extension_(extension),
      action_(action),
      identifiers_(std::move(identifiers)),
      sync_(std::move(sync)),
      queue_(scheduler.makeSerialQueue("trash")),
      reply_(std::move(reply)) {}

void TrashOperation::start() {
  reply_->whenAbandoned([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->queue_->post([self] { self->left_.clear(); });
  });
  listWhole(
      extension_, TRASH_CONTAINER, VIEWER, [](const Item&) { return true; },
      [self = shared_from_this()](Result<std::vector<Item>> items) {
        self->queue_->post([self, items = std::move(items)] { self->listed(items); });
      });
}

void TrashOperation::listed(const Result<std::vector<Item>>& items) {
  if (!items) return reply_->fail(controlCode(items.error()), controlText(items.error().localizedDescription()));
  if (action_ == Action::list) return tellItems(*items);
  choose(*items);
  doMore();
}

void TrashOperation::tellItems(const std::vector<Item>& items) {
  json::Array array;
  for (const auto& item : items) array.push_back(itemJSON(item));
  reply_->finish({{"items", std::move(array)}});
}

void TrashOperation::choose(const std::vector<Item>& items) {
  if (!identifiers_) {
    left_.assign(items.begin(), items.end());
  } else {
    for (const auto& identifier : *identifiers_) {
      const auto found =
          std::ranges::find(items, identifier, [](const Item& item) { return item.itemIdentifier.text; });
      if (found != items.end())
        left_.push_back(*found);
      else
        note(identifier, {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM, "This is not in the trash."});
    }
  }
  all_ = left_.size();
}

void TrashOperation::doMore() {
  reply_->progress({{"done", done_}, {"items", all_}});
  while (!left_.empty() && running_ < AT_ONCE) {
    const auto item = std::move(left_.front());
    left_.pop_front();
    ++running_;
    begin(item);
  }
  if (running_ == 0) finish();
}

void TrashOperation::begin(const Item& item) {
  const auto end = [self = shared_from_this(), identifier = item.itemIdentifier.text](std::optional<Error> error) {
    self->queue_->post([self, identifier, error = std::move(error)] { self->ended(identifier, error); });
  };
  if (action_ == Action::remove) {
    extension_.deleteItem(item.itemIdentifier, item.itemVersion, 0, VIEWER, end);
    return;
  }
  // Anywhere but the trash: the server knows where it was.
  auto restored = item;
  restored.parentItemIdentifier = ROOT_CONTAINER;
  extension_.modifyItem(
      std::move(restored), item.itemVersion, FIELD_PARENT_ITEM_IDENTIFIER, std::nullopt, 0, VIEWER,
      [end](const Result<SavedItem>& result) { end(result ? std::nullopt : std::optional(result.error())); });
}

void TrashOperation::ended(const std::string& identifier, const std::optional<Error>& error) {
  --running_;
  if (error)
    note(identifier, *error);
  else
    ++done_;
  doMore();
}

void TrashOperation::note(const std::string& identifier, const Error& error) {
  failures_.push_back(json::Object{{"id", controlText(identifier)},
                                   {"error", controlText(error.localizedDescription())},
                                   {"code", controlCode(error)}});
}

void TrashOperation::finish() {
  auto tell = [self = shared_from_this()] {
    self->reply_->finish({{"done", self->done_}, {"failures", std::move(self->failures_)}});
  };
  if (action_ != Action::restore || done_ == 0) return tell();
  sync_([self = shared_from_this(), tell](const std::optional<Error>&) { self->queue_->post(tell); });
}

}  // namespace vondle
