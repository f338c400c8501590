#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/desktop_notices.h"
#include "platform/scheduler.h"
#include "service/notices/notice_rules.h"

namespace vondle {

// Tells the user on the desktop what cannot wait until somebody asks: see NoticeRules. Any thread; cheap.
class Notices : public std::enable_shared_from_this<Notices> {
 public:
  // Conflicted copies are gathered for so long before they are told of.
  static constexpr Duration GATHER_TIME = seconds(2);

  // title: what the user calls the account.
  Notices(std::shared_ptr<DesktopNotices> desktop, std::string title, Scheduler& scheduler, const Clock& clock);

  // See NoticeRules.
  void failed(const Error& error, EditID edit = 0) EXCLUDES(lock_);
  void answered() EXCLUDES(lock_);
  void went(const std::function<bool(EditID)>& hasGone) EXCLUDES(lock_);
  void conflicted(const std::string& name) EXCLUDES(lock_);

 private:
  void show(const Notice& notice);
  void showGathered() EXCLUDES(lock_);

  const std::shared_ptr<DesktopNotices> desktop_;
  const std::string title_;
  const Clock& clock_;
  const std::shared_ptr<Queue> queue_;
  Mutex lock_;
  NoticeRules rules_ GUARDED_BY(lock_);
  std::optional<Notice> gathered_ GUARDED_BY(lock_);
};

}  // namespace vondle
