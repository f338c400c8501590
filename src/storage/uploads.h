#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "storage/content_store.h"
#include "storage/metadata_store.h"
#include "storage/tree.h"

namespace vondle::storage {

// An upload that was neither made use of nor touched for so long is dropped, with the parts that came or the contents
// that nobody committed; clients give up resuming a day earlier.
inline constexpr std::int64_t UPLOAD_LIFETIME_MS = 7LL * 24 * 3600 * 1000;
// Bytes per part; grows with the size so that there are never more than MAX_PARTS.
inline constexpr std::int64_t PART_SIZE = 32LL * 1024 * 1024;
inline constexpr std::int64_t MAX_PARTS = 10000;
inline constexpr std::int64_t MAX_FILE_SIZE = std::int64_t{1} << 50;
inline constexpr std::int64_t MAX_THUMB_BYTES = 4LL * 1024 * 1024;

std::int64_t partSizeFor(std::int64_t size);
std::int64_t partCount(const Upload& upload);
// Bytes of part `number`, which counts from 1.
std::int64_t partLength(const Upload& upload, std::int64_t number);

// The way of new contents into the tree: where they may be sent, when they are whole, and which file they become. One
// transaction's worth, like the tree that it works on; "stored" means that the bytes lie on the disk under the key.
class Uploads {
 public:
  Uploads(MetadataStore& store, const ContentStore& contents, Tree& tree, std::int64_t now)
      : store_(store), contents_(contents), tree_(tree), now_(now) {}

  // Asking for a place: 404 and 409 for folders and names as when something is made there, 507 when there is no room.
  // Nothing appears in the tree yet.
  Answer<Upload> forNewFile(std::string_view path, std::string_view name, std::int64_t size, bool inParts);
  // The version is not looked at before commit, so that an edit of an old version can still be kept as another file.
  Answer<Upload> forContents(const View& file, std::optional<std::int64_t> size, bool inParts);

  // The account's own upload; 404 when there is none. With parts: of this upload id.
  Answer<Upload> find(std::string_view key, std::optional<std::string_view> uploadId = {});
  // Checks and puts the bytes that lie under the key where they belong: a new file appears in its folder, contents of
  // an existing one wait for commit. Refuses before anything changed.
  Answer<void> checkStorable(const Upload& upload, std::int64_t size);
  void stored(Upload upload, std::int64_t size, const std::string& hash);
  // Joins the parts when the list names each with its tag; 400 when one is missing or differs.
  Answer<std::optional<View>> complete(std::string_view key, std::string_view uploadId,
                                       const std::vector<std::pair<std::int64_t, std::string>>& parts);
  void abort(const Upload& upload);

  // Makes stored contents the file's next version; 409 unless `baseVersion` is its version.
  Answer<View> commit(const View& file, std::int64_t baseVersion, std::string_view key, bool hasThumb);
  // Makes stored contents a new file.
  Answer<View> registerFile(std::string_view key, std::string_view path);
  // The preview under the key is there to be shown.
  Answer<void> notify(std::string_view key, bool hasThumb);

  // Drops what was abandoned, whoever asked for it.
  static void sweep(MetadataStore& store, std::int64_t now);

 private:
  Upload begin(AccountId owner, std::optional<std::int64_t> size, bool inParts);
  Answer<void> checkSize(std::optional<std::int64_t> size, bool inParts);
  Answer<View> folderOf(const Upload& upload);  // of a new file
  Answer<void> checkParts(const Upload& upload, const std::vector<std::pair<std::int64_t, std::string>>& parts);
  // 507 unless so much more fits beside what is being received, and what this request was promised before.
  Answer<void> checkRoom(AccountId owner, std::int64_t bytes, std::string_view exceptKey = {});

  MetadataStore& store_;
  const ContentStore& contents_;
  Tree& tree_;
  std::int64_t now_;
  std::int64_t promised_ = 0;  // bytes of single uploads that this request asked for
};

}  // namespace vondle::storage
