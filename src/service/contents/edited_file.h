#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "base/error.h"
#include "base/mutex.h"
#include "base/time.h"

namespace vondle {

// A private file that programs write to, open for both. Its size and its time of modification are asked of the file
// system each time, so that they are always right. Any thread.
class EditedFile {
 public:
  // A new one, empty. EEXIST when the path is taken.
  static Result<std::shared_ptr<EditedFile>> make(std::string path, std::int64_t number);
  static Result<std::shared_ptr<EditedFile>> open(std::string path, std::int64_t number);
  // The file on disk goes too, unless it is kept.
  ~EditedFile();
  EditedFile(const EditedFile&) = delete;
  EditedFile& operator=(const EditedFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::int64_t number() const { return number_; }
  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] std::int64_t size() const;
  [[nodiscard]] Timestamp modified() const;
  // UTIME_NOW means now.
  void setModified(const timespec& modified);

  // Leave to change the file, which no sending begins under; none while it is being sent.
  class Lease {
   public:
    explicit Lease(EditedFile& file) : file_(file.beginWrite() ? &file : nullptr) {}
    ~Lease() {
      if (file_) file_->endWrite();
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    explicit operator bool() const { return file_ != nullptr; }

   private:
    EditedFile* const file_;
  };

  // From here to thaw nobody gets a lease. False when somebody has one, or it is frozen already.
  [[nodiscard]] bool freeze() EXCLUDES(lock_);
  void thaw() EXCLUDES(lock_);
  [[nodiscard]] bool isFrozen() const EXCLUDES(lock_);

  // A program has changed it (isContents), or closed it after that.
  void noteUse(MonotonicTime now, bool isContents) EXCLUDES(lock_);
  [[nodiscard]] MonotonicTime lastUse() const EXCLUDES(lock_);
  // Whether it has changed since this was last asked.
  [[nodiscard]] bool takeChange() EXCLUDES(lock_);

  // The file on disk stays when this goes, or goes after all; also when the process is killed, see isDoneWith.
  void keep(bool isKept = true) EXCLUDES(lock_);
  // Nothing needs the file on disk any more, though it stays for now.
  void markDoneWith();
  // Whether the file may be removed although nobody knows what it was: it was never kept, or marked. Nobody executes a
  // private file, so that is what its owner's right to do so says. False when there is no such file.
  static bool isDoneWith(const std::string& path);

 private:
  EditedFile(std::string path, std::int64_t number, int descriptor, bool isKept)
      : path_(std::move(path)), number_(number), descriptor_(descriptor), isKept_(isKept) {}
  [[nodiscard]] bool beginWrite() EXCLUDES(lock_);
  void endWrite() EXCLUDES(lock_);

  const std::string path_;
  const std::int64_t number_;
  const int descriptor_;
  mutable Mutex lock_;
  int leases_ GUARDED_BY(lock_) = 0;
  bool isFrozen_ GUARDED_BY(lock_) = false;
  bool isKept_ GUARDED_BY(lock_);
  bool hasChanged_ GUARDED_BY(lock_) = false;
  MonotonicTime lastUse_ GUARDED_BY(lock_);
};

}  // namespace vondle
