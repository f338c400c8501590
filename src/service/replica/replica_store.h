#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "fileprovider/item.h"
#include "platform/linux/sqlite.h"
#include "service/inode.h"

namespace vondle {

// The replica on disk: one SQLite row per item. What it keeps can be had again from the server, so a database that is
// damaged or of another version is made anew, and one that cannot be written is given up and removed, so that the next
// start does not believe it. One thread at a time, except readItem.
class ReplicaStore {
 public:
  // What the memory index needs of a row; the views live during the call only.
  struct Row {
    Inode inode = 0;
    Inode parent = 0;
    std::string_view identifier;
    std::string_view serverName;
    std::string_view localName;
    std::string_view contentVersion;
    std::int64_t size = 0;
    double modified = 0;
    std::uint32_t capabilities = 0;
    std::uint32_t fileSystemFlags = 0;
    ContentPolicy contentPolicy = ContentPolicy::inherited;
    bool isFolder = false;
    bool isListed = false;
  };

  struct Upsert {
    Inode inode = 0;
    Inode parent = 0;
    std::string localName;
    bool isListed = false;
    const Item* item = nullptr;
  };

  struct Move {  // or renaming, with no news of the item itself
    Inode inode = 0;
    Inode parent = 0;
    std::string localName;
    std::string serverName;
  };

  struct Batch {
    std::vector<Upsert> upserts;
    std::vector<Move> moves;
    std::vector<std::pair<Inode, bool>> listed;
    std::vector<Inode> removals;
    std::deque<Item> made = {};  // upserts may point here
    [[nodiscard]] bool isEmpty() const {
      return upserts.empty() && moves.empty() && listed.empty() && removals.empty();
    }
  };

  static Result<ReplicaStore> open(const std::string& path);

  struct Inodes {
    Inode first = 0;
    Inode last = 0;
  };
  // Those of the first row and of the last; none when there are no rows. An error means that the database is damaged.
  Result<std::optional<Inodes>> inodes();
  // The rows of these inodes, in their order. Opens the database once more for itself: any thread, while nothing is
  // written. An error means that the database is damaged.
  static Result<void> read(const std::string& path, Inodes inodes, const std::function<void(const Row&)>& take);
  // Inode numbers from here on have never been used.
  [[nodiscard]] Inode firstFreeInode() const { return reserved_; }
  // After it, numbers below `end` may be used, whatever happens then.
  void reserveInodes(Inode end);
  // All of it or nothing; a failure gives the database up. It survives the end of the process at once, and power loss
  // soon.
  void write(const Batch& batch);
  // Survives power loss when it returns, with everything written before.
  void writeDurably(const Batch& batch);
  // Of items that only this machine has.
  [[nodiscard]] std::vector<Inode> localItems();
  // As readItem, over the store's own connection.
  [[nodiscard]] Result<Item> item(Inode inode);
  // Closes and removes the database.
  void giveUp(const Error& error);
  [[nodiscard]] bool isGivenUp() const { return database_ == nullptr; }

  // Opens the database once more for itself. Any thread.
  [[nodiscard]] static Result<Item> readItem(const std::string& path, Inode inode);
  // Some of the root's children that the server knows. As readItem.
  [[nodiscard]] static Result<std::vector<std::string>> readSomeIdentifiers(const std::string& path, int limit);
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  static Result<ReplicaStore> openOnce(const std::string& path);
  explicit ReplicaStore(std::string path);
  Result<void> prepare();
  static Result<Item> itemIn(sqlite::Database& database, Inode inode);
  Result<void> tryWrite(const Batch& batch);

  std::string path_;
  // unique_ptrs: the statements must go first, and moving the store must not move the database under them.
  std::unique_ptr<sqlite::Database> database_;
  std::unique_ptr<sqlite::Statement> upsert_, move_, list_, remove_;
  Inode reserved_ = ROOT_INODE + 1;
};

}  // namespace vondle
