#include "storage/store_pool.h"

#include <utility>

namespace vondle::storage {

StorePool::Lease::~Lease() {
  if (store_) pool_->giveBack(std::move(store_), isWriter_);
}

Result<std::unique_ptr<StorePool>> StorePool::open(const std::string& path) {
  auto writer = MetadataStore::open(path);
  if (!writer) return failure(std::move(writer.error()));
  return std::unique_ptr<StorePool>(new StorePool(path, std::make_unique<MetadataStore>(std::move(*writer))));
}

Result<StorePool::Lease> StorePool::reader() {
  {
    const MutexLock lock(lock_);
    if (!readers_.empty()) {
      auto store = std::move(readers_.back());
      readers_.pop_back();
      return Lease(*this, std::move(store), false);
    }
  }
  auto store = MetadataStore::open(path_);
  if (!store) return failure(std::move(store.error()));
  return Lease(*this, std::make_unique<MetadataStore>(std::move(*store)), false);
}

StorePool::Lease StorePool::writer() {
  MutexLock lock(lock_);
  while (!writer_) writerIsBack_.wait(lock_);
  return {*this, std::move(writer_), true};
}

void StorePool::giveBack(std::unique_ptr<MetadataStore> store, bool isWriter) {
  const MutexLock lock(lock_);
  if (!isWriter) {
    readers_.push_back(std::move(store));
    return;
  }
  writer_ = std::move(store);
  writerIsBack_.notify_one();
}

}  // namespace vondle::storage
