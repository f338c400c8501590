#include "service/trash/restore_aside.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/log.h"
#include "service/edits/conflicted_name.h"
#include "service/listing/whole_listing.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

constexpr Log slog("com.ferrow.vondle.service", "trash");

constexpr Request VIEWER{.isFileViewerRequest = true};

Error taken() {
  return Error::posix(EEXIST, "restoring from the trash");
}

std::string freeName(const Item& item, const std::vector<Item>& there) {
  for (unsigned number = 1;; ++number) {
    auto name = conflictedName(item.filename, item.isFolder(), number);
    if (std::ranges::find(there, name, &Item::filename) == there.end()) return name;
  }
}

}  // namespace

RestoreAside::RestoreAside(ReplicatedExtension& extension, std::shared_ptr<Queue> queue, Wish wish, Done completion)
    : extension_(extension), queue_(std::move(queue)), wish_(std::move(wish)), completion_(std::move(completion)) {}

void RestoreAside::start() {
  enter(ROOT_CONTAINER, wish_.formerFolder);
}

// `below` leads from the folder to the one where the item was.
void RestoreAside::enter(ItemIdentifier folder, std::string below) {
  if (below.empty()) return look(std::move(folder));
  const auto slash = below.find('/');
  const auto name = serverName(below.substr(0, slash));
  auto rest = slash == std::string::npos ? std::string() : below.substr(slash + 1);
  listWhole(
      extension_, std::move(folder), VIEWER,
      [name](const Item& item) { return item.isFolder() && item.filename == name; },
      [self = shared_from_this(), rest = std::move(rest)](Result<std::vector<Item>> found) mutable {
        self->queue_->post([self, rest = std::move(rest), found = std::move(found)]() mutable {
          if (found && !found->empty()) return self->enter(found->front().itemIdentifier, std::move(rest));
          self->failed(found ? taken() : found.error(), &RestoreAside::finish);
        });
      });
}

void RestoreAside::look(ItemIdentifier folder) {
  listWhole(
      extension_, std::move(folder), VIEWER, [](const Item&) { return true; },
      [self = shared_from_this()](Result<std::vector<Item>> there) {
        self->queue_->post([self, there = std::move(there)] {
          there ? self->stepAside(*there) : self->failed(there.error(), &RestoreAside::finish);
        });
      });
}

void RestoreAside::stepAside(const std::vector<Item>& there) {
  const auto other = std::ranges::find(there, wish_.item.filename, &Item::filename);
  if (other == there.end()) return failed(taken(), &RestoreAside::finish);
  auto aside = *other;
  aside.filename = freeName(*other, there);
  change(std::move(aside), FIELD_FILENAME, [](RestoreAside& self, Result<SavedItem> saved) {
    if (!saved) return self.failed(saved.error(), &RestoreAside::finish);
    self.other_ = std::move(saved->item);
    self.restore();
  });
}

void RestoreAside::restore() {
  auto item = wish_.item;
  item.parentItemIdentifier = ROOT_CONTAINER;
  change(std::move(item), FIELD_PARENT_ITEM_IDENTIFIER, [](RestoreAside& self, Result<SavedItem> saved) {
    if (!saved) return self.failed(saved.error(), &RestoreAside::checkOther);
    self.item_ = std::move(saved->item);
    self.move();
  });
}

void RestoreAside::move() {
  auto item = *item_;
  item.parentItemIdentifier = wish_.folder;
  item.filename = wish_.name;
  change(std::move(item), FIELD_PARENT_ITEM_IDENTIFIER | FIELD_FILENAME,
         [](RestoreAside& self, Result<SavedItem> saved) {
           if (!saved) return self.failed(saved.error(), &RestoreAside::putBack);
           self.item_ = std::move(saved->item);
           self.checkOther();
         });
}

void RestoreAside::putBack() {
  auto item = *item_;
  item.parentItemIdentifier = TRASH_CONTAINER;
  change(std::move(item), FIELD_PARENT_ITEM_IDENTIFIER,
         [](RestoreAside& self, const Result<SavedItem>&) { self.checkOther(); });
}

// Who has renamed or moved it meanwhile has the last word.
void RestoreAside::checkOther() {
  extension_.itemForIdentifier(other_->itemIdentifier, VIEWER, [self = shared_from_this()](Result<Item> item) {
    self->queue_->post([self, item = std::move(item)]() mutable {
      const auto aside = item ? std::exchange(*self->other_, std::move(*item)) : *self->other_;
      const bool isAside =
          self->other_->filename == aside.filename && self->other_->parentItemIdentifier == aside.parentItemIdentifier;
      isAside ? self->stepBack(*self->other_) : self->finish();
    });
  });
}

void RestoreAside::stepBack(Item other) {
  other.filename = wish_.item.filename;
  change(std::move(other), FIELD_FILENAME, [](RestoreAside& self, Result<SavedItem> saved) {
    if (saved)
      self.other_ = std::move(saved->item);
    else
      slog.error("“%{public}@” is “%{public}@” from now on: %{public}@", self.wish_.item.filename,
                 self.other_->filename, saved.error().localizedDescription());
    self.finish();
  });
}

void RestoreAside::failed(Error error, void (RestoreAside::*next)()) {
  error_ = std::move(error);
  (this->*next)();
}

void RestoreAside::finish() {
  if (error_) return std::move(completion_)(failure(*error_));
  std::move(completion_)(std::vector<Item>{*other_, *item_});
}

void RestoreAside::change(Item item, std::uint32_t fields, Changed next) {
  auto version = item.itemVersion;
  extension_.modifyItem(
      std::move(item), std::move(version), fields, std::nullopt, 0, VIEWER,
      [self = shared_from_this(), next = std::move(next)](Result<SavedItem> saved) {
        self->queue_->post([self, next, saved = std::move(saved)]() mutable { next(*self, std::move(saved)); });
      });
}

}  // namespace vondle
