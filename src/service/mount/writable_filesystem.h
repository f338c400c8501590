#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "service/edits/local_edits.h"
#include "service/mount/filesystem.h"

namespace vondle {

// A folder that programs can change. What they do is recorded as a local edit before they hear that it is done, and
// what they write goes to private files. A change waits, parked, for what it needs of the server: the listing of the
// folder, the contents of a file that it changes in part, or of one that it removes while programs have it open (so
// that they can go on reading; when the contents cannot be had, the file is removed all the same). All else is local.
class WritableFilesystem final : public Filesystem {
 public:
  WritableFilesystem(Tree& tree, FolderListing& listing, ContentStore& contents, std::shared_ptr<EditedContents> edited,
                     std::shared_ptr<LocalEdits> edits, const Clock& clock, std::function<void()> used = {});

  void open(FuseRequest request, Inode inode, OpenMode mode) override;
  void flush(FuseRequest request, Inode inode) override;
  void release(FuseRequest request, Inode inode, OpenMode mode) override;
  void create(FuseRequest request, Inode folder, std::string name, unsigned permissions, OpenMode mode,
              bool mayExist) override;
  void makeFile(FuseRequest request, Inode folder, std::string name, unsigned permissions) override;
  void makeFolder(FuseRequest request, Inode folder, std::string name, unsigned permissions) override;
  void removeFile(FuseRequest request, Inode folder, std::string name) override;
  void removeFolder(FuseRequest request, Inode folder, std::string name) override;
  void rename(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName,
              bool mayReplace) override;
  void change(FuseRequest request, Inode inode, const AttributeChange& change) override;
  void write(FuseRequest request, Inode inode, std::string_view data, std::int64_t offset, bool isAppend) override;
  void allocate(FuseRequest request, Inode inode, int mode, std::int64_t offset, std::int64_t length) override;
  void sync(FuseRequest request, Inode inode) override;

  // For who removes something in another way than those above: the folder is listed, and those who have the item open,
  // or something in it that is here, can go on reading when it is gone.
  using Removal = std::move_only_function<void(FuseRequest, const ItemAttributes&)>;
  void whenRemovable(FuseRequest request, Inode folder, std::string name, Removal next);

 private:
  using Next = std::move_only_function<void(WritableFilesystem&, FuseRequest)>;
  using Made = std::move_only_function<void(WritableFilesystem&, FuseRequest, const Result<ItemAttributes>&)>;
  // With leave to change the file while it runs.
  using Changing = std::move_only_function<void(WritableFilesystem&, FuseRequest, EditedFile&)>;

  [[nodiscard]] std::shared_ptr<WritableFilesystem> self();
  void whenListedHere(FuseRequest request, Inode folder, Next next);
  void whenWritable(FuseRequest request, Inode inode, bool keepsContents, Changing change);
  void requireWritable(Inode inode, bool keepsContents, const std::shared_ptr<Progress>& wait,
                       EditedContents::Answer answer);
  void copyOfGone(Inode inode, EditedContents::Answer answer);
  // Makes sure that those who have the file open can go on reading when it is gone.
  void whenKeptOpen(FuseRequest request, Inode inode, Next next);

  void keepOpenBelow(Inode folder);

  void make(FuseRequest request, Inode folder, std::string name, unsigned permissions, Made made);
  void answerCreated(FuseRequest request, const ItemAttributes& item, OpenMode mode);
  void openExisting(FuseRequest request, Inode folder, const std::string& name, OpenMode mode);
  void answerOpened(FuseRequest request, Inode inode, OpenMode mode);
  void moveEntry(FuseRequest request, Inode folder, const std::string& name, Inode toFolder, const std::string& toName,
                 bool mayReplace);

  // The steps of change.
  void changeSize(FuseRequest request, Inode inode, AttributeChange change);
  void changePermissions(FuseRequest request, Inode inode, const AttributeChange& change);
  void changeModified(FuseRequest request, Inode inode, const AttributeChange& change);
  void answerChanged(FuseRequest request, Inode inode);

  // Writes at the offset, or at the end.
  void put(FuseRequest request, Inode inode, EditedFile& file, std::string_view data, std::int64_t offset,
           bool isAppend);
  [[nodiscard]] Completion<Result<void>> answering(FuseRequest request);

  const std::shared_ptr<LocalEdits> edits_;
  const Clock& clock_;
};

}  // namespace vondle
