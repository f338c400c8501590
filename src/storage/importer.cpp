#include "storage/importer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include <fmt/format.h>

#include "storage/names.h"
#include "storage/tree.h"

namespace vondle::storage {
namespace {

namespace fs = std::filesystem;

// Files per transaction, and per sync of the disk.
constexpr std::size_t BATCH = 1000;

struct Copied {
  std::string name;
  std::string key;
  std::string hash;
  std::int64_t size = 0;
  std::int64_t modified = 0;
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

  Result<void> take(const std::string& folder, const std::string& path) {
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) found.push_back(entry.path());
    if (error) return failure(Error::posix(error.value(), "cannot read " + folder));
    std::ranges::sort(found);

    std::vector<std::pair<std::string, std::string>> folders;
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto& entry : found) {
      const std::string name = entry.filename().string();
      struct stat examined{};
      if (auto valid = checkName(name); !valid)
        skip(entry, valid.error().text);
      else if (::lstat(entry.c_str(), &examined) != 0)
        skip(entry, "it can't be examined");
      else if (S_ISDIR(examined.st_mode))
        folders.emplace_back(entry.string(), name);
      else if (S_ISREG(examined.st_mode))
        files.emplace_back(entry.string(), name);
      else
        skip(entry, "it is neither a file nor a folder");
    }
    for (std::size_t i = 0; i < files.size(); i += BATCH) {
      const std::size_t end = std::min(i + BATCH, files.size());
      if (auto done = takeFiles(
              {files.begin() + static_cast<std::ptrdiff_t>(i), files.begin() + static_cast<std::ptrdiff_t>(end)}, path);
          !done)
        return done;
    }
    for (const auto& [source, name] : folders) {
      const auto made = makeFolder(source, path, name);
      if (!made) return failure(made.error());
      if (!*made) continue;
      if (auto done = take(source, joinPath(path, name)); !done) return done;
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

  template <class T>
  Result<T> write(const std::function<Answer<T>(Tree&)>& work) {
    auto answer = store_.write<T>([&]() -> Answer<T> {
      auto account = store_.accountNamed(account_);
      if (!account) return refuse(404, "there is no such account");
      Tree tree(store_, std::move(*account), now_);
      return work(tree);
    });
    if (!answer) return failure(failed(answer.error()));
    return std::move(*answer);
  }

  // False: a file of that name stands there.
  Result<bool> makeFolder(const std::string& source, const std::string& path, const std::string& name) {
    return write<bool>([&](Tree& tree) -> Answer<bool> {
      const auto existing = tree.byPath(joinPath(path, name));
      if (existing && existing->item.isFolder && existing->isWritable()) return true;
      auto made =
          existing ? Answer<View>(refuse(409, "there is something else of this name")) : tree.createFolder(path, name);
      if (!made && made.error().status != 409) return refuse(made.error());
      if (!made) {
        skip(source, made.error().text);
        return false;
      }
      struct stat examined{};
      if (::stat(source.c_str(), &examined) == 0) made->item.modified = modifiedOf(examined);
      store_.update(made->item);
      ++report.folders;
      return true;
    });
  }

  Result<void> takeFiles(const std::vector<std::pair<std::string, std::string>>& files, const std::string& path) {
    std::vector<Copied> copies;
    const auto wanted = write<std::vector<std::string>>([&](Tree& tree) -> Answer<std::vector<std::string>> {
      const auto folder = tree.folderForNew(path);
      if (!folder) return refuse(folder.error());
      std::vector<std::string> sources;
      for (const auto& [source, name] : files) {
        if (!tree.checkFree(*folder, name)) {
          ++report.kept;
          continue;
        }
        // Known as garbage until the rows stand, so that a crash leaves nothing behind.
        copies.push_back({.name = name, .key = randomName(), .hash = {}, .size = 0, .modified = 0});
        store_.addGarbage(copies.back().key);
        sources.push_back(source);
      }
      return sources;
    });
    if (!wanted) return failure(wanted.error());
    if (wanted->empty()) return {};

    std::vector<Copied> whole;
    for (std::size_t i = 0; i < copies.size(); ++i) {
      if (auto copied = copy((*wanted)[i], copies[i]); copied)
        whole.push_back(copies[i]);
      else if (copied.error().isIn(POSIX_ERROR_DOMAIN) && copied.error().code == ENOSPC)
        return failure(copied.error());
      else
        skip((*wanted)[i], copied.error().localizedDescription());
    }
    if (auto synced = contents_.syncAll(); !synced) return synced;

    const auto added = write<bool>([&](Tree& tree) -> Answer<bool> {
      const auto folder = tree.folderForNew(path);
      if (!folder) return refuse(folder.error());
      for (const auto& file : whole) {
        if (auto room = tree.checkRoom(folder->item.account, file.size); !room) return refuse(room.error());
        tree.addFile(*folder, file.name, file.key, file.size, file.hash, false, file.modified);
        store_.removeGarbage(file.key);
      }
      return true;
    });
    if (!added) return failure(added.error());
    for (const auto& file : whole) {
      ++report.files;
      report.bytes += file.size;
    }
    return {};
  }

  Result<void> copy(const std::string& source, Copied& file) const {
    const int descriptor = ::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
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
};

}  // namespace

Result<ImportReport> importFolder(MetadataStore& store, const ContentStore& contents, std::string_view account,
                                  const std::string& folder, std::int64_t now) {
  Importer importer(store, contents, account, now);
  if (auto done = importer.take(folder, ""); !done) return failure(done.error());
  return importer.report;
}

}  // namespace vondle::storage
