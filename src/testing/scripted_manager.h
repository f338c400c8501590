#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fileprovider/domain.h"
#include "fileprovider/error_codes.h"
#include "platform/scheduler.h"

namespace vondle {

// A service that knows the items the test tells it of. Answers come on the queue, when the answer's delay has passed.
class ScriptedManager final : public Manager {
 public:
  explicit ScriptedManager(Queue& queue) : queue_(queue) {}

  // The item is seen at the path; asked for the path, the service may name another identifier.
  void place(const std::string& identifier, const std::string& path) { place(identifier, path, identifier); }
  void place(const std::string& identifier, const std::string& path, const std::string& identifierThere) {
    paths_[identifier] = path;
    identifiers_[path] = identifierThere;
  }
  void forgetPath(const std::string& path) { identifiers_.erase(path); }
  void setDelay(Duration delay) { delay_ = delay; }
  void refuseEvictions(Error error) { evictionError_ = std::move(error); }

  [[nodiscard]] const std::vector<std::string>& evicted() const { return evicted_; }
  [[nodiscard]] const std::vector<std::string>& signalled() const { return signalled_; }

  void signalEnumerator(ItemIdentifier container, Completion<std::optional<Error>> completion) override {
    signalled_.push_back(container.text);
    answer(std::move(completion), std::optional<Error>());
  }
  void evictItem(ItemIdentifier identifier, Completion<std::optional<Error>> completion) override {
    evicted_.push_back(identifier.text);
    answer(std::move(completion), evictionError_);
  }
  void getUserVisibleURL(ItemIdentifier identifier, Completion<Result<std::string>> completion) override {
    const auto found = paths_.find(identifier.text);
    answer(std::move(completion), found == paths_.end() ? noSuchItem<std::string>() : found->second);
  }
  void getIdentifierForUserVisibleFile(std::string path, Completion<Result<ItemIdentifier>> completion) override {
    const auto found = identifiers_.find(path);
    answer(std::move(completion),
           found == identifiers_.end() ? noSuchItem<ItemIdentifier>() : ItemIdentifier{found->second});
  }

 private:
  template <class T>
  static Result<T> noSuchItem() {
    return failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM});
  }
  template <class T>
  void answer(Completion<T> completion, T value) {
    queue_.after(delay_, [completion = std::move(completion), value = std::move(value)]() mutable {
      std::move(completion)(std::move(value));
    });
  }

  Queue& queue_;
  Duration delay_{0};
  std::map<std::string, std::string> paths_;
  std::map<std::string, std::string> identifiers_;
  std::optional<Error> evictionError_;
  std::vector<std::string> evicted_;
  std::vector<std::string> signalled_;
};

}  // namespace vondle
