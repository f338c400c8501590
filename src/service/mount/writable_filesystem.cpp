#include "service/mount/writable_filesystem.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "service/error_number.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

// 0 or the number for errno of a name that nothing can have.
int numberForName(const std::string& name) {
  const auto problem = nameProblem(name);
  if (problem == NameProblem::tooLong) return ENAMETOOLONG;
  return problem == NameProblem::notUTF8 ? EILSEQ : 0;
}

bool mayBeWritten(const ItemAttributes& item) {
  return (item.capabilities & ALLOWS_WRITING) != 0;
}

}  // namespace

WritableFilesystem::WritableFilesystem(Tree& tree, FolderListing& listing, ContentStore& contents,
                                       std::shared_ptr<EditedContents> edited, std::shared_ptr<LocalEdits> edits,
                                       const Clock& clock, std::function<void()> used)
    : Filesystem(tree, listing, contents, std::move(edited), clock, std::move(used)),
      edits_(std::move(edits)),
      clock_(clock) {}

std::shared_ptr<WritableFilesystem> WritableFilesystem::self() {
  return std::static_pointer_cast<WritableFilesystem>(shared_from_this());
}

void WritableFilesystem::whenListedHere(FuseRequest request, Inode folder, Next next) {
  auto shared = std::make_shared<Next>(std::move(next));
  whenListed(std::move(request), folder, [shared = std::move(shared)](Filesystem& self, FuseRequest listed) {
    (*shared)(static_cast<WritableFilesystem&>(self), std::move(listed));
  });
}

Completion<Result<void>> WritableFilesystem::answering(FuseRequest request) {
  return [request = std::move(request)](const Result<void>& result) mutable {
    if (result)
      std::move(request).succeed();
    else
      std::move(request).fail(errorNumber(result.error()));
  };
}

// Opening and making

void WritableFilesystem::open(FuseRequest request, Inode inode, OpenMode mode) {
  if (!mode.writes && !mode.truncates) return Filesystem::open(std::move(request), inode, mode);
  if (!begin(request)) return;
  const auto item = tree_.replica().attributes(inode);
  if (!item) return std::move(request).fail(ENOENT);
  if (item->isFolder) return std::move(request).fail(EISDIR);
  if (!mayBeWritten(*item)) return std::move(request).fail(EACCES);
  if (!mode.truncates) return answerOpened(std::move(request), inode, mode);
  whenWritable(std::move(request), inode, false,
               [inode, mode](WritableFilesystem& self, FuseRequest emptied, EditedFile& file) {
                 if (::ftruncate(file.descriptor(), 0) != 0) return std::move(emptied).fail(errno);
                 file.noteUse(self.clock_.monotonic(), true);
                 self.answerOpened(std::move(emptied), inode, mode);
               });
}

void WritableFilesystem::answerOpened(FuseRequest request, Inode inode, OpenMode mode) {
  const auto item = tree_.replica().attributes(inode);
  if (!item) return std::move(request).fail(ENOENT);
  const bool keepCache = noteOpened(*item, contents_.current(inode));
  if (mode.writes) edited_->openedForWriting(inode);
  std::move(request).answerOpenedFile(keepCache, true);
}

void WritableFilesystem::create(FuseRequest request, Inode folder, std::string name, unsigned permissions,
                                OpenMode mode, bool mayExist) {
  make(std::move(request), folder, name, permissions,
       [folder, name, mode, mayExist](WritableFilesystem& self, FuseRequest made, const Result<ItemAttributes>& item) {
         if (item) return self.answerCreated(std::move(made), *item, mode);
         const int number = errorNumber(item.error());
         if (number == EEXIST && mayExist) return self.openExisting(std::move(made), folder, name, mode);
         std::move(made).fail(number);
       });
}

void WritableFilesystem::makeFile(FuseRequest request, Inode folder, std::string name, unsigned permissions) {
  make(std::move(request), folder, std::move(name), permissions,
       [](WritableFilesystem& self, FuseRequest made, const Result<ItemAttributes>& item) {
         if (!item) return std::move(made).fail(errorNumber(item.error()));
         std::move(made).answerEntry(self.nodeOf(*item));
       });
}

