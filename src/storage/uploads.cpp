#include "storage/uploads.h"

#include <algorithm>

#include "storage/crypto.h"
#include "storage/names.h"

namespace vondle::storage {
namespace {

const Refusal NO_UPLOAD{404, "there is no such upload"};

void drop(MetadataStore& store, const Upload& upload) {
  store.removeUpload(upload.key);
  store.addGarbage(upload.key);
}

// What new contents may be sent for and committed to.
Answer<void> checkEditable(const View& file) {
  if (file.item.isFolder) return refuse(400, "this is a folder, not a file");
  if (file.trashed) return refuse(409, "the file is in the trash");
  if (!file.isWritable()) return refuse(403, "this file can't be changed by this account");
  return {};
}

}  // namespace

std::int64_t partSizeFor(std::int64_t size) {
  return std::max(PART_SIZE, (size + MAX_PARTS - 1) / MAX_PARTS);
}

std::int64_t partCount(const Upload& upload) {
  return upload.partSize == 0 ? 0 : (upload.size.value_or(0) + upload.partSize - 1) / upload.partSize;
}

std::int64_t partLength(const Upload& upload, std::int64_t number) {
  return std::min(upload.partSize, upload.size.value_or(0) - (number - 1) * upload.partSize);
}

Answer<void> Uploads::checkSize(std::optional<std::int64_t> size, bool inParts) {
  if (size && (*size < 0 || *size > MAX_FILE_SIZE)) return refuse(400, "\"size\" is not the size of a file");
  if (inParts && size.value_or(0) == 0) return refuse(400, "an upload in parts needs its \"size\", at least 1");
  return {};
}

Answer<void> Uploads::checkRoom(AccountId owner, std::int64_t bytes, std::string_view exceptKey) {
  return tree_.checkRoom(owner, bytes + promised_ + contents_.arrivals().of(owner, exceptKey));
}

Upload Uploads::begin(AccountId owner, std::optional<std::int64_t> size, bool inParts) {
  Upload upload{.key = randomName(), .account = tree_.account().id, .owner = owner, .size = size, .touched = now_};
  if (inParts) {
    upload.uploadId = randomName();
    upload.partSize = partSizeFor(*size);
  }
  return upload;
}

Answer<Upload> Uploads::forNewFile(std::string_view path, std::string_view name, std::int64_t size, bool inParts) {
  if (auto valid = checkSize(size, inParts); !valid) return refuse(std::move(valid.error()));
  if (auto valid = checkName(name); !valid) return refuse(std::move(valid.error()));
  const auto folder = tree_.folderForNew(path);
  if (!folder) return refuse(folder.error());
  if (auto free = tree_.checkFree(*folder, name); !free) return refuse(std::move(free.error()));
  if (auto room = checkRoom(folder->item.account, size); !room) return refuse(std::move(room.error()));
  if (!inParts) promised_ += size;  // those in parts are counted by the store
  Upload upload = begin(folder->item.account, size, inParts);
  upload.parent = folder->item.id;
  upload.name = name;
  store_.setUpload(upload);
  return upload;
}

Answer<Upload> Uploads::forContents(const View& file, std::optional<std::int64_t> size, bool inParts) {
  if (auto valid = checkSize(size, inParts); !valid) return refuse(std::move(valid.error()));
  if (auto editable = checkEditable(file); !editable) return refuse(std::move(editable.error()));
  // A size that is not told may be anything; at least something.
  const std::int64_t more = size ? *size - file.item.size : 1;
  if (auto room = checkRoom(file.item.account, more); !room) return refuse(std::move(room.error()));
  Upload upload = begin(file.item.account, size, inParts);
  upload.item = file.item.id;
  upload.name = file.item.name;
  store_.setUpload(upload);
  return upload;
}

Answer<Upload> Uploads::find(std::string_view key, std::optional<std::string_view> uploadId) {
  auto upload = store_.upload(key);
  if (!upload || upload->account != tree_.account().id) return refuse(NO_UPLOAD);
  if (uploadId && (upload->uploadId.empty() || upload->uploadId != *uploadId)) return refuse(NO_UPLOAD);
  return std::move(*upload);
}

Answer<View> Uploads::folderOf(const Upload& upload) {
  return tree_.byId(*upload.parent == tree_.account().root ? std::string(ROOT_ID) : std::to_string(*upload.parent));
}

Answer<void> Uploads::checkStorable(const Upload& upload, std::int64_t size) {
  if (upload.size && *upload.size != size) return refuse(400, "the size is not the announced one");
  // What is counted as waiting already does not need room twice.
  const std::int64_t counted = upload.stored ? upload.storedSize : upload.partSize > 0 ? upload.size.value_or(0) : 0;
  if (!upload.parent) {
    const auto item = upload.item ? store_.item(*upload.item) : std::nullopt;
    return checkRoom(upload.owner, size - counted - (item ? item->size : 0), upload.key);
  }
  const auto folder = folderOf(upload);
  if (!folder || folder->trashed) return refuse(404, "the folder that the file was to go to is gone");
  if (!folder->isWritable()) return refuse(403, "nothing can be put in this folder by this account");
  if (auto free = tree_.checkFree(*folder, upload.name); !free) return free;
  return checkRoom(upload.owner, size - counted, upload.key);
}

void Uploads::stored(Upload upload, std::int64_t size, const std::string& hash) {
  if (upload.parent) {
    const auto folder = folderOf(upload);
    if (folder) tree_.addFile(*folder, upload.name, upload.key, size, hash, false);
    store_.removeUpload(upload.key);
    return;
  }
  upload.stored = true;
  upload.storedSize = size;
  upload.hash = hash;
  upload.touched = now_;
  store_.setUpload(upload);
}

Answer<void> Uploads::checkParts(const Upload& upload, const std::vector<std::pair<std::int64_t, std::string>>& parts) {
  if (static_cast<std::int64_t>(parts.size()) != partCount(upload))
    return refuse(400, "\"parts\" does not name every part");
  const auto have = store_.parts(upload.key);
  auto next = have.begin();
  for (std::int64_t number = 1; const auto& [named, etag] : parts) {
    if (named != number) return refuse(400, "\"parts\" is not in order");
    if (next == have.end() || next->number != number || next->size != partLength(upload, number))
      return refuse(400, "part " + std::to_string(number) + " was not sent");
    if (next->etag != etag)
      return refuse(400, "the tag of part " + std::to_string(number) + " is not the one that was answered");
    ++next;
    ++number;
  }
  return {};
}

Answer<std::optional<View>> Uploads::complete(std::string_view key, std::string_view uploadId,
                                              const std::vector<std::pair<std::int64_t, std::string>>& parts) {
  const auto upload = find(key, uploadId);
  if (!upload) {
    // Done before, and the answer was lost.
    if (auto file = tree_.byKey(key)) return std::move(*file);
    return refuse(upload.error());
  }
  if (upload->stored) return std::nullopt;

  if (auto complete = checkParts(*upload, parts); !complete) return refuse(std::move(complete.error()));
  if (auto storable = checkStorable(*upload, *upload->size); !storable) return refuse(std::move(storable.error()));
  if (auto assembled = contents_.assemble(key, *upload->size); !assembled)
    return refuse(500, "the parts could not be joined");
  stored(*upload, *upload->size, {});
  if (upload->item) return std::nullopt;
  auto file = tree_.byKey(key);
  if (!file) return refuse(file.error());
  return std::move(*file);
}

void Uploads::abort(const Upload& upload) {
  drop(store_, upload);
}

Answer<View> Uploads::commit(const View& file, std::int64_t baseVersion, std::string_view key, bool hasThumb) {
  if (auto editable = checkEditable(file); !editable) return refuse(std::move(editable.error()));
  if (file.item.key == key) return file;  // done before, and the answer was lost
  const auto upload = find(key);
  if (!upload) return refuse(upload.error());
  if (upload->item != file.item.id) return refuse(409, "these contents were uploaded for another file");
  if (!upload->stored) return refuse(409, "the contents were not uploaded yet");
  if (file.item.version != baseVersion) return refuse(409, "the file has changed since the version that was edited");

  Item item = file.item;
  store_.addGarbage(item.key);
  store_.removeUpload(key);
  store_.addUse(item.account, upload->storedSize - item.size);
  item.key = upload->key;
  item.size = upload->storedSize;
  item.hash = upload->hash;
  item.version += 1;
  item.modified = now_;
  item.thumb = hasThumb && contents_.has(ContentStore::Kind::thumb, key) ? Thumb::stored : Thumb::none;
  store_.update(item);
  tree_.noteChanged(item);
  return tree_.refreshed(file);
}

Answer<View> Uploads::registerFile(std::string_view key, std::string_view path) {
  const auto target = splitLast(path);
  if (!target) return refuse(target.error());
  const auto upload = find(key);
  if (!upload) {
    auto file = tree_.byKey(key);
    if (!file) return refuse(upload.error());
    if (file->path == path) return file;  // done before, and the answer was lost
    return refuse(409, "these contents are another file's already");
  }
  if (!upload->stored) return refuse(409, "the contents were not uploaded yet");
  const auto folder = tree_.folderForNew(target->first);
  if (!folder) return refuse(folder.error());
  if (auto free = tree_.checkFree(*folder, target->second); !free) return refuse(std::move(free.error()));
  // These bytes were counted as waiting; they move to the folder's owner.
  store_.removeUpload(key);
  if (auto room = checkRoom(folder->item.account, upload->storedSize); !room) return refuse(std::move(room.error()));
  return tree_.addFile(*folder, target->second, upload->key, upload->storedSize, upload->hash,
                       contents_.has(ContentStore::Kind::thumb, key));
}

Answer<void> Uploads::notify(std::string_view key, bool hasThumb) {
  const auto file = tree_.byKey(key);
  if (!file) {
    const auto upload = find(key);
    return upload ? Answer<void>() : refuse(file.error());
  }
  if (!hasThumb || file->item.thumb == Thumb::stored || !file->isWritable() ||
      !contents_.has(ContentStore::Kind::thumb, key))
    return {};
  Item item = file->item;
  item.thumb = Thumb::stored;
  store_.update(item);
  tree_.noteChanged(item);
  return {};
}

void Uploads::sweep(MetadataStore& store, std::int64_t now) {
  for (const auto& upload : store.uploadsBefore(now - UPLOAD_LIFETIME_MS)) drop(store, upload);
}

}  // namespace vondle::storage
