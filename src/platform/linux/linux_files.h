#pragma once

#include <string>

#include "platform/files.h"
#include "platform/user_database.h"

namespace vondle {

// The machine's file system. What is not a regular file (a FIFO, say) is refused for reading with EINVAL, a folder with
// EISDIR, so that nothing ever waits for another program. Private data stands in the home that the user database tells,
// whatever $HOME says:
//   ~/.local/share/<group>/           an application group's container
//   ~/.local/share/vondle/temporary/  the temporary folder: on the disk, beside the contents that end there
class LinuxFiles final : public Files {
 public:
  explicit LinuxFiles(const UserDatabase& users) : users_(users) {}

  Result<std::string> read(const std::string& path) override;
  // A path that is a symbolic link stays one: what it leads to is replaced.
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
  std::string temporaryFolder() override;
  std::optional<std::string> applicationGroupContainer(std::string_view group) override;

 private:
  const UserDatabase& users_;
};

}  // namespace vondle
