#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "storage/metadata_store.h"

namespace vondle::storage {

// Connections to one database for many threads: readers get one each and see whole transactions only; writers take
// turns. Any thread.
class StorePool {
 public:
  // Gives the connection back at the end of its life.
  class Lease {
   public:
    Lease(Lease&&) = default;
    Lease& operator=(Lease&&) = delete;
    ~Lease();
    MetadataStore& operator*() { return *store_; }
    MetadataStore* operator->() { return store_.get(); }

   private:
    friend class StorePool;
    Lease(StorePool& pool, std::unique_ptr<MetadataStore> store, bool isWriter)
        : pool_(&pool), store_(std::move(store)), isWriter_(isWriter) {}
    StorePool* pool_;
    std::unique_ptr<MetadataStore> store_;
    bool isWriter_;
  };

  static Result<std::unique_ptr<StorePool>> open(const std::string& path);

  Result<Lease> reader() EXCLUDES(lock_);
  Lease writer() EXCLUDES(lock_);

 private:
  StorePool(std::string path, std::unique_ptr<MetadataStore> writer)
      : path_(std::move(path)), writer_(std::move(writer)) {}
  void giveBack(std::unique_ptr<MetadataStore> store, bool isWriter) EXCLUDES(lock_);

  const std::string path_;
  Mutex lock_;
  ConditionVariable writerIsBack_;
  std::unique_ptr<MetadataStore> writer_ GUARDED_BY(lock_);  // null while lent
  std::vector<std::unique_ptr<MetadataStore>> readers_ GUARDED_BY(lock_);
};

}  // namespace vondle::storage
