#include "storage/receiver.h"

#include <utility>

#include "platform/log.h"

namespace vondle::storage {
namespace {

constexpr Log slog("com.ferrow.vondle.storage", "transfers");

}  // namespace

Receiver::~Receiver() {
  if (!ended_) slog.info("%{public}@ broke off after %lld of %lld bytes", what_, received_, length_);
}

Answer<void> Receiver::write(std::string_view bytes) {
  received_ += static_cast<std::int64_t>(bytes.size());
  if (received_ > length_) return logged<void>(refuse(400, "the body is longer than announced"));
  return logged(take(bytes));
}

Answer<std::string> Receiver::finish() {
  if (received_ < length_) return logged<std::string>(refuse(400, "the body is shorter than announced"));
  auto tag = logged(accept());
  ended_ = true;
  if (tag) slog.info("received %{public}@: %lld bytes", what_, length_);
  return tag;
}

template <class T>
Answer<T> Receiver::logged(Answer<T> answer) {
  if (!answer) {
    ended_ = true;
    slog.info("refused %{public}@: %d %{public}@", what_, answer.error().status, answer.error().text);
  }
  return answer;
}

}  // namespace vondle::storage