void WritableFilesystem::make(FuseRequest request, Inode folder, std::string name, unsigned permissions, Made made) {
  if (!begin(request)) return;
  if (const int number = numberForName(name); number != 0) return std::move(request).fail(number);
  whenListedHere(std::move(request), folder,
                 [folder, name = std::move(name), permissions, made = std::move(made)](WritableFilesystem& listed,
                                                                                       FuseRequest ready) mutable {
                   auto file = listed.edited_->makeEmpty();
                   if (!file) return std::move(ready).fail(errorNumber(file.error()));
                   listed.edits_->createFile(folder, std::move(name), (*file)->number(), permissions,
                                             [self = listed.self(), request = std::move(ready), file = *file,
                                              made = std::move(made)](const Result<ItemAttributes>& item) mutable {
                                               if (item) self->edited_->keep(item->inode, file);
                                               made(*self, std::move(request), item);
                                             });
                 });
}

void WritableFilesystem::answerCreated(FuseRequest request, const ItemAttributes& item, OpenMode mode) {
  const bool keepCache = noteOpened(item, nullptr);
  if (mode.writes) edited_->openedForWriting(item.inode);
  std::move(request).answerCreatedFile(nodeOf(item), keepCache);
}

// The kernel did not know of it.
void WritableFilesystem::openExisting(FuseRequest request, Inode folder, const std::string& name, OpenMode mode) {
  const auto item = tree_.replica().lookup(folder, name);
  if (!item) return std::move(request).fail(ENOENT);
  if (item->isFolder) return std::move(request).fail(EISDIR);
  if ((mode.writes || mode.truncates) && !mayBeWritten(*item)) return std::move(request).fail(EACCES);
  if (!mode.truncates) return answerCreated(std::move(request), *item, mode);
  whenWritable(std::move(request), item->inode, false,
               [item = *item, mode](WritableFilesystem& self, FuseRequest emptied, EditedFile& file) {
                 if (::ftruncate(file.descriptor(), 0) != 0) return std::move(emptied).fail(errno);
                 file.noteUse(self.clock_.monotonic(), true);
                 self.answerCreated(std::move(emptied), item, mode);
               });
}

void WritableFilesystem::makeFolder(FuseRequest request, Inode folder, std::string name, unsigned permissions) {
  if (!begin(request)) return;
  if (const int number = numberForName(name); number != 0) return std::move(request).fail(number);
  whenListedHere(std::move(request), folder,
                 [folder, name = std::move(name), permissions](WritableFilesystem& listed, FuseRequest ready) mutable {
                   listed.edits_->createFolder(
                       folder, std::move(name), permissions,
                       [self = listed.self(), request = std::move(ready)](const Result<ItemAttributes>& made) mutable {
                         if (!made) return std::move(request).fail(errorNumber(made.error()));
                         std::move(request).answerEntry(self->nodeOf(*made));
                       });
                 });
}

// Removing and renaming

void WritableFilesystem::removeFile(FuseRequest request, Inode folder, std::string name) {
  if (!begin(request)) return;
  whenListedHere(std::move(request), folder,
                 [folder, name = std::move(name)](WritableFilesystem& listed, FuseRequest ready) mutable {
                   const auto item = listed.tree_.replica().lookup(folder, name);
                   if (!item) return std::move(ready).fail(ENOENT);
                   if (item->isFolder) return std::move(ready).fail(EISDIR);
                   listed.whenKeptOpen(std::move(ready), item->inode,
                                       [folder, name = std::move(name)](WritableFilesystem& self, FuseRequest kept) {
                                         self.edits_->removeFile(folder, name, self.answering(std::move(kept)));
                                       });
                 });
}

void WritableFilesystem::removeFolder(FuseRequest request, Inode folder, std::string name) {
  if (!begin(request)) return;
  whenListedHere(std::move(request), folder,
                 [folder, name = std::move(name)](WritableFilesystem& listed, FuseRequest ready) mutable {
                   const auto item = listed.tree_.replica().lookup(folder, name);
                   if (!item) return std::move(ready).fail(ENOENT);
                   // Which answers ENOTDIR. Only a folder that is known to be empty goes.
                   listed.whenListedHere(std::move(ready), item->inode,
                                         [folder, name = std::move(name)](WritableFilesystem& self, FuseRequest known) {
                                           self.edits_->removeFolder(folder, name, self.answering(std::move(known)));
                                         });
                 });
}

