#include "service/thumbnails/thumbnails.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <span>

#include "platform/log.h"

namespace vondle {
namespace {

constexpr Log LOG("com.ferrow.vondle.service", "thumbnails");
constexpr ThumbnailSize REQUESTED{.width = 512, .height = 512};
// Files of the cache that one task looks at.
constexpr std::size_t AT_ONCE = 200;
// That one round of moving follows: each file is looked up in all of them.
constexpr std::size_t MOMENTS = 64;
constexpr std::size_t MAX_REFUSED = 10'000;

// As stat shows it: see the mount's answers.
std::int64_t wholeSeconds(Timestamp timestamp) {
  constexpr double LATEST = 9e15;
  return static_cast<std::int64_t>(std::floor(std::clamp(timestamp.secondsSince1970, -LATEST, LATEST)));
}

}  // namespace

Thumbnails::Thumbnails(Parts parts)
    : parts_(std::move(parts)),
      queue_(parts_.scheduler.makeSerialQueue("thumbnails")),
      outcomes_(std::make_shared<ThumbnailOutcomes>(parts_.scheduler, parts_.clock)) {}

void Thumbnails::folderListed(Inode folder) {
  const auto now = parts_.clock.monotonic();
  {
    MutexLock hold(lock_);
    const auto [found, isNew] = listed_.try_emplace(folder, now);
    if (!isNew && now - found->second < LOOK_AGAIN) return;
    found->second = now;
    if (listed_.size() > MAX_WAITING) listed_ = {{folder, now}};
    toLookAt_.push_back(folder);
    if (toLookAt_.size() > MAX_FOLDERS) toLookAt_.pop_front();
    if (std::exchange(isLooking_, true)) return;
  }
  queue_->post([self = shared_from_this()] { self->lookOn(); });
}

bool Thumbnails::mayCome(const ItemAttributes& file, std::string_view name) const {
  return !file.isFolder && file.size > 0 && canHaveThumbnail(name) &&
         !outcomes_->isSettledForGood(file.inode, file.contentTag);
}

void Thumbnails::whenSettled(const ItemAttributes& file, const std::shared_ptr<Progress>& wait,
                             ThumbnailOutcomes::Answer answer) {
  folderListed(file.parent);
  queue_->post([self = shared_from_this(), inode = file.inode, tag = file.contentTag, wait,
                answer = std::move(answer)]() mutable {
    if (self->isStopped_ || self->isResting()) return std::move(answer)(std::monostate());
    self->outcomes_->whenSettled(inode, tag, wait, std::move(answer));
  });
}

void Thumbnails::lookOn() {
  if (!look_) beginLook();
  if (!look_) return;
  for (const auto end = std::min(look_->done + AT_ONCE, look_->folder.files.size()); look_->done < end; ++look_->done)
    if (const auto& file = look_->folder.files[look_->done]; lacks(file))
      look_->lacking.push_back(file);
    else
      outcomes_->settle(file.inode, file.tag);
  if (look_->done == look_->folder.files.size()) {
    endLook(std::move(*look_));
    look_.reset();
  }
  queue_->post([self = shared_from_this()] { self->lookOn(); });
}

void Thumbnails::beginLook() {
  Inode folder = 0;
  {
    MutexLock hold(lock_);
    if (isStopped_ || isResting()) toLookAt_.clear();
    isLooking_ = !toLookAt_.empty();
    if (!isLooking_) return;
    folder = toLookAt_.front();
    toLookAt_.pop_front();
  }
  look_ = Look{.folder = {.inode = folder, .files = filesIn(folder)}};
}

// From the last name to the first, with which file managers begin: the end of the list goes first.
std::vector<Thumbnails::File> Thumbnails::filesIn(Inode folder) const {
  std::vector<std::pair<std::string, File>> named;
  const auto children = replica().children(folder);
  for (std::size_t i = 0; i < children.size(); i += AT_ONCE) {
    const auto some = std::span(children).subspan(i, std::min(AT_ONCE, children.size() - i));
    for (const auto& [name, item] : replica().entries(folder, some))
      if (!item.isFolder && item.size > 0 && canHaveThumbnail(name))
        named.push_back({name, {item.inode, item.contentTag}});
  }
  std::ranges::sort(named, std::greater(), &std::pair<std::string, File>::first);
  std::vector<File> files;
  for (const auto& [name, file] : named) files.push_back(file);
  return files;
}

bool Thumbnails::lacks(const File& file) const {
  const auto subject = subjectOf(file);
  if (!subject || parts_.cache.has(*subject)) return false;
  const auto refused = refused_.find(file.inode);
  if (refused != refused_.end() && refused->second.tag == file.tag && parts_.clock.monotonic() < refused->second.until)
    return false;
  return !parts_.keepsFailures || !parts_.cache.hasFailure(*subject);
}

std::optional<ThumbnailSubject> Thumbnails::subjectOf(const File& file) const {
  const auto item = replica().attributes(file.inode);
  const auto path = replica().pathOf(file.inode);
  if (!item || !path || item->contentTag != file.tag || parts_.isEdited(file.inode)) return std::nullopt;
  return ThumbnailSubject{.uri = ThumbnailCache::uriOf(parts_.mountPath + *path),
                          .modified = wholeSeconds(item->modified),
                          .size = item->size};
}

void Thumbnails::endLook(Look look) {
  const auto same = std::ranges::find(waiting_, look.folder.inode, &Folder::inode);
  if (same != waiting_.end()) {
    waitingCount_ -= same->files.size();
    waiting_.erase(same);
  }
  if (look.lacking.empty()) return;
  auto& lacking = look.lacking;
  if (lacking.size() > MAX_WAITING) {
    const auto end = lacking.end() - MAX_WAITING;
    std::for_each(lacking.begin(), end, [this](const File& file) { leave(file); });
    lacking.erase(lacking.begin(), end);
  }
  waitingCount_ += lacking.size();
  waiting_.push_back({.inode = look.folder.inode, .files = std::move(lacking)});
  for (; waitingCount_ > MAX_WAITING; waiting_.pop_front()) {
    waitingCount_ -= waiting_.front().files.size();
    for (const auto& file : waiting_.front().files) leave(file);
  }
  work();
}

// What is still being scaled counts, so that pictures do not pile up.
void Thumbnails::work() {
  while (!isStopped_ && !batch_ && !waiting_.empty() && scaling_ < BATCH) beginBatch();
}

void Thumbnails::beginBatch() {
  const auto batch = std::make_shared<Batch>();
  std::vector<ItemIdentifier> identifiers;
  while (!waiting_.empty() && identifiers.size() < BATCH) {
    auto& files = waiting_.back().files;
    const File file = files.back();
    files.pop_back();
    --waitingCount_;
    if (files.empty()) waiting_.pop_back();
    const auto identifier = replica().identifierOf(file.inode);
    if (!identifier || !subjectOf(file) || !batch->asked.emplace(*identifier, file).second) continue;
    identifiers.push_back(*identifier);
  }
  if (identifiers.empty()) return;
  batch_ = batch;
  batch->progress = parts_.extension.fetchThumbnails(
      std::move(identifiers), REQUESTED,
      [self = shared_from_this(), batch](const ItemIdentifier& identifier, auto image) {
        self->queue_->post([self, batch, identifier, image = std::move(image)]() mutable {
          self->received(*batch, identifier, std::move(image));
        });
      },
      [self = shared_from_this(), batch](const std::optional<Error>&) {
        self->queue_->post([self, batch] { self->ended(*batch); });
      });
}

void Thumbnails::received(Batch& batch, const ItemIdentifier& identifier, Result<std::optional<std::string>> image) {
  const auto found = batch.asked.extract(identifier);
  if (!found) return;  // nobody asked for it, or it has been answered
  const File file = found.mapped();
  if (!image) {
    ++batch.failed;
    return leave(file);
  }
  ++batch.answered;
  if (!*image) return hasNone(file);
  scale(file, std::move(**image));
}

void Thumbnails::ended(const Batch& batch) {
  batch_.reset();
  for (const auto& [identifier, file] : batch.asked) leave(file);
  if (batch.answered == 0 && batch.failed > 0) {
    LOG.info("no thumbnails can be had now: %d failed, leaving %d for later", batch.failed, waitingCount_);
    forgetWaiting();
  }
  work();
}

void Thumbnails::scale(const File& file, std::string image) {
  const auto bytes = image.size();
  if (isStopped_ || isResting() || scalingBytes_ + bytes > MAX_BYTES) return leave(file);
  ++scaling_;
  scalingBytes_ += bytes;
  parts_.scaler.scale(std::move(image), [self = shared_from_this(), file, bytes](std::optional<ScaledPicture> picture) {
    self->queue_->post([self, file, bytes, picture = std::move(picture)] { self->scaled(file, bytes, picture); });
  });
}

void Thumbnails::scaled(const File& file, std::size_t bytes, const std::optional<ScaledPicture>& picture) {
  --scaling_;
  scalingBytes_ -= bytes;
  const auto subject = subjectOf(file);
  if (!subject || isStopped_ || isResting()) {
    leave(file);
    return work();
  }
  if (!picture || !ThumbnailCache::isAcceptable(*picture)) {
    LOG.info("the thumbnail of %{public}@ is no picture", replica().pathOf(file.inode).value_or("?"));
    hasNone(file);
  } else if (const auto stored = parts_.cache.store(*subject, *picture)) {
    hasFailed_ = false;
    outcomes_->settle(file.inode, file.tag);
  } else {
    cacheFailed(stored.error());
  }
  work();
}

void Thumbnails::hasNone(const File& file) {
  outcomes_->settle(file.inode, file.tag);
  if (refused_.size() >= MAX_REFUSED) refused_.clear();
  refused_[file.inode] = {.tag = file.tag, .until = parts_.clock.monotonic() + LEAVE_ALONE};
  if (!parts_.keepsFailures || isResting()) return;
  const auto subject = subjectOf(file);
  if (!subject) return;
  if (const auto stored = parts_.cache.storeFailure(*subject); !stored) cacheFailed(stored.error());
}

void Thumbnails::leave(const File& file) {
  outcomes_->settle(file.inode, file.tag, LOOK_AGAIN);
}

void Thumbnails::forgetWaiting() {
  for (const auto& folder : std::exchange(waiting_, {}))
    for (const auto& file : folder.files) leave(file);
  waitingCount_ = 0;
}

void Thumbnails::cacheFailed(const Error& error) {
  restUntil_ = parts_.clock.monotonic() + REST;
  forgetWaiting();
  outcomes_->answerAll();
  if (!std::exchange(hasFailed_, true))
    LOG.error("thumbnails cannot be kept: %{public}@", error.localizedDescription());
}

void Thumbnails::apply(const std::vector<ReplicaChange>& changes) {
  auto moment = placeChanges(changes, replica(), parts_.mountPath);
  {
    MutexLock hold(lock_);
    listed_.clear();
    if (moment.changes.empty()) return;
    moments_.push_back(std::move(moment));
    if (std::exchange(isMoving_, true)) return;
  }
  queue_->post([self = shared_from_this()] { self->moveOn(); });
}

void Thumbnails::moveOn() {
  if (!search_) beginMoving();
  if (!search_) return;
  auto& [moments, entries, uris] = *search_;
  for (std::size_t i = 0; i < AT_ONCE && !entries.empty(); ++i) {
    if (auto uri = parts_.cache.uriOfEntry(entries.back()); uri && placeAfter(*uri, moments) != uri)
      uris.insert(std::move(*uri));
    entries.pop_back();
  }
  if (entries.empty()) {
    carryOut(uris, moments);
    search_.reset();
  }
  queue_->post([self = shared_from_this()] { self->moveOn(); });
}

// Of files the names say it all; what is in a folder only the cache knows.
void Thumbnails::beginMoving() {
  Search search;
  {
    MutexLock hold(lock_);
    while (!moments_.empty() && search.moments.size() < MOMENTS) {
      search.moments.push_back(std::move(moments_.front()));
      moments_.pop_front();
    }
    isMoving_ = !search.moments.empty();
    if (!isMoving_) return;
  }
  bool hasFolders = false;
  for (const auto& moment : search.moments)
    for (const auto& [uri, change] : moment.changes) {
      hasFolders = hasFolders || change.isFolder;
      if (!change.isFolder) search.uris.insert(uri);
    }
  if (hasFolders) search.entries = parts_.cache.entries();
  search_ = std::move(search);
}

// One that comes to where another was is not moved but made again: which went first is not known.
void Thumbnails::carryOut(const std::set<std::string>& uris, const std::vector<PlaceChanges>& moments) {
  for (const auto& uri : uris) {
    const auto place = placeAfter(uri, moments);
    if (place == uri) continue;
    if (place && !uris.contains(*place))
      parts_.cache.move(uri, *place);
    else
      parts_.cache.remove(uri);
  }
}

void Thumbnails::stop() {
  queue_->post([self = shared_from_this()] {
    self->isStopped_ = true;
    self->forgetWaiting();
    self->outcomes_->answerAll();
    if (self->batch_ && self->batch_->progress) self->batch_->progress->cancel();
  });
}

}  // namespace vondle
