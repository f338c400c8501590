#include "service/edits/send_operation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <utility>

#include "fileprovider/error_codes.h"
#include "platform/content_types.h"
#include "platform/log.h"
#include "service/edits/send_failure.h"
#include "service/listing/whole_listing.h"

namespace vondle {

namespace {

constexpr Log LOG("com.ferrow.vondle.service", "edits");

// Nobody waits for it.
constexpr Request SYSTEM{.isSystemRequest = true};
// Folders within folders that are followed upwards; against rings in what the server says.
constexpr int MAX_DEPTH = 1'000;
constexpr std::uint32_t FIELDS_PLACE = FIELD_FILENAME | FIELD_PARENT_ITEM_IDENTIFIER;

bool hasSameBytes(const std::string& path, const std::string& otherPath) {
  std::ifstream one(path, std::ios::binary);
  std::ifstream other(otherPath, std::ios::binary);
  std::array<char, 65536> bytes{};
  std::array<char, 65536> otherBytes{};
  while (one && other) {
    one.read(bytes.data(), bytes.size());
    other.read(otherBytes.data(), otherBytes.size());
    if (one.gcount() != other.gcount() || !std::equal(bytes.begin(), bytes.begin() + one.gcount(), otherBytes.begin()))
      return false;
  }
  return one.eof() && other.eof();
}

}  // namespace

SendOperation::SendOperation(const SendServices& services, std::shared_ptr<Queue> queue, SendTask task,
                             Completion<SendResult> completion)
    : services_(services), queue_(std::move(queue)), task_(task), completion_(std::move(completion)) {
  progress_->setKind(ProgressKind::file, FileOperationKind::uploading);
  result_.sent.id = task_.edit;
}

template <class Function>
auto SendOperation::onQueue(Function function) {
  return [self = shared_from_this(), function = std::move(function)](auto... answer) mutable {
    self->queue_->post([self, function = std::move(function), ... answer = std::move(answer)]() mutable {
      function(*self, std::move(answer)...);
    });
  };
}

LocalEdits::Done SendOperation::whenRecorded() {
  return onQueue([](SendOperation& self, const Result<void>& result) {
    if (!result)
      LOG.error("what became of an edit could not be recorded: %{public}@", result.error().localizedDescription());
    self.isUncertain_ = false;
    self.finish(Ending::done);
  });
}

void SendOperation::start() {
  services_.edits->beginSending(
      task_.edit, onQueue([](SendOperation& self, std::optional<Edit> edit) { self.begun(std::move(edit)); }));
}

void SendOperation::begun(std::optional<Edit> edit) {
  if (!edit) return finish(Ending::changed);
  result_.sent = edit_ = std::move(*edit);
  if (edit_.generation != task_.generation || nextStep(edit_) != task_.step || progress_->isCancelled()) {
    services_.edits->abandonSending(task_.edit);
    return finish(Ending::changed);
  }
  if (mayBeThere()) return findOut();
  if (task_.step == SendStep::remove) return goesAlone() ? listFolder() : moveToTrash();
  if (task_.isAside) edit_.place.name = asideName(edit_);
  begin();
}

bool SendOperation::goesAlone() const {
  return edit_.isFolder && edit_.fields & EDIT_DELETED;
}

// Where the place alone was sent, sending it again does no harm.
bool SendOperation::mayBeThere() const {
  if (!edit_.attempt) return false;
  return isLocal(edit_.item) || (task_.step == SendStep::contents && edit_.attempt->contents != 0 && edit_.serverPlace);
}

void SendOperation::findOut() {
  isFindingOut_ = isUncertain_ = true;
  edit_.place = edit_.attempt->place;
  edit_.contents = edit_.attempt->contents;
  edit_.generation = edit_.attempt->generation;
  if (edit_.contents != 0 && !freeze()) return;
  const bool isNew = isLocal(edit_.item);
  listWhole(
      services_.extension, isNew ? edit_.place.folder : edit_.serverPlace->folder, SYSTEM,
      [isNew, name = edit_.place.name, identifier = edit_.item](const Item& item) {
        return isNew ? item.filename == name : item.itemIdentifier == identifier;
      },
      onQueue([](SendOperation& self, Result<std::vector<Item>> found) { self.found(std::move(found)); }));
}

void SendOperation::found(Result<std::vector<Item>> found) {
  if (!found)
    return sendFailureOf(found.error()) == SendFailure::noSuchItem ? checkServer(found.error()) : failed(found.error());
  if (found->empty()) return nothingThere();
  auto& item = found->front();
  if (item.isFolder() != edit_.isFolder) return nothingThere();
  if (edit_.isFolder) return folderFound(std::move(item));
  const bool isUnchanged = item.itemVersion.contentVersion == edit_.baseVersion.contentVersion;
  if (!outgoing_ || isUnchanged || item.documentSize.value_or(0) != outgoing_->size) return nothingThere();
  compare(std::move(item));
}

void SendOperation::nothingThere() {
  services_.edits->forgetAttempt(task_.edit, onQueue([](SendOperation& self, const Result<void>&) {
                                   self.isUncertain_ = false;
                                   self.finish(Ending::changed);
                                 }));
}

// From here on it may be there.
void SendOperation::begin() {
  const bool hasContents = task_.step != SendStep::place && !edit_.isFolder;
  if (hasContents && !freeze()) return;
  services_.edits->noteAttempt(
      task_.edit, {.place = edit_.place, .contents = hasContents ? edit_.contents : 0, .generation = edit_.generation},
      onQueue([](SendOperation& self, const Result<void>& noted) { self.sendNow(noted); }));
}

void SendOperation::sendNow(const Result<void>& noted) {
  if (!noted && noted.error().is(POSIX_ERROR_DOMAIN, ECANCELED)) {
    services_.edits->abandonSending(task_.edit);
    return finish(Ending::changed);
  }
  if (!noted) return failed(noted.error());
  isUncertain_ = true;
  task_.step == SendStep::create ? create() : sendChange();
}

// The contents do not change from here on. False when that ends the operation.
bool SendOperation::freeze() {
  auto outgoing = services_.contents->beginSending(edit_.contents, edit_.place.name);
  if (outgoing) {
    outgoing_ = std::move(*outgoing);
    return true;
  }
  if (outgoing.error().is(POSIX_ERROR_DOMAIN, EBUSY)) {
    services_.edits->abandonSending(task_.edit);
    finish(Ending::later);
  } else {
    failed(outgoing.error());
  }
  return false;
}

void SendOperation::create() {
  Item item;
  item.itemIdentifier = edit_.item;
  item.parentItemIdentifier = edit_.place.folder;
  item.filename = edit_.place.name;
  if (edit_.isFolder) item.contentType = FOLDER_CONTENT_TYPE;
  follow(services_.extension.createItem(
      std::move(item), FIELDS_PLACE | (outgoing_ ? std::uint32_t{FIELD_CONTENTS} : 0),
      outgoing_ ? std::optional(outgoing_->path) : std::nullopt, 0, SYSTEM,
      onQueue([](SendOperation& self, Result<SavedItem> result) { self.created(std::move(result)); })));
}

void SendOperation::created(Result<SavedItem> result) {
  if (result) return succeeded(std::move(*result));
  switch (sendFailureOf(result.error())) {
    case SendFailure::clash:
      if (clash_) return failed(result.error());
      clash_ = result.error();
      return look();
    case SendFailure::noSuchItem:
      return checkServer(result.error());
    default:
      return failed(result.error());
  }
}

void SendOperation::sendChange() {
  modify(task_.step == SendStep::contents ? std::uint32_t{FIELD_CONTENTS} : FIELDS_PLACE, edit_.place.folder,
         onQueue([](SendOperation& self, Result<SavedItem> result) { self.modified(std::move(result)); }));
}

void SendOperation::modify(std::uint32_t fields, ItemIdentifier parent, Completion<Result<SavedItem>> completion) {
  Item item;
  item.itemIdentifier = edit_.item;
  item.parentItemIdentifier = std::move(parent);
  item.filename = edit_.place.name;
  if (edit_.isFolder) item.contentType = FOLDER_CONTENT_TYPE;
  item.itemVersion = edit_.baseVersion;
  follow(services_.extension.modifyItem(std::move(item), edit_.baseVersion, fields,
                                        outgoing_ ? std::optional(outgoing_->path) : std::nullopt, 0, SYSTEM,
                                        std::move(completion)));
}

void SendOperation::modified(Result<SavedItem> result) {
  if (result) return succeeded(std::move(*result));
  const auto why = sendFailureOf(result.error());
  if (why == SendFailure::noSuchItem) return checkServer(result.error());
  if (why != SendFailure::clash || task_.step != SendStep::place) return failed(result.error());
  clash_ = result.error();
  look();
}

// What stands at the place that the item is to have.
void SendOperation::look() {
  listWhole(
      services_.extension, edit_.place.folder, SYSTEM,
      [name = edit_.place.name](const Item& item) { return item.filename == name; },
      onQueue([](SendOperation& self, Result<std::vector<Item>> found) { self.looked(std::move(found)); }));
}

void SendOperation::looked(Result<std::vector<Item>> found) {
  if (!found) {
    return sendFailureOf(found.error()) == SendFailure::noSuchItem ? checkServer(found.error()) : failed(found.error());
  }
  if (found->empty()) {
    return task_.step == SendStep::place && edit_.isFolder ? lookAbove(edit_.place.folder) : failed(*clash_);
  }
  auto& item = found->front();
  if (task_.step == SendStep::place)
    return item.itemIdentifier == edit_.item ? succeeded({.item = std::move(item)}) : renameAside();
  if (item.isFolder() != edit_.isFolder) return renameAside();
  if (edit_.isFolder) return folderFound(std::move(item));
  if (item.documentSize.value_or(0) != outgoing_->size) return renameAside();
  compare(std::move(item));
}

// Somebody may have put something into it.
void SendOperation::folderFound(Item folder) {
  const auto identifier = folder.itemIdentifier;
  succeeded({.item = std::move(folder)});
  services_.edits->listAgain(identifier);
}

// The name is free: perhaps the server has the folder that it is to go to below itself.
void SendOperation::lookAbove(ItemIdentifier folder, int depth) {
  if (folder == edit_.item) return services_.edits->undoMove(result_.sent, whenRecorded());
  if (folder == ROOT_CONTAINER || depth == MAX_DEPTH) return failed(*clash_);
  follow(services_.extension.itemForIdentifier(
      std::move(folder), SYSTEM, onQueue([depth](SendOperation& self, Result<Item> item) {
        item ? self.lookAbove(std::move(item->parentItemIdentifier), depth + 1) : self.failed(*self.clash_);
      })));
}

void SendOperation::compare(Item found) {
  follow(services_.extension.fetchContents(
      found.itemIdentifier, found.itemVersion, SYSTEM,
      onQueue([](SendOperation& self, Result<FetchedContents> result) { self.fetched(std::move(result)); })));
}

void SendOperation::fetched(Result<FetchedContents> result) {
  if (!result) return failed(result.error());
  services_.scheduler.global().post([there = std::move(*result), here = outgoing_->path,
                                     compared = onQueue([](SendOperation& self, bool isSame, Item found) {
                                       self.compared(isSame, std::move(found));
                                     })]() mutable {
    const bool isSame = hasSameBytes(here, there.path);
    std::error_code ignored;
    std::filesystem::remove(there.path, ignored);
    compared(isSame, std::move(there.item));
  });
}

void SendOperation::compared(bool isSame, Item found) {
  if (!isSame) return isFindingOut_ ? nothingThere() : renameAside();
  succeeded({.item = std::move(found), .hasGivenContents = true});
}

void SendOperation::listFolder() {
  listWhole(
      services_.extension, edit_.item, SYSTEM, [](const Item&) { return true; },
      onQueue([](SendOperation& self, Result<std::vector<Item>> inFolder) { self.folderListed(std::move(inFolder)); }));
}

void SendOperation::folderListed(Result<std::vector<Item>> inFolder) {
  if (!inFolder) {
    return sendFailureOf(inFolder.error()) == SendFailure::noSuchItem ? checkServer(inFolder.error())
                                                                      : failed(inFolder.error());
  }
  if (inFolder->empty()) return moveToTrash();
  // What leaves the folder by another edit has its turn first.
  const auto pending = services_.edits->pending();
  const bool isOurs = std::ranges::all_of(*inFolder, [&](const Item& item) {
    return std::ranges::any_of(pending, [&](const Edit& edit) {
      return edit.item == item.itemIdentifier && edit.fields & (EDIT_DELETED | EDIT_TRASHED | EDIT_PLACED);
    });
  });
  if (isOurs) {
    services_.edits->abandonSending(task_.edit);
    return finish(Ending::later);
  }
  LOG.log("“%{public}@” is not deleted: the server has something in it that nobody here has seen", edit_.place.name);
  services_.edits->undelete(result_.sent, whenRecorded());
}

void SendOperation::moveToTrash() {
  modify(FIELD_PARENT_ITEM_IDENTIFIER, TRASH_CONTAINER,
         onQueue([](SendOperation& self, Result<SavedItem> result) { self.trashed(std::move(result)); }));
}

void SendOperation::trashed(Result<SavedItem> result) {
  if (result) return services_.edits->deleted(result_.sent, whenRecorded());
  const auto why = sendFailureOf(result.error());
  if (why == SendFailure::noSuchItem || why == SendFailure::clash) return checkServer(result.error());
  failed(result.error());
}

// The server says that there is no such thing, or could not be asked.
void SendOperation::checkServer(Error error) {
  services_.sync(onQueue([error = std::move(error)](SendOperation& self, std::optional<Error> serverError) mutable {
    self.serverChecked(std::move(error), std::move(serverError));
  }));
}

void SendOperation::serverChecked(Error error, std::optional<Error> serverError) {
  if (serverError) return failed(std::move(*serverError));
  if (isFindingOut_) return nothingThere();
  // What is missing when it is made is the folder that it is made in.
  follow(services_.extension.itemForIdentifier(
      task_.step == SendStep::create ? edit_.place.folder : edit_.item, SYSTEM,
      onQueue([error = std::move(error)](SendOperation& self, Result<Item> item) mutable {
        self.itemChecked(std::move(error), item);
      })));
}

void SendOperation::itemChecked(Error error, const Result<Item>& item) {
  if (item && item->parentItemIdentifier == TRASH_CONTAINER) return gone();
  // It may be told from memory: a folder that could not be listed may have gone with one above it.
  const bool isListingRefused = task_.step == SendStep::remove && goesAlone();
  if (item && task_.step == SendStep::place && edit_.place.folder != ROOT_CONTAINER)
    return lookForTarget(std::move(error));
  if (item ? !isListingRefused : sendFailureOf(item.error()) != SendFailure::noSuchItem)
    return failed(std::move(error));
  confirmThatGone(std::move(error));
}

// Perhaps the folder is missing that it is to go to. A lookup that failed on the way says the same; a listing tells
// what went wrong.
void SendOperation::lookForTarget(Error error) {
  follow(services_.extension.itemForIdentifier(
      edit_.place.folder, SYSTEM,
      onQueue([error = std::move(error)](SendOperation& self, const Result<Item>& folder) mutable {
        folder && folder->parentItemIdentifier == TRASH_CONTAINER ? self.targetGone()
                                                                  : self.listTarget(std::move(error));
      })));
}

void SendOperation::listTarget(Error error) {
  listWhole(
      services_.extension, edit_.place.folder, SYSTEM, [](const Item&) { return false; },
      onQueue([error = std::move(error)](SendOperation& self, const Result<std::vector<Item>>& found) mutable {
        if (found) return self.failed(std::move(error));
        sendFailureOf(found.error()) == SendFailure::noSuchItem ? self.targetGone() : self.failed(found.error());
      }));
}

void SendOperation::targetGone() {
  services_.edits->folderVanished(result_.sent, whenRecorded());
}

// A lookup that failed on the way says the same; a listing tells what went wrong.
void SendOperation::confirmThatGone(Error error) {
  const bool isMade = task_.step == SendStep::create;
  const bool isFolder = isMade || edit_.isFolder;
  const auto now = services_.edits->find(task_.edit);
  if (!isFolder && (!now || !now->serverPlace)) return gone();
  listWhole(
      services_.extension,
      isMade     ? edit_.place.folder
      : isFolder ? edit_.item
                 : now->serverPlace->folder,
      SYSTEM,
      [isFolder, identifier = edit_.item](const Item& item) { return !isFolder && item.itemIdentifier == identifier; },
      onQueue([isFolder, error = std::move(error)](SendOperation& self, Result<std::vector<Item>> found) mutable {
        const bool isThere = found && (isFolder || !found->empty());
        if (isThere) return self.failed(std::move(error));
        if (!found && sendFailureOf(found.error()) != SendFailure::noSuchItem) return self.failed(found.error());
        self.gone();
      }));
}

void SendOperation::gone() {
  if (task_.step == SendStep::remove) return services_.edits->deleted(result_.sent, whenRecorded());
  services_.edits->itemVanished(result_.sent, whenRecorded());
}

void SendOperation::succeeded(SavedItem saved) {
  const bool isContentStep = outgoing_.has_value();
  const bool hasTheseBytes = saved.hasGivenContents;
  std::uint32_t fields = EDIT_PLACED;
  if (isLocal(edit_.item)) fields = EDIT_CREATED | EDIT_PLACED | EDIT_CONTENTS;
  if (task_.step == SendStep::contents) fields = EDIT_CONTENTS;
  result_.hasClashed = isContentStep && !hasTheseBytes;
  if (isContentStep) services_.contents->noteSent(*outgoing_);
  services_.edits->succeeded(
      edit_, fields, std::move(saved),
      onQueue([isContentStep, hasTheseBytes](SendOperation& self, const LocalEdits::Outcome& outcome) {
        self.result_.inode = outcome.inode;
        self.isUncertain_ = false;
        if (isContentStep)
          self.services_.contents->endSending(*std::exchange(self.outgoing_, {}), outcome, hasTheseBytes);
        self.finish(Ending::done);
      }));
}

void SendOperation::renameAside() {
  LOG.log("the name “%{public}@” is taken on the server", edit_.place.name);
  services_.edits->renameAside(result_.sent, whenRecorded());
}

void SendOperation::failed(Error error) {
  if (progress_->isCancelled() || sendFailureOf(error) == SendFailure::cancelled) {
    services_.edits->abandonSending(task_.edit);
    return finish(Ending::changed);
  }
  result_.error = std::move(error);
  finish(Ending::failed);
}

void SendOperation::finish(Ending ending) {
  if (outgoing_ && isUncertain_)
    services_.contents->suspendSending(*outgoing_);
  else if (outgoing_)  // whatever was frozen and is not done with can be written to again
    services_.contents->endSending(*outgoing_, {}, false);
  outgoing_.reset();
  services_.contents->dropUnasked();
  result_.ending = ending;
  std::move(completion_)(std::move(result_));
}

}  // namespace vondle
