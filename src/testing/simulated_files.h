#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/files.h"

namespace vondle {

// What a fault of SimulatedFiles hits, and what its counters count. `write` is writeAtomically and each write to a file
// from create; a rename or hard link counts for the path it starts from.
enum class FileOperation {
  read,
  write,
  attributes,
  setPermissions,
  remove,
  rename,
  hardLink,
  createFolder,
  create,
  open
};

// A file system in memory with errno's rules, times from the clock given, faults and counters. One thread. At first
// there are "/", the temporary folder and the home folder. Unlike a root user's process, it heeds permissions.
class SimulatedFiles final : public Files {
 public:
  static constexpr int ALWAYS = std::numeric_limits<int>::max();
  static constexpr const char* HOME = "/home/tester";
  static constexpr const char* TEMPORARY_FOLDER = "/tmp";

  explicit SimulatedFiles(const Clock& clock);
  ~SimulatedFiles() override;

  Result<std::string> read(const std::string& path) override;
  Result<void> writeAtomically(const std::string& path, std::string_view bytes, unsigned permissions = 0600) override;
  Result<FileAttributes> attributes(const std::string& path) override;
  Result<void> setPermissions(const std::string& path, unsigned permissions) override;
  Result<void> remove(const std::string& path) override;
  Result<void> rename(const std::string& from, const std::string& to) override;
  Result<void> hardLink(const std::string& from, const std::string& to) override;
  Result<void> createFolder(const std::string& path) override;
  Result<std::unique_ptr<WritableFile>> create(const std::string& path) override;
  Result<std::unique_ptr<ReadableFile>> open(const std::string& path) override;
  Result<DiskSpace> space(const std::string& path) override;
  std::string temporaryFolder() override { return TEMPORARY_FOLDER; }
  std::optional<std::string> applicationGroupContainer(std::string_view group) override;

  // The test's hand, neither counted nor hit by faults.
  void put(const std::string& path, std::string_view bytes, unsigned permissions = 0600);  // with the folders above
  [[nodiscard]] std::optional<std::string> contents(const std::string& path) const;        // of a file
  [[nodiscard]] std::vector<std::string> list(const std::string& folder) const;            // names, sorted
  void setModificationTime(const std::string& path, Timestamp modified);
  // The container's path; says nothing of whether it exists.
  [[nodiscard]] static std::string containerPath(std::string_view group);

  // The next `times` such operations on the path fail with the error number; the last call for both counts.
  void fail(FileOperation operation, const std::string& path, int errorNumber, int times = 1);
  // After that many more bytes every write fails with ENOSPC; none: room without end.
  void setFreeSpace(std::optional<std::int64_t> bytes) { freeSpace_ = bytes; }
  void setDiskSize(std::int64_t bytes) { diskSize_ = bytes; }
  void setContainerAvailable(bool available) { containerAvailable_ = available; }

  [[nodiscard]] int count(FileOperation operation, const std::string& path) const;
  [[nodiscard]] int readCount(const std::string& path) const { return count(FileOperation::read, path); }
  [[nodiscard]] int writeCount(const std::string& path) const { return count(FileOperation::write, path); }
  [[nodiscard]] int attributesCount(const std::string& path) const { return count(FileOperation::attributes, path); }

 private:
  struct Node;  // what an inode is: names may share one, open files keep theirs
  class Writer;
  class Reader;
  struct Fault {
    int errorNumber;
    int left;
  };
  using NodePtr = std::shared_ptr<Node>;
  using Key = std::pair<FileOperation, std::string>;

  Result<void> begin(FileOperation operation, const std::string& path);
  Result<NodePtr> find(const std::string& path) const;
  Result<NodePtr> findFile(const std::string& path) const;
  Result<NodePtr> findParent(const std::string& path) const;
  Result<NodePtr> findReadable(const std::string& path) const;
  Result<NodePtr> makeFile(const std::string& path, unsigned permissions);
  Result<void> takeSpace(const std::string& path, std::size_t bytes);
  void makeFolders(const std::string& path);

  const Clock& clock_;
  std::map<std::string, NodePtr> names_;
  std::map<Key, Fault> faults_;
  std::map<Key, int> counts_;
  std::optional<std::int64_t> freeSpace_;
  std::int64_t diskSize_ = std::int64_t{1} << 40;
  bool containerAvailable_ = true;
};

}  // namespace vondle