void WritableFilesystem::rename(FuseRequest request, Inode folder, std::string name, Inode toFolder, std::string toName,
                                bool mayReplace) {
  if (!begin(request)) return;
  if (const int number = numberForName(toName); number != 0) return std::move(request).fail(number);
  whenListedHere(std::move(request), folder,
                 [folder, name = std::move(name), toFolder, toName = std::move(toName), mayReplace](
                     WritableFilesystem& listed, FuseRequest ready) mutable {
                   listed.whenListedHere(std::move(ready), toFolder,
                                         [folder, name = std::move(name), toFolder, toName = std::move(toName),
                                          mayReplace](WritableFilesystem& self, FuseRequest both) {
                                           self.moveEntry(std::move(both), folder, name, toFolder, toName, mayReplace);
                                         });
                 });
}

void WritableFilesystem::moveEntry(FuseRequest request, Inode folder, const std::string& name, Inode toFolder,
                                   const std::string& toName, bool mayReplace) {
  const auto item = tree_.replica().lookup(folder, name);
  if (!item) return std::move(request).fail(ENOENT);
  const auto replaced = tree_.replica().lookup(toFolder, toName);
  const auto go = [folder, name, toFolder, toName, mayReplace](WritableFilesystem& self, FuseRequest ready) {
    self.edits_->rename(folder, name, toFolder, toName, mayReplace, self.answering(std::move(ready)));
  };
  // What is refused anyway need not be fetched.
  if (!replaced || !mayReplace || replaced->inode == item->inode || replaced->isFolder != item->isFolder)
    return go(*this, std::move(request));
  if (replaced->isFolder) return whenListedHere(std::move(request), replaced->inode, go);
  whenKeptOpen(std::move(request), replaced->inode, go);
}

void WritableFilesystem::whenKeptOpen(FuseRequest request, Inode inode, Next next) {
  if (!isOpen(inode)) return next(*this, std::move(request));
  if (auto file = edited_->find(inode)) {
    keepOpen(inode, std::move(file));
    return next(*this, std::move(request));
  }
  if (auto file = contents_.current(inode)) {
    keepOpen(inode, std::move(file));
    return next(*this, std::move(request));
  }
  auto wait = Progress::make();
  const auto number = park(request, wait);
  contents_.require(inode, VIEWER, wait,
                    [self = self(), request = std::move(request), inode, next = std::move(next),
                     number](const Result<std::shared_ptr<const ContentFile>>& result) mutable {
                      const int errorNumber = self->unpark(number, result ? nullptr : &result.error());
                      if (errorNumber == EINTR || errorNumber == ENOTCONN) return std::move(request).fail(errorNumber);
                      if (result) self->keepOpen(inode, *result);
                      next(*self, std::move(request));
                    });
}

void WritableFilesystem::whenRemovable(FuseRequest request, Inode folder, std::string name, Removal next) {
  if (!begin(request)) return;
  whenListedHere(
      std::move(request), folder,
      [folder, name = std::move(name), next = std::move(next)](WritableFilesystem& listed, FuseRequest ready) mutable {
        const auto item = listed.tree_.replica().lookup(folder, name);
        if (!item) return std::move(ready).fail(ENOENT);
        if (item->isFolder) listed.keepOpenBelow(item->inode);
        listed.whenKeptOpen(std::move(ready), item->inode,
                            [item = *item, next = std::move(next)](WritableFilesystem&, FuseRequest kept) mutable {
                              next(std::move(kept), item);
                            });
      });
}

void WritableFilesystem::keepOpenBelow(Inode folder) {
  for (const Inode inode : openInodes()) {
    if (!tree_.replica().isAtOrAbove(folder, inode)) continue;
    edited_->tellOfChange(inode);
    if (auto file = edited_->find(inode))
      keepOpen(inode, std::move(file));
    else if (auto fetched = contents_.current(inode))
      keepOpen(inode, std::move(fetched));
  }
}

