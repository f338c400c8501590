#include "storage/thumbnailer.h"

#include <utility>

#include "platform/log.h"
#include "storage/milliseconds.h"
#include "storage/tree.h"

namespace vondle::storage {
namespace {

constexpr Log slog("com.ferrow.vondle.storage", "previews");

}  // namespace

Thumbnailer::Thumbnailer(StorePool& stores, const ContentStore& contents, const Clock& clock,
                         std::unique_ptr<PreviewRenderer> renderer)
    : stores_(stores), contents_(contents), clock_(clock), renderer_(std::move(renderer)) {}

Thumbnailer::~Thumbnailer() {
  {
    const MutexLock lock(lock_);
    ending_ = true;
    waiting_.clear();
    while (beginning_ > 0) begun_.wait(lock_);
  }
  renderer_.reset();  // gives up what it makes, and answers that while the rest of this still stands
}

void Thumbnailer::want(const Item& file) {
  {
    const MutexLock lock(lock_);
    if (ending_ || !wanted_.insert(file.key).second) return;
    waiting_.push_back({.key = file.key, .extension = extensionOf(file.name), .kind = thumbKindOf(file.name)});
  }
  beginNext();
}

void Thumbnailer::beginNext() {
  std::optional<Job> next;
  {
    const MutexLock lock(lock_);
    if (waiting_.empty() || running_ == MAX_AT_ONCE) return;
    next = std::move(waiting_.front());
    waiting_.pop_front();
    ++running_;
    ++beginning_;
  }
  render(*next);
  const MutexLock lock(lock_);
  --beginning_;
  begun_.notify_all();  // with the lock held: once it is free, this object may be gone
}

void Thumbnailer::render(const Job& job) {
  auto path = contents_.pathOf(ContentStore::Kind::contents, job.key);
  auto done = [this, key = job.key](std::optional<std::string> jpeg) { rendered(key, std::move(jpeg)); };
  if (job.kind == ThumbKind::video)
    renderer_->video(std::move(path), MAX_WIDTH, MAX_HEIGHT, QUALITY, std::move(done));
  else
    renderer_->picture(std::move(path), job.extension, MAX_PIXELS, QUALITY, std::move(done));
}

void Thumbnailer::rendered(const std::string& key, std::optional<std::string> jpeg) {
  {
    const MutexLock lock(lock_);
    if (ending_) return;
  }
  keep(key, jpeg);
  {
    const MutexLock lock(lock_);
    wanted_.erase(key);
    --running_;
  }
  beginNext();
}

Result<std::unique_ptr<ContentStore::Incoming>> Thumbnailer::receive(const std::string& key,
                                                                     const std::string& jpeg) const {
  auto incoming = contents_.receive(ContentStore::Kind::thumb, key);
  if (!incoming) return incoming;
  if (auto written = (*incoming)->write(jpeg); !written) return failure(std::move(written.error()));
  if (auto sealed = (*incoming)->seal(); !sealed) return failure(std::move(sealed.error()));
  return incoming;
}

void Thumbnailer::keep(const std::string& key, const std::optional<std::string>& jpeg) {
  std::unique_ptr<ContentStore::Incoming> incoming;
  if (jpeg) {
    auto received = receive(key, *jpeg);
    if (!received) return slog.error("%{public}@", received.error().localizedDescription());
    incoming = std::move(*received);
  }
  auto store = stores_.writer();
  // In a transaction, so that it cannot come after the removal of its contents.
  const auto kept = store->write<std::int64_t>([&]() -> Answer<std::int64_t> {
    auto item = store->itemWithKey(key);
    auto owner = item ? store->account(item->account) : std::nullopt;
    // Its contents are gone, or a client's preview came meanwhile.
    if (!owner || item->thumb != Thumb::none) return 0;
    if (incoming)
      if (auto placed = incoming->place(); !placed) return refuse(500, placed.error().localizedDescription());
    item->thumb = incoming ? Thumb::stored : Thumb::impossible;
    store->update(*item);
    // That there is to be a preview was told already.
    if (!incoming) Tree(*store, std::move(*owner), millisecondsNow(clock_)).noteChanged(*item);
    return item->id;
  });
  if (!kept) return slog.error("%{public}@", kept.error().text);
  if (*kept != 0) slog.info("item %lld: %{public}@", *kept, incoming ? "preview made" : "no preview can be made");
}

}  // namespace vondle::storage
