#include "testing/simulated_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vondle {
namespace {

std::unexpected<Error> posix(int errorNumber, const std::string& path) {
  return failure(Error::posix(errorNumber, path));
}

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Other spellings of a path would be other files here, and one file in earnest.
void requireCanonical(const std::string& path) {
  if (path.empty() || path == "/") return;
  const std::string whole = path + "/";
  if (path.front() == '/' && !whole.contains("//") && !whole.contains("/./") && !whole.contains("/../")) return;
  std::fprintf(stderr, "simulated files: not an absolute path in its plain form: %s\n", path.c_str());
  std::abort();
}

}  // namespace

struct SimulatedFiles::Node {
  bool isFolder = false;
  unsigned permissions = 0;
  Timestamp modified;
  std::string bytes;
};

class SimulatedFiles::Writer final : public WritableFile {
 public:
  Writer(SimulatedFiles& files, std::string path, NodePtr node)
      : files_(files), path_(std::move(path)), node_(std::move(node)) {}

  Result<void> write(std::span<const std::byte> bytes) override {
    if (closed_) return posix(EBADF, path_);
    if (auto begun = files_.begin(FileOperation::write, path_); !begun) return begun;
    if (auto taken = files_.takeSpace(path_, bytes.size()); !taken) return taken;
    node_->bytes.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    node_->modified = files_.clock_.now();
    return {};
  }

  Result<void> close() override {
    if (closed_) return posix(EBADF, path_);
    closed_ = true;
    return {};
  }

 private:
  SimulatedFiles& files_;
  const std::string path_;
  const NodePtr node_;
  bool closed_ = false;
};

class SimulatedFiles::Reader final : public ReadableFile {
 public:
  Reader(SimulatedFiles& files, std::string path, NodePtr node)
      : files_(files), path_(std::move(path)), node_(std::move(node)) {}

  Result<std::size_t> readAt(std::int64_t offset, std::span<std::byte> buffer) override {
    if (auto begun = files_.begin(FileOperation::read, path_); !begun) return failure(begun.error());
    if (offset < 0) return posix(EINVAL, path_);
    const std::string& bytes = node_->bytes;
    const std::size_t start = std::min(static_cast<std::size_t>(offset), bytes.size());
    const std::size_t length = std::min(buffer.size(), bytes.size() - start);
    std::memcpy(buffer.data(), bytes.data() + start, length);
    return length;
  }

 private:
  SimulatedFiles& files_;
  const std::string path_;
  const NodePtr node_;
};

SimulatedFiles::SimulatedFiles(const Clock& clock) : clock_(clock) {
  makeFolders(TEMPORARY_FOLDER);
  makeFolders(HOME);
}

SimulatedFiles::~SimulatedFiles() = default;

Result<std::string> SimulatedFiles::read(const std::string& path) {
  if (auto begun = begin(FileOperation::read, path); !begun) return failure(begun.error());
  const auto node = findReadable(path);
  if (!node) return failure(node.error());
  return (*node)->bytes;
}

Result<void> SimulatedFiles::writeAtomically(const std::string& path, std::string_view bytes, unsigned permissions) {
  if (auto begun = begin(FileOperation::write, path); !begun) return begun;
  const auto parent = findParent(path);
  if (!parent) return failure(parent.error());
  const auto old = find(path);
  if (old && (*old)->isFolder) return posix(EISDIR, path);
  if (auto taken = takeSpace(path, bytes.size()); !taken) return taken;
  names_[path] =
      std::make_shared<Node>(Node{false, old ? (*old)->permissions : permissions, clock_.now(), std::string(bytes)});
  return {};
}

Result<FileAttributes> SimulatedFiles::attributes(const std::string& path) {
  if (auto begun = begin(FileOperation::attributes, path); !begun) return failure(begun.error());
  const auto node = find(path);
  if (!node) return failure(node.error());
  return FileAttributes{static_cast<std::int64_t>((*node)->bytes.size()), (*node)->modified, (*node)->isFolder,
                        (*node)->permissions};
}

Result<void> SimulatedFiles::setPermissions(const std::string& path, unsigned permissions) {
  if (auto begun = begin(FileOperation::setPermissions, path); !begun) return begun;
  const auto node = find(path);
  if (!node) return failure(node.error());
  (*node)->permissions = permissions;
  return {};
}

