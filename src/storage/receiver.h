#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "storage/refusal.h"

namespace vondle::storage {

// Takes the body of one PUT, piece by piece, and says in the log what became of it. One thread at a time.
class Receiver {
 public:
  virtual ~Receiver();  // what was not finished is forgotten
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  Answer<void> write(std::string_view bytes);
  // The body is at its end; answers the ETag with its quotes. Refuses when more or less came than was announced.
  Answer<std::string> finish();

 protected:
  // `what`: the name of these bytes in the log. `length`: as announced.
  Receiver(std::string what, std::int64_t length) : what_(std::move(what)), length_(length) {}

  virtual Answer<void> take(std::string_view bytes) = 0;
  // All are here; answers the ETag.
  virtual Answer<std::string> accept() = 0;

 private:
  template <class T>
  Answer<T> logged(Answer<T> answer);

  const std::string what_;
  const std::int64_t length_;
  std::int64_t received_ = 0;
  bool ended_ = false;
};

}  // namespace vondle::storage
