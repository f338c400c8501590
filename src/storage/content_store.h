#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/mutex.h"
#include "storage/arrivals.h"
#include "storage/crypto.h"

namespace vondle::storage {

// A file of the store, open for reading; it stays readable when it is removed meanwhile. Any thread.
class StoredFile {
 public:
  StoredFile(int descriptor, std::int64_t size) : descriptor_(descriptor), size_(size) {}
  ~StoredFile();
  StoredFile(const StoredFile&) = delete;
  StoredFile& operator=(const StoredFile&) = delete;

  [[nodiscard]] std::int64_t size() const { return size_; }
  // As many bytes as the file has there, up to the buffer's size; 0 at the end.
  Result<std::size_t> readAt(std::int64_t offset, std::span<char> buffer) const;

 private:
  int descriptor_;
  std::int64_t size_;
};

// The bytes of files and previews, in files named by their keys, two levels of folders deep. What stands under its key
// is whole and on the disk: bytes arrive in another folder and take their place by renaming. Any thread.
class ContentStore {
 public:
  enum class Kind { contents, thumb };

  // Bytes on their way into a file.
  class Body {
   public:
    virtual ~Body();
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    Result<void> write(std::string_view bytes);
    [[nodiscard]] std::int64_t size() const { return size_; }
    // No more bytes come: they are on the disk, still out of sight. Answers their SHA-256 in hexadecimal digits. With
    // `sync` false the caller sees to the disk with syncAll.
    Result<std::string> seal(bool sync = true);

   protected:
    explicit Body(int descriptor) : descriptor_(descriptor) {}
    // Writes what is buffered where it belongs: its end is `size` bytes into the body.
    virtual Result<void> flush(std::string_view buffered) = 0;
    [[nodiscard]] int descriptor() const { return descriptor_; }

   private:
    Result<void> flushAll();

    int descriptor_;
    std::int64_t size_ = 0;
    std::string buffer_;
    Sha256 hasher_;
  };

  // Contents or a preview on the way in; dropped unless placed.
  class Incoming final : public Body {
   public:
    ~Incoming() override;

    // Puts them under the key, in the place of earlier ones. After seal.
    Result<void> place(bool sync = true);
    // What was sealed, as StoredFile::readAt.
    Result<std::size_t> readAt(std::int64_t offset, std::span<char> buffer) const;

   private:
    friend class ContentStore;
    Incoming(std::string path, std::string target, int descriptor)
        : Body(descriptor), path_(std::move(path)), target_(std::move(target)) {}
    Result<void> flush(std::string_view buffered) override;

    std::string path_;
    std::string target_;
    bool placed_ = false;
  };

  // One part on its way into a file of several. A later transfer of the same part takes over: this one fails from then
  // on, and cannot mix its bytes with the other's.
  class IncomingPart final : public Body {
   public:
    [[nodiscard]] bool isCurrent() const;

   private:
    friend class ContentStore;
    struct Turn {
      Mutex lock;
      std::uint64_t holder GUARDED_BY(lock) = 0;
    };
    IncomingPart(std::shared_ptr<Turn> turn, int descriptor, std::int64_t offset);
    Result<void> flush(std::string_view buffered) override;

    std::shared_ptr<Turn> turn_;
    std::uint64_t ticket_;
    std::int64_t offset_;
  };

  // Makes the folders below `root` when they are missing and clears what a crash left of single uploads.
  static Result<ContentStore> open(const std::string& root);

  [[nodiscard]] Result<std::unique_ptr<Incoming>> receive(Kind kind, std::string_view key) const;
  [[nodiscard]] Result<std::unique_ptr<StoredFile>> read(Kind kind, std::string_view key) const;
  [[nodiscard]] bool has(Kind kind, std::string_view key) const;
  // Where they lie, for those who read them by themselves; the file may vanish at any time.
  [[nodiscard]] std::string pathOf(Kind kind, std::string_view key) const;
  // With the preview and the parts; what is not there is removed already.
  Result<void> remove(std::string_view key) const;

  // Contents that arrive in parts, in any order, into one file that is not visible under its key before assemble.
  // Part `number` starts at `offset`. Contents that were assembled and not made use of come out of sight again.
  Result<std::unique_ptr<IncomingPart>> receivePart(std::string_view key, std::int64_t number,
                                                    std::int64_t offset) const;
  Result<void> assemble(std::string_view key, std::int64_t size) const;

  // Of what is being received here now.
  [[nodiscard]] Arrivals& arrivals() const { return *arrivals_; }

  // Everything written so far is on the disk when this returns.
  Result<void> syncAll() const;

 private:
  struct Turns {
    Mutex lock;
    std::map<std::pair<std::string, std::int64_t>, std::weak_ptr<IncomingPart::Turn>> byPart GUARDED_BY(lock);
  };

  explicit ContentStore(std::string root)
      : root_(std::move(root)), turns_(std::make_unique<Turns>()), arrivals_(std::make_unique<Arrivals>()) {}
  [[nodiscard]] std::string partsPath(std::string_view key) const;

  std::string root_;
  std::unique_ptr<Turns> turns_;
  std::unique_ptr<Arrivals> arrivals_;
};

}  // namespace vondle::storage
