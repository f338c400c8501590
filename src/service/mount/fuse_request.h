#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/time.h"
#include "service/contents/content_file.h"
#include "service/contents/edited_file.h"
#include "service/inode.h"

namespace vondle {

// What the kernel learns about an item.
struct NodeAttributes {
  Inode inode = 0;
  bool isFolder = false;
  std::int64_t size = 0;
  Timestamp modified;
  unsigned permissions = 0;            // 0 to 0777
  bool isGone = false;                 // no name leads to it any more
  bool isVolatile = false;             // the kernel is to ask again each time
  bool areAttributesVolatile = false;  // for them, not for the name
};

struct SpaceStatistics {
  std::uint64_t blockSize = 4096;
  std::uint64_t blocks = 0;
  std::uint64_t freeBlocks = 0;
  std::uint64_t items = 0;
};

// The entries of a folder that fit into one answer.
class FolderPage {
 public:
  explicit FolderPage(std::size_t room) : bytes_(room, '\0') {}
  // False when the entry no longer fits. `next` is where to go on after it.
  bool add(const std::string& name, const NodeAttributes& attributes, std::int64_t next);
  [[nodiscard]] std::string_view bytes() const { return std::string_view(bytes_).substr(0, used_); }

 private:
  std::string bytes_;
  std::size_t used_ = 0;
};

class FuseChannel;

// A request of the kernel's, to be answered exactly once, from any thread, at any time; the answer consumes it. One
// that is destroyed unanswered fails with EIO, for the program behind it would hang.
class FuseRequest {
 public:
  FuseRequest(std::shared_ptr<FuseChannel> channel, void* request);  // libfuse's request
  FuseRequest(FuseRequest&& other) noexcept;
  FuseRequest& operator=(FuseRequest&&) = delete;
  ~FuseRequest();

  void fail(int errorNumber) &&;
  void succeed() &&;
  void answerEntry(const NodeAttributes& attributes) &&;
  void answerNoEntry() &&;  // the kernel remembers that the name leads nowhere
  void answerAttributes(const NodeAttributes& attributes) &&;
  void answerOpenedFolder(std::uint64_t handle) &&;
  // keepCache: what the kernel still has of the contents is still true. tellOfClosing: flush is wanted.
  void answerOpenedFile(bool keepCache, bool tellOfClosing) &&;
  void answerCreatedFile(const NodeAttributes& attributes, bool keepCache) &&;
  void answerContents(const ContentFile& file, std::int64_t offset, std::size_t size) &&;
  void answerContents(const EditedFile& file, std::int64_t offset, std::size_t size) &&;
  void answerBytes(std::string_view bytes) &&;
  void answerWritten(std::size_t bytes) &&;
  void answerFolder(const FolderPage& page) &&;
  void answerAttribute(std::string_view value, std::size_t room) &&;  // see FuseHandler::readAttribute
  void answerStatistics(const SpaceStatistics& statistics) &&;

  // The thread on whose behalf the kernel asks; 0 when that cannot be told.
  [[nodiscard]] int pid() const;

  // Called at most once, on another thread, when the program no longer wants the answer (which must still be given).
  void onInterrupt(std::function<void()> interrupted);

 private:
  void* take();
  void answerRange(int descriptor, std::int64_t end, std::int64_t offset, std::size_t size);

  std::shared_ptr<FuseChannel> channel_;
  void* request_;
  std::uint64_t interruptKey_ = 0;
};

}  // namespace vondle