// Writing

void WritableFilesystem::write(FuseRequest request, Inode inode, std::string_view data, std::int64_t offset,
                               bool isAppend) {
  if (!begin(request)) return;
  if (const auto file = editedFor(inode)) {
    const EditedFile::Lease lease(*file);
    if (lease) return put(std::move(request), inode, *file, data, offset, isAppend);
  }
  whenWritable(std::move(request), inode, true,
               [inode, kept = std::string(data), offset, isAppend](WritableFilesystem& self, FuseRequest ready,
                                                                   EditedFile& file) {
                 self.put(std::move(ready), inode, file, kept, offset, isAppend);
               });
}

void WritableFilesystem::put(FuseRequest request, Inode inode, EditedFile& file, std::string_view data,
                             std::int64_t offset, bool isAppend) {
  const auto place = isAppend ? file.size() : offset;
  const auto count = ::pwrite(file.descriptor(), data.data(), data.size(), place);
  if (count < 0) return std::move(request).fail(errno);
  file.noteUse(clock_.monotonic(), true);
  std::move(request).answerWritten(static_cast<std::size_t>(count));
  // The kernel took the file to end elsewhere, and has cached the bytes there.
  if (place != offset) tellContents(inode);
}

void WritableFilesystem::allocate(FuseRequest request, Inode inode, int mode, std::int64_t offset,
                                  std::int64_t length) {
  if (!begin(request)) return;
  const int what = mode & ~FALLOC_FL_KEEP_SIZE;
  if (what != 0 && what != FALLOC_FL_PUNCH_HOLE && what != FALLOC_FL_ZERO_RANGE)
    return std::move(request).fail(EOPNOTSUPP);
  whenWritable(std::move(request), inode, true,
               [mode, offset, length](WritableFilesystem& self, FuseRequest ready, EditedFile& file) {
                 if (::fallocate(file.descriptor(), mode, offset, length) != 0) return std::move(ready).fail(errno);
                 file.noteUse(self.clock_.monotonic(), true);
                 std::move(ready).succeed();
               });
}

void WritableFilesystem::whenWritable(FuseRequest request, Inode inode, bool keepsContents, Changing change) {
  if (const auto file = editedFor(inode)) {
    const EditedFile::Lease lease(*file);
    if (lease) return change(*this, std::move(request), *file);
  }
  auto wait = Progress::make();
  const int pid = request.pid();
  const auto number = park(request, wait);
  holdsPages(inode, number, pid);
  const bool wasThere = tree_.replica().attributes(inode).has_value();
  requireWritable(inode, keepsContents, wait,
                  [self = self(), request = std::move(request), inode, keepsContents, change = std::move(change),
                   number, wasThere](const Result<std::shared_ptr<EditedFile>>& result) mutable {
                    const int errorNumber = self->unpark(number, result ? nullptr : &result.error());
                    // It was removed meanwhile, but the program has it open.
                    const bool isGoneNow = wasThere && !self->tree_.replica().attributes(inode) && self->isOpen(inode);
                    if (result) self->noteEdited(inode);
                    if (result || (isGoneNow && errorNumber != EINTR && errorNumber != ENOTCONN))
                      self->whenWritable(std::move(request), inode, keepsContents, std::move(change));
                    else
                      std::move(request).fail(errorNumber);
                    self->letsGoOfPages(inode, number);
                  });
}

void WritableFilesystem::requireWritable(Inode inode, bool keepsContents, const std::shared_ptr<Progress>& wait,
                                         EditedContents::Answer answer) {
  if (tree_.replica().attributes(inode))
    edited_->require(inode, keepsContents, VIEWER, wait, std::move(answer));
  else
    copyOfGone(inode, std::move(answer));
}