Result<void> SimulatedFiles::remove(const std::string& path) {
  if (auto begun = begin(FileOperation::remove, path); !begun) return begun;
  if (const auto node = findFile(path); !node) return failure(node.error());
  if (const auto parent = findParent(path); !parent) return failure(parent.error());
  names_.erase(path);
  return {};
}

Result<void> SimulatedFiles::rename(const std::string& from, const std::string& to) {
  if (auto begun = begin(FileOperation::rename, from); !begun) return begun;
  const auto node = find(from);
  if (!node) return failure(node.error());
  if (const auto parent = findParent(to); !parent) return failure(parent.error());
  if (from == to) return {};
  const bool isFolder = (*node)->isFolder;
  if (const auto old = find(to)) {
    if (*old == *node) return {};  // two names of one file: POSIX does nothing
    if ((*old)->isFolder && !isFolder) return posix(EISDIR, to);
    if (!(*old)->isFolder && isFolder) return posix(ENOTDIR, to);
    if (isFolder && !list(to).empty()) return posix(ENOTEMPTY, to);
  }
  if (to.starts_with(from + "/")) return posix(EINVAL, to);
  std::map<std::string, NodePtr> moved;
  for (auto at = names_.lower_bound(from); at != names_.end();) {
    const bool within = at->first == from || at->first.starts_with(from + "/");
    if (!at->first.starts_with(from)) break;
    if (within) moved[to + at->first.substr(from.size())] = at->second;
    at = within ? names_.erase(at) : std::next(at);
  }
  for (auto& [path, what] : moved) names_[path] = std::move(what);
  return {};
}

Result<void> SimulatedFiles::hardLink(const std::string& from, const std::string& to) {
  if (auto begun = begin(FileOperation::hardLink, from); !begun) return begun;
  const auto node = find(from);
  if (!node) return failure(node.error());
  if ((*node)->isFolder) return posix(EPERM, from);
  if (const auto parent = findParent(to); !parent) return failure(parent.error());
  if (names_.contains(to)) return posix(EEXIST, to);
  names_[to] = *node;
  return {};
}

Result<void> SimulatedFiles::createFolder(const std::string& path) {
  if (auto begun = begin(FileOperation::createFolder, path); !begun) return begun;
  if (path.empty()) return posix(ENOENT, path);
  std::vector<std::string> missing;
  std::string at = path;
  for (; !names_.contains(at); at = parentOf(at)) missing.push_back(at);
  if (!names_.at(at)->isFolder) return posix(missing.empty() ? EEXIST : ENOTDIR, at);
  if (!missing.empty() && !(names_.at(at)->permissions & 0200)) return posix(EACCES, path);
  makeFolders(path);
  return {};
}

Result<std::unique_ptr<WritableFile>> SimulatedFiles::create(const std::string& path) {
  if (auto begun = begin(FileOperation::create, path); !begun) return failure(begun.error());
  auto node = makeFile(path, 0600);
  if (!node) return failure(node.error());
  return std::make_unique<Writer>(*this, path, *std::move(node));
}

Result<std::unique_ptr<ReadableFile>> SimulatedFiles::open(const std::string& path) {
  if (auto begun = begin(FileOperation::open, path); !begun) return failure(begun.error());
  auto node = findReadable(path);
  if (!node) return failure(node.error());
  return std::make_unique<Reader>(*this, path, *std::move(node));
}

Result<DiskSpace> SimulatedFiles::space(const std::string& path) {
  if (auto node = find(path); !node) return failure(node.error());
  return DiskSpace{.size = diskSize_, .free = std::min(freeSpace_.value_or(diskSize_), diskSize_)};
}

std::optional<std::string> SimulatedFiles::applicationGroupContainer(std::string_view group) {
  if (!containerAvailable_ || group.empty() || group.starts_with('.') || group.contains('/')) return std::nullopt;
  makeFolders(containerPath(group));
  return containerPath(group);
}

std::string SimulatedFiles::containerPath(std::string_view group) {
  return std::string(HOME) + "/.local/share/" + std::string(group);
}

