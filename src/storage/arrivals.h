#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "base/mutex.h"

namespace vondle::storage {

// The bytes of bodies that are being received, which take an account's room before they are there. Any thread.
class Arrivals {
  struct Body {
    std::int64_t owner = 0;
    std::int64_t bytes = 0;
  };
  using Bodies = std::multimap<std::string, Body, std::less<>>;  // by key

 public:
  // Counts until the end of its life, which the arrivals must outlive.
  class Hold {
   public:
    Hold(Arrivals& arrivals, std::int64_t owner, std::string key, std::int64_t bytes);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    Arrivals& arrivals_;
    Bodies::iterator body_;
  };

  // What arrives for the account, except under this key. Transfers of one key count once, as the largest of them.
  [[nodiscard]] std::int64_t of(std::int64_t owner, std::string_view exceptKey) const EXCLUDES(lock_);

 private:
  mutable Mutex lock_;
  Bodies bodies_ GUARDED_BY(lock_);
};

}  // namespace vondle::storage