// Programs that have it open go on in a copy of their own.
void WritableFilesystem::copyOfGone(Inode inode, EditedContents::Answer answer) {
  const auto [file, edited] = keptOpen(inode);
  if (!file && !edited) return std::move(answer)(failure(Error::posix(ENOENT, "the file is gone")));
  const int descriptor = edited ? edited->descriptor() : file->descriptor();
  auto source = edited ? std::shared_ptr<const void>(edited) : std::shared_ptr<const void>(file);
  edited_->copy(std::move(source), descriptor,
                [self = self(), inode, before = edited,
                 answer = std::move(answer)](const Result<std::shared_ptr<EditedFile>>& copied) mutable {
                  // Another may have been quicker.
                  if (copied && self->keptOpen(inode).edited == before) self->keepOpen(inode, *copied);
                  std::move(answer)(copied);
                });
}

// Attributes

void WritableFilesystem::change(FuseRequest request, Inode inode, const AttributeChange& change) {
  if (!begin(request)) return;
  changeSize(std::move(request), inode, change);
}

void WritableFilesystem::changeSize(FuseRequest request, Inode inode, AttributeChange change) {
  if (!change.size) return changePermissions(std::move(request), inode, change);
  const auto item = tree_.replica().attributes(inode);
  if (item && !mayBeWritten(*item)) return std::move(request).fail(EACCES);
  if (item && item->size == *change.size && !editedFor(inode)) {
    // As it is already; a program that sets the size has modified the file all the same.
    if (!change.modified) change.modified = timespec{.tv_sec = 0, .tv_nsec = UTIME_NOW};
    return changePermissions(std::move(request), inode, change);
  }
  whenWritable(std::move(request), inode, *change.size > 0,
               [inode, change](WritableFilesystem& self, FuseRequest ready, EditedFile& file) {
                 if (::ftruncate(file.descriptor(), *change.size) != 0) return std::move(ready).fail(errno);
                 file.noteUse(self.clock_.monotonic(), true);
                 self.changePermissions(std::move(ready), inode, change);
               });
}

void WritableFilesystem::changePermissions(FuseRequest request, Inode inode, const AttributeChange& change) {
  const auto item = tree_.replica().attributes(inode);
  if (!change.permissions || !item || item->permissions == *change.permissions)
    return changeModified(std::move(request), inode, change);
  edits_->setPermissions(
      inode, *change.permissions,
      [self = self(), request = std::move(request), inode, change](const Result<ItemAttributes>& result) mutable {
        if (!result) return std::move(request).fail(errorNumber(result.error()));
        self->changeModified(std::move(request), inode, change);
      });
}

void WritableFilesystem::changeModified(FuseRequest request, Inode inode, const AttributeChange& change) {
  if (!change.modified) return answerChanged(std::move(request), inode);
  const auto file = editedFor(inode);
  if (file) file->setModified(*change.modified);
  if (!tree_.replica().attributes(inode)) return answerChanged(std::move(request), inode);
  Timestamp modified = clock_.now();
  if (file)
    modified = file->modified();
  else if (change.modified->tv_nsec != UTIME_NOW)
    modified = {static_cast<double>(change.modified->tv_sec) + static_cast<double>(change.modified->tv_nsec) / 1e9};
  edits_->setModified(
      inode, modified,
      [self = self(), request = std::move(request), inode](const Result<ItemAttributes>& result) mutable {
        if (!result) return std::move(request).fail(errorNumber(result.error()));
        self->answerChanged(std::move(request), inode);
      });
}

void WritableFilesystem::answerChanged(FuseRequest request, Inode inode) {
  edited_->tellOfChange(inode);
  if (const auto node = nodeFor(inode))
    std::move(request).answerAttributes(*node);
  else
    std::move(request).fail(ENOENT);
}

// Closing and synchronising

void WritableFilesystem::flush(FuseRequest request, Inode inode) {
  edited_->tellOfChange(inode);
  Filesystem::flush(std::move(request), inode);
}

void WritableFilesystem::release(FuseRequest request, Inode inode, OpenMode mode) {
  if (mode.writes) {
    edited_->tellOfChange(inode);
    edited_->closedForWriting(inode);
  }
  Filesystem::release(std::move(request), inode, mode);
}

void WritableFilesystem::sync(FuseRequest request, Inode inode) {
  if (!begin(request)) return;
  edited_->tellOfChange(inode);
  edited_->makeDurable(editedFor(inode), answering(std::move(request)));
}

}  // namespace vondle
