#include "storage/content_handlers.h"

#include <algorithm>
#include <cerrno>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/log.h"
#include "storage/count.h"
#include "storage/milliseconds.h"

namespace vondle::storage {
namespace {

constexpr Log slog("com.ferrow.vondle.storage", "contents");

const Refusal NO_CONTENTS{404, "there is nothing stored at this address"};
const Refusal OTHER_CONTENTS{409, "other contents were sent to this address already"};
const Refusal TAKEN_OVER{409, "the part is being sent again by another request"};
const Refusal JOINED{409, "the parts were joined already"};

std::optional<std::string> queryOf(const ContentRequest& request, const std::string& name) {
  return request.query.count(name) == 1 ? std::optional(request.query.find(name)->second) : std::nullopt;
}

// The key that follows the prefix, when what follows looks like one.
std::optional<std::string_view> keyAfter(std::string_view path, std::string_view prefix) {
  if (!path.starts_with(prefix)) return std::nullopt;
  path.remove_prefix(prefix.size());
  const bool isKey = path.size() == 32 &&
                     std::ranges::all_of(path, [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
  return isKey ? std::optional(path) : std::nullopt;
}

// The key and the number of "KEY/NUMBER" that follows the prefix.
std::optional<std::pair<std::string, std::int64_t>> partAfter(std::string_view path, std::string_view prefix) {
  const auto slash = path.rfind('/');
  const auto key = slash == std::string_view::npos ? std::nullopt : keyAfter(path.substr(0, slash), prefix);
  const auto number = key ? countIn(path.substr(slash + 1)) : std::nullopt;
  if (!number) return std::nullopt;
  return std::pair(std::string(*key), *number);
}

// What went wrong with the disk, as the client is told it.
Refusal diskFailed(const Error& error) {
  slog.error("%{public}@", error.localizedDescription());
  if (error.isIn(POSIX_ERROR_DOMAIN) && (error.code == ENOSPC || error.code == EDQUOT))
    return {507, "the service's disk is full"};
  if (error.is(POSIX_ERROR_DOMAIN, ECANCELED)) return TAKEN_OVER;
  return {500, "the service's disk failed"};
}

template <class T>
Answer<T> fromDisk(Result<T> result) {
  if (!result) return refuse(diskFailed(result.error()));
  if constexpr (std::is_void_v<T>)
    return {};
  else
    return std::move(*result);
}

std::string quoted(const std::string& hash) {
  return "\"" + hash + "\"";
}

// The upload as log lines name it: enough to tell it from others, and no use to anybody.
std::string nameOf(const Upload& upload, std::int64_t part) {
  return fmt::format("part {} of upload {}", part, upload.uploadId.substr(0, 8));
}

struct Stored {
  std::int64_t size = 0;
  std::string hash = {};
};

// What was sent in one request to the key before.
std::optional<Stored> storedUnder(MetadataStore& store, const std::string& key) {
  if (const auto upload = store.upload(key))
    return upload->stored && upload->partSize == 0 ? std::optional(Stored{upload->storedSize, upload->hash})
                                                   : std::nullopt;
  const auto item = store.itemWithKey(key);
  return item && !item->hash.empty() ? std::optional(Stored{item->size, item->hash}) : std::nullopt;
}

}  // namespace

Answer<std::optional<std::pair<std::int64_t, std::int64_t>>> rangeOf(std::string_view header, std::int64_t size) {
  if (!header.starts_with("bytes=") || header.find(',') != std::string_view::npos) return std::nullopt;
  header.remove_prefix(6);
  const auto dash = header.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto first = countIn(header.substr(0, dash));
  const auto last = countIn(header.substr(dash + 1));
  if (!first) {
    if (dash != 0 || !last) return std::nullopt;
    if (*last == 0 || size == 0) return refuse(416, "no byte of this range exists");
    return std::pair(std::max<std::int64_t>(0, size - *last), size - 1);
  }
  if (!last && dash + 1 != header.size()) return std::nullopt;
  if (last && *last < *first) return std::nullopt;
  if (*first >= size) return refuse(416, "no byte of this range exists");
  return std::pair(*first, std::min(last.value_or(size - 1), size - 1));
}

Answer<void> ContentHandlers::check(const ContentRequest& request) const {
  if (request.hasApiKey)
    return refuse(400, "this address carries its own permission; never send the account key to it");
  const auto expires = queryOf(request, "expires");
  const auto signature = queryOf(request, "signature");
  if (!expires || !signature || request.query.size() != 2 ||
      !signer_.isValid(request.method, request.path, *expires, *signature, millisecondsNow(clock_) / 1000))
    return refuse(403, "the address is not signed for this request, or has expired");
  return {};
}

Answer<Download> ContentHandlers::download(const ContentRequest& request) {
  if (auto allowed = check(request); !allowed) return refuse(std::move(allowed.error()));
  const auto contentsKey = keyAfter(request.path, "/vondle/contents/");
  const auto thumbKey = keyAfter(request.path, "/vondle/thumbs/");
  if (!contentsKey && !thumbKey) return refuse(NO_CONTENTS);
  const std::string key(contentsKey ? *contentsKey : *thumbKey);

  // Contents that were replaced or purged are not given out, even while they still lie on the disk.
  auto store = stores_.reader();
  if (!store) return refuse(500, "the service's database cannot be opened");
  const auto item = (*store)->read<Item>([&]() -> Answer<Item> {
    auto found = (*store)->itemWithKey(key);
    if (!found || (thumbKey && found->thumb != Thumb::stored)) return refuse(NO_CONTENTS);
    return std::move(*found);
  });
  if (!item) return refuse(item.error());
  auto file = contents_.read(contentsKey ? ContentStore::Kind::contents : ContentStore::Kind::thumb, key);
  if (!file) {
    // Replaced between the two looks; or the disk lost it, which the service must say.
    const auto again = (*store)->read<bool>([&]() -> Answer<bool> { return (*store)->itemWithKey(key).has_value(); });
    if (again && !*again) return refuse(NO_CONTENTS);
    return refuse(500, "the stored contents cannot be read");
  }
  return Download{.file = std::move(*file),
                  .contentType = contentsKey ? "application/octet-stream" : "image/jpeg",
                  .etag = "\"" + key + "\""};
}

template <class T>
Answer<T> ContentHandlers::withUpload(const std::string& key,
                                      const std::function<Answer<T>(MetadataStore&, Uploads&, Upload&)>& work) {
  auto store = stores_.writer();
  return store->write<T>([&]() -> Answer<T> {
    auto upload = store->upload(key);
    auto account = upload ? store->account(upload->account) : std::nullopt;
    if (!account) return refuse(NO_CONTENTS);
    const auto now = millisecondsNow(clock_);
    Tree tree(*store, std::move(*account), now);
    Uploads uploads(*store, contents_, tree, now);
    return work(*store, uploads, *upload);
  });
}

// Contents in one request.
class ContentHandlers::WholeReceiver final : public Receiver {
 public:
  WholeReceiver(ContentHandlers& handlers, std::string key, std::int64_t length,
                std::unique_ptr<ContentStore::Incoming> incoming, std::unique_ptr<Arrivals::Hold> hold)
      : Receiver("contents", length),
        handlers_(handlers),
        key_(std::move(key)),
        incoming_(std::move(incoming)),
        hold_(std::move(hold)) {}

 private:
  Answer<void> take(std::string_view bytes) override { return fromDisk(incoming_->write(bytes)); }

  Answer<std::string> accept() override {
    const auto hash = fromDisk(incoming_->seal());
    if (!hash) return hash;
    return handlers_.withUpload<std::string>(
        key_, [&](MetadataStore&, Uploads& uploads, Upload& upload) -> Answer<std::string> {
          // By another transfer meanwhile: what was answered to it must stay true.
          if (upload.stored) return upload.hash == *hash ? Answer<std::string>(quoted(*hash)) : refuse(OTHER_CONTENTS);
          if (auto storable = uploads.checkStorable(upload, incoming_->size()); !storable)
            return refuse(storable.error());
          if (auto placed = fromDisk(incoming_->place()); !placed) return refuse(placed.error());
          uploads.stored(upload, incoming_->size(), *hash);
          return quoted(*hash);
        });
  }

  ContentHandlers& handlers_;
  std::string key_;
  std::unique_ptr<ContentStore::Incoming> incoming_;
  std::unique_ptr<Arrivals::Hold> hold_;
};

// Contents that were stored before, sent again because the answer was lost: answered as then when they are the same.
class ContentHandlers::RepeatReceiver final : public Receiver {
 public:
  explicit RepeatReceiver(const Stored& stored) : Receiver("contents again", stored.size), hash_(stored.hash) {}

 private:
  Answer<void> take(std::string_view bytes) override {
    hasher_.add(bytes);
    return {};
  }
  Answer<std::string> accept() override {
    if (hexadecimal(hasher_.finish()) != hash_) return refuse(OTHER_CONTENTS);
    return quoted(hash_);
  }

  std::string hash_;
  Sha256 hasher_;
};

// A part: straight to its place when it was not there. One that is there already stays what was answered until all of
// the new bytes are here, and longer when they are the same.
class ContentHandlers::PartReceiver final : public Receiver {
 public:
  PartReceiver(ContentHandlers& handlers, const Upload& upload, std::int64_t number,
               std::unique_ptr<ContentStore::IncomingPart> part, std::unique_ptr<ContentStore::Incoming> again)
      : Receiver(nameOf(upload, number), partLength(upload, number)),
        handlers_(handlers),
        key_(upload.key),
        number_(number),
        part_(std::move(part)),
        again_(std::move(again)) {}

 private:
  Answer<void> take(std::string_view bytes) override {
    return fromDisk(again_ ? again_->write(bytes) : part_->write(bytes));
  }

  Answer<std::string> accept() override {
    if (again_) {
      const auto hash = fromDisk(again_->seal(false));
      if (!hash) return hash;
      if (auto begun = replace(quoted(*hash)); !begun) return refuse(begun.error());
      if (!part_) return quoted(*hash);
    }
    return handlers_.keepPart(key_, number_, *part_);
  }

  // Puts the new bytes in the place of the old ones, unless they are the same.
  Answer<void> replace(const std::string& etag) {
    auto begun = handlers_.withUpload<void>(key_, [&](MetadataStore& store, Uploads&, Upload& upload) -> Answer<void> {
      if (upload.stored) return refuse(JOINED);
      const auto there = store.part(key_, number_);
      if (there && there->etag == etag) {
        upload.touched = millisecondsNow(handlers_.clock_);
        store.setUpload(upload);
        return {};
      }
      auto part = handlers_.beginPart(store, upload, number_);
      if (!part) return refuse(part.error());
      part_ = std::move(*part);
      return {};
    });
    return begun && part_ ? copy() : begun;
  }

  Answer<void> copy() {
    std::vector<char> buffer(256 * 1024);
    while (part_->size() < again_->size()) {
      const auto count = fromDisk(again_->readAt(part_->size(), buffer));
      if (!count) return refuse(count.error());
      if (*count == 0) return refuse(500, "the service's disk failed");
      if (auto written = fromDisk(part_->write({buffer.data(), *count})); !written) return written;
    }
    return {};
  }

  ContentHandlers& handlers_;
  std::string key_;
  std::int64_t number_;
  std::unique_ptr<ContentStore::IncomingPart> part_;
  std::unique_ptr<ContentStore::Incoming> again_;
};

class ContentHandlers::ThumbReceiver final : public Receiver {
 public:
  ThumbReceiver(ContentHandlers& handlers, std::string key, std::int64_t length,
                std::unique_ptr<ContentStore::Incoming> incoming)
      : Receiver("a preview", length), handlers_(handlers), key_(std::move(key)), incoming_(std::move(incoming)) {}

 private:
  Answer<void> take(std::string_view bytes) override {
    constexpr std::string_view JPEG_START = "\xff\xd8\xff";
    if (start_.size() < JPEG_START.size()) start_ += bytes.substr(0, JPEG_START.size() - start_.size());
    if (!JPEG_START.starts_with(start_)) return refuse(400, "the preview is not a JPEG picture");
    return fromDisk(incoming_->write(bytes));
  }

  Answer<std::string> accept() override {
    if (start_.size() < 3) return refuse(400, "the preview is not a JPEG picture");
    const auto hash = fromDisk(incoming_->seal());
    if (!hash) return hash;
    auto store = handlers_.stores_.writer();
    // In a transaction, so that it cannot come after the removal of its contents.
    return store->write<std::string>([&]() -> Answer<std::string> {
      if (!store->upload(key_) && !store->itemWithKey(key_)) return refuse(NO_CONTENTS);
      if (auto placed = fromDisk(incoming_->place()); !placed) return refuse(placed.error());
      return quoted(*hash);
    });
  }

  ContentHandlers& handlers_;
  std::string key_;
  std::string start_;
  std::unique_ptr<ContentStore::Incoming> incoming_;
};

Answer<std::unique_ptr<Receiver>> ContentHandlers::upload(const ContentRequest& request,
                                                          std::optional<std::int64_t> length,
                                                          std::string_view contentType) {
  auto receiver = receive(request, length, contentType);
  if (!receiver) slog.info("refused a transfer: %d %{public}@", receiver.error().status, receiver.error().text);
  return receiver;
}

ContentHandlers::Receiving ContentHandlers::receive(const ContentRequest& request, std::optional<std::int64_t> length,
                                                    std::string_view contentType) {
  if (auto allowed = check(request); !allowed) return refuse(std::move(allowed.error()));
  if (!length) return refuse(411, "the length of the body is not told");
  if (*length > MAX_FILE_SIZE) return refuse(413, "no file is that long");
  if (const auto key = keyAfter(request.path, "/vondle/thumbs/")) return receiveThumb(*key, *length, contentType);
  if (const auto key = keyAfter(request.path, "/vondle/uploads/")) return receiveWhole(std::string(*key), *length);
  if (const auto part = partAfter(request.path, "/vondle/uploads/"))
    return receivePart(part->first, part->second, *length);
  return refuse(NO_CONTENTS);
}

ContentHandlers::Receiving ContentHandlers::receiveThumb(std::string_view key, std::int64_t length,
                                                         std::string_view contentType) {
  if (contentType != "image/jpeg") return refuse(415, "a preview is sent as image/jpeg");
  if (length > MAX_THUMB_BYTES) return refuse(413, "a preview has at most 4 MiB");
  auto incoming = fromDisk(contents_.receive(ContentStore::Kind::thumb, key));
  if (!incoming) return refuse(incoming.error());
  return std::make_unique<ThumbReceiver>(*this, std::string(key), length, std::move(*incoming));
}

ContentHandlers::Receiving ContentHandlers::receiveWhole(const std::string& key, std::int64_t length) {
  {
    auto store = stores_.writer();
    const auto stored =
        store->read<std::optional<Stored>>([&]() -> Answer<std::optional<Stored>> { return storedUnder(*store, key); });
    if (!stored) return refuse(stored.error());
    if (*stored && (*stored)->size != length) return refuse(OTHER_CONTENTS);
    if (*stored) return std::make_unique<RepeatReceiver>(**stored);
  }
  std::unique_ptr<Arrivals::Hold> hold;
  const auto storable = withUpload<bool>(key, [&](MetadataStore&, Uploads& uploads, Upload& upload) -> Answer<bool> {
    if (upload.partSize > 0) return refuse(409, "these contents are sent in parts");
    if (auto checked = uploads.checkStorable(upload, length); !checked) return refuse(checked.error());
    hold = std::make_unique<Arrivals::Hold>(contents_.arrivals(), upload.owner, key, length);
    return true;
  });
  if (!storable) return refuse(storable.error());
  auto incoming = fromDisk(contents_.receive(ContentStore::Kind::contents, key));
  if (!incoming) return refuse(incoming.error());
  return std::make_unique<WholeReceiver>(*this, key, length, std::move(*incoming), std::move(hold));
}

ContentHandlers::Receiving ContentHandlers::receivePart(const std::string& key, std::int64_t number,
                                                        std::int64_t length) {
  return withUpload<std::unique_ptr<Receiver>>(key, [&](MetadataStore& store, Uploads&, Upload& upload) -> Receiving {
    if (number < 1 || number > partCount(upload)) return refuse(404, "the upload has no such part");
    if (upload.stored) return refuse(JOINED);
    if (length != partLength(upload, number)) return refuse(400, "the part has not the length that it has to have");
    if (store.part(key, number)) {
      auto incoming = fromDisk(contents_.receive(ContentStore::Kind::contents, key));
      if (!incoming) return refuse(incoming.error());
      return std::make_unique<PartReceiver>(*this, upload, number, nullptr, std::move(*incoming));
    }
    auto incoming = beginPart(store, upload, number);
    if (!incoming) return refuse(incoming.error());
    return std::make_unique<PartReceiver>(*this, upload, number, std::move(*incoming), nullptr);
  });
}

Answer<std::unique_ptr<ContentStore::IncomingPart>> ContentHandlers::beginPart(MetadataStore& store,
                                                                               const Upload& upload,
                                                                               std::int64_t number) const {
  store.removePart(upload.key, number);
  return fromDisk(contents_.receivePart(upload.key, number, (number - 1) * upload.partSize));
}

Answer<std::string> ContentHandlers::keepPart(const std::string& key, std::int64_t number,
                                              ContentStore::IncomingPart& part) {
  const auto hash = fromDisk(part.seal());
  if (!hash) return hash;
  return withUpload<std::string>(key, [&](MetadataStore& store, Uploads&, Upload& upload) -> Answer<std::string> {
    if (!part.isCurrent()) return refuse(TAKEN_OVER);
    if (upload.stored) return refuse(JOINED);
    store.setPart(key, {.number = number, .size = part.size(), .etag = quoted(*hash)});
    upload.touched = millisecondsNow(clock_);
    store.setUpload(upload);
    return quoted(*hash);
  });
}

}  // namespace vondle::storage
