#include "storage/importer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <span>
#include <vector>

#include <fmt/format.h>

#include "storage/names.h"
#include "storage/tree.h"

namespace vondle::storage {
namespace {

namespace fs = std::filesystem;

// Per transaction and per sync of the disk.
constexpr std::size_t BATCH_ENTRIES = 20000;
constexpr std::int64_t BATCH_BYTES = std::int64_t{4} << 30;

// A file or folder found, in an order in which folders come before what they hold.
struct Found {
  std::string source;
  std::string folder;  // path in the account
  std::string name;
  bool isFolder = false;
  std::int64_t modified = 0;
  std::int64_t size = 0;
  std::string key = {};  // of a file that is copied
  std::string hash = {};
};

std::int64_t modifiedOf(const struct stat& found) {
  return found.st_mtim.tv_sec * 1000 + found.st_mtim.tv_nsec / 1'000'000;
}

Error failed(const Refusal& refusal) {
  return {"VondleStorageError", refusal.status, refusal.text};
}

class Importer {
 public:
  Importer(MetadataStore& store, const ContentStore& contents, std::string_view account, std::int64_t now)
      : store_(store), contents_(contents), account_(account), now_(now) {}

  Result<void> take(const std::string& folder) {
    if (auto found = find(folder, ""); !found) return found;
    for (auto first = found_.begin(); first != found_.end();) {
      auto last = first;
      std::int64_t bytes = 0;
      for (; last != found_.end() && last - first < static_cast<std::ptrdiff_t>(BATCH_ENTRIES) && bytes < BATCH_BYTES;
           ++last)
        bytes += last->size;
      if (auto done = takeBatch({first, last}); !done) return done;
      first = last;
    }
    return {};
  }

  ImportReport report;

 private:
  void skip(const fs::path& entry, std::string_view why) {
    ++report.skipped;
    // Control characters of a foreign name stay out of the terminal.
    std::string shown = entry.string();
    for (char& c : shown)
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    fmt::print(stderr, "vondle-storage: not imported: {}: {}\n", shown, why);
  }

  Result<void> write(const std::function<Answer<void>(Tree&)>& work) {
    auto answer = store_.write<void>([&]() -> Answer<void> {
      auto account = store_.accountNamed(account_);
      if (!account) return refuse(404, "there is no such account");
      Tree tree(store_, std::move(*account), now_);
      return work(tree);
    });
    if (!answer) return failure(failed(answer.error()));
    return {};
  }

  Result<void> find(const std::string& folder, const std::string& path) {
    std::vector<fs::path> entries;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) entries.push_back(entry.path());
    if (error && path.empty()) return failure(Error::posix(error.value(), "cannot read " + folder));
    if (error) skip(folder, "it can't be read");
    std::ranges::sort(entries);
    for (const auto& entry : entries) {
      const std::string name = entry.filename().string();
      struct stat examined{};
      if (auto valid = checkName(name); !valid) {
        skip(entry, valid.error().text);
      } else if (::lstat(entry.c_str(), &examined) != 0) {
        skip(entry, "it can't be examined");
      } else if (S_ISREG(examined.st_mode) || S_ISDIR(examined.st_mode)) {
        const bool isFolder = S_ISDIR(examined.st_mode);
        found_.push_back({.source = entry.string(),
                          .folder = path,
                          .name = name,
                          .isFolder = isFolder,
                          .modified = modifiedOf(examined),
                          .size = isFolder ? 0 : examined.st_size});
        if (isFolder)
          if (auto inside = find(entry.string(), joinPath(path, name)); !inside) return inside;
      } else {
        skip(entry, "it is neither a file nor a folder");
      }
    }
    return {};
  }

  // In three steps: the keys of what is to be copied are known as garbage until the rows stand, so that a crash leaves
  // nothing behind; then the copies, and everything is on the disk; then the rows.
  Result<void> takeBatch(std::span<Found> batch) {
    const auto keys = write([&](Tree& tree) -> Answer<void> {
      for (auto& entry : batch) {
        if (entry.isFolder || tree.byPath(joinPath(entry.folder, entry.name))) continue;
        entry.key = randomName();
        store_.addGarbage(entry.key);
      }
      return {};
    });
    if (!keys) return keys;

    for (auto& entry : batch) {
      if (entry.key.empty()) continue;
      const auto copied = copy(entry);
      if (copied) continue;
      if (copied.error().isIn(POSIX_ERROR_DOMAIN) && copied.error().code == ENOSPC) return copied;
      skip(entry.source, copied.error().localizedDescription());
      entry.key.clear();
    }
    if (auto synced = contents_.syncAll(); !synced) return synced;

    return write([&](Tree& tree) -> Answer<void> {
      for (const auto& entry : batch)
        if (auto added = add(tree, entry); !added) return added;
      return {};
    });
  }

  Answer<void> add(Tree& tree, const Found& entry) {
    const auto existing = tree.byPath(joinPath(entry.folder, entry.name));
    if (existing && entry.isFolder && existing->item.isFolder) return {};
    if (existing) {
      if (entry.isFolder)
        skip(entry.source, "there is a file of this name");
      else
        ++report.kept;
      return {};
    }
    if (!entry.isFolder && entry.key.empty()) return {};

    const auto folder = tree.folderForNew(entry.folder);
    // Below something that was skipped.
    const auto free = folder ? tree.checkFree(*folder, entry.name) : Answer<void>(refuse(folder.error()));
    if (!free) {
      skip(entry.source, free.error().text);
      return {};
    }
    if (entry.isFolder) {
      auto made = tree.createFolder(entry.folder, entry.name);
      if (!made) return refuse(made.error());
      made->item.modified = entry.modified;
      store_.update(made->item);
      ++report.folders;
      return {};
    }
    if (auto room = tree.checkRoom(folder->item.account, entry.size); !room) return room;
    tree.addFile(*folder, entry.name, entry.key, entry.size, entry.hash, false, entry.modified);
    store_.removeGarbage(entry.key);
    ++report.files;
    report.bytes += entry.size;
    return {};
  }

  Result<void> copy(Found& file) const {
    const int descriptor = ::open(file.source.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (descriptor < 0) return failure(Error::posix(errno, "cannot open it"));
    const StoredFile opened(descriptor, 0);
    struct stat examined{};
    if (::fstat(descriptor, &examined) != 0) return failure(Error::posix(errno, "cannot examine it"));
    file.modified = modifiedOf(examined);

    auto incoming = contents_.receive(ContentStore::Kind::contents, file.key);
    if (!incoming) return failure(incoming.error());
    std::vector<char> buffer(256 * 1024);
    for (;;) {
      const auto count = opened.readAt((*incoming)->size(), buffer);
      if (!count) return failure(count.error());
      if (*count == 0) break;
      if (auto written = (*incoming)->write({buffer.data(), *count}); !written) return written;
    }
    file.size = (*incoming)->size();
    auto hash = (*incoming)->seal(false);
    if (!hash) return failure(hash.error());
    if (auto placed = (*incoming)->place(false); !placed) return placed;
    file.hash = std::move(*hash);
    return {};
  }

  MetadataStore& store_;
  const ContentStore& contents_;
  std::string account_;
  std::int64_t now_;
  std::vector<Found> found_;
};

}  // namespace

Result<ImportReport> importFolder(MetadataStore& store, const ContentStore& contents, std::string_view account,
                                  const std::string& folder, std::int64_t now) {
  Importer importer(store, contents, account, now);
  if (auto done = importer.take(folder); !done) return failure(done.error());
  return importer.report;
}

}  // namespace vondle::storage