void SimulatedFiles::put(const std::string& path, std::string_view bytes, unsigned permissions) {
  requireCanonical(path);
  makeFolders(parentOf(path));
  names_[path] = std::make_shared<Node>(Node{false, permissions, clock_.now(), std::string(bytes)});
}

std::optional<std::string> SimulatedFiles::contents(const std::string& path) const {
  const auto found = names_.find(path);
  if (found == names_.end() || found->second->isFolder) return std::nullopt;
  return found->second->bytes;
}

std::vector<std::string> SimulatedFiles::list(const std::string& folder) const {
  const std::string front = folder == "/" ? folder : folder + "/";
  std::vector<std::string> names;
  for (auto at = names_.upper_bound(front); at != names_.end() && at->first.starts_with(front); ++at)
    if (std::string name = at->first.substr(front.size()); !name.contains('/')) names.push_back(std::move(name));
  return names;
}

void SimulatedFiles::setModificationTime(const std::string& path, Timestamp modified) {
  names_.at(path)->modified = modified;
}

void SimulatedFiles::fail(FileOperation operation, const std::string& path, int errorNumber, int times) {
  faults_[{operation, path}] = {errorNumber, times};
}

int SimulatedFiles::count(FileOperation operation, const std::string& path) const {
  const auto found = counts_.find({operation, path});
  return found == counts_.end() ? 0 : found->second;
}

// Counts the operation, and fails it when a fault waits for it.
Result<void> SimulatedFiles::begin(FileOperation operation, const std::string& path) {
  requireCanonical(path);
  ++counts_[{operation, path}];
  const auto fault = faults_.find({operation, path});
  if (fault == faults_.end() || fault->second.left <= 0) return {};
  if (fault->second.left != ALWAYS) --fault->second.left;
  return posix(fault->second.errorNumber, path);
}

Result<SimulatedFiles::NodePtr> SimulatedFiles::find(const std::string& path) const {
  if (const auto found = names_.find(path); found != names_.end()) return found->second;
  if (path.empty()) return posix(ENOENT, path);
  std::string above = parentOf(path);
  while (!names_.contains(above)) above = parentOf(above);
  return posix(names_.at(above)->isFolder ? ENOENT : ENOTDIR, path);
}

Result<SimulatedFiles::NodePtr> SimulatedFiles::findFile(const std::string& path) const {
  auto node = find(path);
  if (node && (*node)->isFolder) return posix(EISDIR, path);
  return node;
}

Result<SimulatedFiles::NodePtr> SimulatedFiles::findReadable(const std::string& path) const {
  auto node = findFile(path);
  if (node && !((*node)->permissions & 0400)) return posix(EACCES, path);
  return node;
}

// The folder in which a name is about to appear or vanish.
Result<SimulatedFiles::NodePtr> SimulatedFiles::findParent(const std::string& path) const {
  requireCanonical(path);
  if (path.empty() || path == "/") return posix(path.empty() ? ENOENT : EBUSY, path);
  auto parent = find(parentOf(path));
  if (parent && !(*parent)->isFolder) return posix(ENOTDIR, path);
  if (parent && !((*parent)->permissions & 0200)) return posix(EACCES, path);
  return parent;
}

Result<SimulatedFiles::NodePtr> SimulatedFiles::makeFile(const std::string& path, unsigned permissions) {
  if (auto old = findFile(path); old) {
    if (!((*old)->permissions & 0200)) return posix(EACCES, path);
    (*old)->bytes.clear();
    (*old)->modified = clock_.now();
    return old;
  } else if (old.error().code != ENOENT) {
    return old;
  }
  if (auto parent = findParent(path); !parent) return parent;
  return names_[path] = std::make_shared<Node>(Node{false, permissions, clock_.now(), {}});
}

Result<void> SimulatedFiles::takeSpace(const std::string& path, std::size_t bytes) {
  if (!freeSpace_) return {};
  if (static_cast<std::int64_t>(bytes) > *freeSpace_) return posix(ENOSPC, path);
  *freeSpace_ -= static_cast<std::int64_t>(bytes);
  return {};
}

void SimulatedFiles::makeFolders(const std::string& path) {
  if (path != "/") makeFolders(parentOf(path));
  names_.try_emplace(path, std::make_shared<Node>(Node{true, 0700, clock_.now(), {}}));
}

}  // namespace vondle
