#include "service/thumbnails/thumbnail_cache.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "platform/linux/helper_process.h"
#include "service/thumbnails/thumbnail_png.h"

namespace vondle {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view URI = "Thumb::URI", MODIFIED = "Thumb::MTime", SIZE = "Thumb::Size", SOFTWARE = "Software";
constexpr std::string_view PROGRAM = "Vondle ";  // and its version
constexpr std::string_view FAILURES = "fail", PROGRAM_FAILURES = "vondle-";
constexpr std::string_view SUFFIX = ".png";
// One that was begun and never ended is written over by the next of that name.
constexpr std::string_view UNFINISHED = ".vondle-";
constexpr mode_t PRIVATE_FOLDER = 0700, PRIVATE_FILE = 0600;
// Of one that is to be moved; ours are far smaller.
constexpr std::size_t MAX_BYTES = 8u << 20;

struct Kind {
  const char* subfolder;
  int side;
};
constexpr Kind KINDS[] = {
    {"normal", THUMBNAIL_SIDES[0]}, {"large", THUMBNAIL_SIDES[1]}, {"x-large", THUMBNAIL_SIDES[2]}};
constexpr std::size_t ALWAYS = 2;  // of these
static_assert(std::size(KINDS) == std::size(THUMBNAIL_SIDES));

std::string nameOf(const std::string& uri) {
  const std::unique_ptr<char, void (*)(void*)> sum(
      g_compute_checksum_for_string(G_CHECKSUM_MD5, uri.data(), static_cast<gssize>(uri.size())), g_free);
  return sum.get() + std::string(SUFFIX);
}

Error posixError(const std::string& path) {
  return Error::posix(errno, path);
}

// The start of a regular file; none when it cannot be read.
std::optional<std::string> readStart(const std::string& path, std::size_t size) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  std::string bytes(std::min(size, static_cast<std::size_t>(status.st_size)), '\0');
  std::size_t done = 0;
  while (done < bytes.size()) {
    const auto count = ::read(file.get(), bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  bytes.resize(done);
  return bytes;
}

void makeFolders(int at, const std::string& path) {
  for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
    ::mkdirat(at, path.substr(0, end).c_str(), PRIVATE_FOLDER);
  ::mkdirat(at, path.c_str(), PRIVATE_FOLDER);
}

// Below `at`, made if missing; one that others can change is none.
Result<Descriptor> openPrivateFolder(int at, const std::string& path) {
  const auto open = [&] { return Descriptor(::openat(at, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); };
  auto folder = open();
  if (!folder && errno == ENOENT) {
    makeFolders(at, path);
    folder = open();
  }
  struct stat status;
  if (!folder || ::fstat(folder.get(), &status) != 0) return failure(posixError(path));
  if (status.st_uid != ::geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return failure(Error(POSIX_ERROR_DOMAIN, EPERM, path + " belongs to others, or others can write to it"));
  return folder;
}

bool writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto count = ::write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

ThumbnailCache::ThumbnailCache(std::string folder, const std::string& version)
    : folder_(std::move(folder)),
      software_(std::string(PROGRAM) + version),
      failures_(fmt::format("{}/{}{}", FAILURES, PROGRAM_FAILURES, version)),
      subfolders_{KINDS[0].subfolder, KINDS[1].subfolder, KINDS[2].subfolder, failures_} {}

std::string ThumbnailCache::folderOf(const std::string& home, const std::optional<std::string>& cacheHome) {
  const bool isSet = cacheHome && cacheHome->starts_with('/');
  return (isSet ? *cacheHome : home + "/.cache") + "/thumbnails";
}

std::string ThumbnailCache::folderOfEnvironment(const std::string& home) {
  const char* cacheHome = std::getenv("XDG_CACHE_HOME");
  return folderOf(home, cacheHome ? std::optional<std::string>(cacheHome) : std::nullopt);
}

std::string ThumbnailCache::uriOf(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> uri(g_filename_to_uri(path.c_str(), nullptr, nullptr), g_free);
  return uri ? uri.get() : "";
}

bool ThumbnailCache::has(const ThumbnailSubject& subject) const {
  for (std::size_t i = 0; i < ALWAYS; ++i)
    if (!isValid(KINDS[i].subfolder, subject)) return false;
  return true;
}

bool ThumbnailCache::hasFailure(const ThumbnailSubject& subject) const {
  return isValid(failures_, subject);
}

// Some programs write the time with a fraction.
bool ThumbnailCache::isValid(const std::string& subfolder, const ThumbnailSubject& subject) const {
  const auto head = readStart(folder_ + "/" + subfolder + "/" + nameOf(subject.uri), png::HEAD_BYTES);
  const auto texts = head ? png::textsOf(*head) : std::nullopt;
  if (!texts) return false;
  const auto uri = texts->find(std::string(URI)), modified = texts->find(std::string(MODIFIED));
  return uri != texts->end() && uri->second == subject.uri && modified != texts->end() &&
         modified->second.substr(0, modified->second.find('.')) == std::to_string(subject.modified);
}

bool ThumbnailCache::isAcceptable(const ScaledPicture& picture) {
  if (picture.size() != std::size(KINDS)) return false;
  for (std::size_t i = 0; i < std::size(KINDS); ++i)
    if (!png::sizeOf(picture[i], static_cast<unsigned>(KINDS[i].side))) return false;
  return true;
}

// The largest first: when those are there that `has` looks for, all are.
Result<void> ThumbnailCache::store(const ThumbnailSubject& subject, const ScaledPicture& picture) const {
  const auto name = nameOf(subject.uri);
  for (std::size_t i = std::size(KINDS); i-- > 0;) {
    if (i >= ALWAYS && picture[i] == picture[i - 1]) {
      ::unlink((folder_ + "/" + KINDS[i].subfolder + "/" + name).c_str());
      continue;
    }
    if (auto written = write(KINDS[i].subfolder, name, textsOn(picture[i], subject)); !written) return written;
  }
  ::unlink((folder_ + "/" + failures_ + "/" + name).c_str());
  return {};
}

Result<void> ThumbnailCache::storeFailure(const ThumbnailSubject& subject) const {
  return write(failures_, nameOf(subject.uri), textsOn(png::onePixel(), subject));
}

std::string ThumbnailCache::textsOn(const std::string& png, const ThumbnailSubject& subject) const {
  return png::withTexts(png, {{std::string(URI), subject.uri},
                              {std::string(MODIFIED), std::to_string(subject.modified)},
                              {std::string(SIZE), std::to_string(subject.size)},
                              {std::string(SOFTWARE), software_}});
}

// Without fsync: it can be made again.
Result<void> ThumbnailCache::write(const std::string& subfolder, const std::string& name,
                                   const std::string& png) const {
  const auto top = openPrivateFolder(AT_FDCWD, folder_);
  if (!top) return failure(top.error());
  const auto folder = openPrivateFolder(top->get(), subfolder);
  if (!folder) return failure(folder.error());
  const auto path = fmt::format("{}/{}/{}", folder_, subfolder, name);
  const auto unfinished = std::string(UNFINISHED) + name;
  const Descriptor file(::openat(folder->get(), unfinished.c_str(),
                                 O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, PRIVATE_FILE));
  if (!file) return failure(posixError(path));
  if (writeAll(file.get(), png) && ::fchmod(file.get(), PRIVATE_FILE) == 0 &&
      ::renameat(folder->get(), unfinished.c_str(), folder->get(), name.c_str()) == 0)
    return {};
  const auto error = posixError(path);
  ::unlinkat(folder->get(), unfinished.c_str(), 0);
  return failure(error);
}

void ThumbnailCache::move(const std::string& uri, const std::string& newURI) const {
  const auto name = nameOf(uri), newName = nameOf(newURI);
  for (const auto& subfolder : subfolders_) {
    const auto path = fmt::format("{}/{}/{}", folder_, subfolder, name);
    const auto bytes = readStart(path, MAX_BYTES);
    if (!bytes) continue;
    if (const auto changed = png::withText(*bytes, URI, newURI)) [[maybe_unused]]
      const auto moved = write(subfolder, newName, *changed);
    ::unlink(path.c_str());
  }
}

void ThumbnailCache::remove(const std::string& uri) const {
  for (const auto& subfolder : subfolders_) ::unlink((folder_ + "/" + subfolder + "/" + nameOf(uri)).c_str());
}

void ThumbnailCache::removeOwn() const {
  for (const auto& entry : entries()) {
    const auto path = folder_ + "/" + entry;
    const auto head = readStart(path, png::HEAD_BYTES);
    const auto texts = head ? png::textsOf(*head) : std::nullopt;
    if (!texts) continue;
    const auto software = texts->find(std::string(SOFTWARE));
    if (software != texts->end() && software->second.starts_with(PROGRAM)) ::unlink(path.c_str());
  }
  std::vector<fs::path> failures;
  std::error_code error;
  for (fs::directory_iterator each(fmt::format("{}/{}", folder_, FAILURES), error), end; !error && each != end;
       each.increment(error))
    if (each->path().filename().native().starts_with(PROGRAM_FAILURES)) failures.push_back(each->path());
  for (const auto& folder : failures) fs::remove_all(folder, error);
}

std::vector<std::string> ThumbnailCache::entries() const {
  std::vector<std::string> entries;
  for (const auto& subfolder : subfolders_) {
    std::error_code error;
    for (fs::directory_iterator each(folder_ + "/" + subfolder, error), end; !error && each != end;
         each.increment(error))
      if (each->path().extension() == SUFFIX) entries.push_back(subfolder + "/" + each->path().filename().native());
  }
  return entries;
}

std::optional<std::string> ThumbnailCache::uriOfEntry(const std::string& entry) const {
  const auto head = readStart(folder_ + "/" + entry, png::HEAD_BYTES);
  auto texts = head ? png::textsOf(*head) : std::nullopt;
  if (!texts) return std::nullopt;
  auto uri = texts->extract(std::string(URI));
  return uri ? std::optional(std::move(uri.mapped())) : std::nullopt;
}

}  // namespace vondle
