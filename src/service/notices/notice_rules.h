#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "base/error.h"
#include "base/time.h"
#include "service/edits/edit.h"

namespace vondle {

// What the user is told without having asked.
enum class NoticeCause {
  accountFull,
  keyRefused,
  conflictedCopy,
};

struct Notice {
  NoticeCause cause;
  std::string text;
};

// Which failures are news to the user: each cause once, from when it begins until it ends. Should it begin again soon,
// that is no news; conflicted copies that come one after the other are one notice, which counts them. Not thread-safe.
class NoticeRules {
 public:
  // A cause that began again within so long of its last notice is not told of.
  static constexpr Duration SOON = seconds(600);
  // Without a conflicted copy for so long, the next one is counted from one.
  static constexpr Duration BURST = seconds(60);

  // What the failure says that the user is to hear. edit: that was being sent; 0: something else failed.
  std::optional<Notice> failed(const Error& error, EditID edit, MonotonicTime now);
  // The server let us in. True when that ends a cause, here keyRefused.
  [[nodiscard]] bool answered();
  // Those edits are sent or given up. True when that ends a cause, here accountFull.
  [[nodiscard]] bool went(const std::function<bool(EditID)>& hasGone);
  // The name of the file that was kept twice. The notice is the one to show from now on.
  Notice conflicted(const std::string& name, MonotonicTime now);

 private:
  std::optional<Notice> tell(Notice notice, MonotonicTime now);

  std::set<EditID> refusedAsFull_;
  bool isKeyRefused_ = false;
  std::map<NoticeCause, MonotonicTime> told_;
  std::size_t conflicts_ = 0;
  std::string firstConflict_;
  MonotonicTime lastConflict_;
};

}  // namespace vondle
