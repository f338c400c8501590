#include "service/notices/notices.h"

#include <string_view>
#include <utility>

namespace vondle {
namespace {

constexpr std::string_view tagOf(NoticeCause cause) {
  switch (cause) {
    case NoticeCause::accountFull:
      return "full";
    case NoticeCause::keyRefused:
      return "key";
    case NoticeCause::conflictedCopy:
      return "conflict";
  }
  return "";
}

}  // namespace

Notices::Notices(std::shared_ptr<DesktopNotices> desktop, std::string title, Scheduler& scheduler, const Clock& clock)
    : desktop_(std::move(desktop)),
      title_(std::move(title)),
      clock_(clock),
      queue_(scheduler.makeSerialQueue("notices")) {}

void Notices::failed(const Error& error, EditID edit) {
  std::optional<Notice> notice;
  {
    MutexLock hold(lock_);
    notice = rules_.failed(error, edit, clock_.monotonic());
  }
  if (notice) show(*notice);
}

void Notices::answered() {
  bool isOver = false;
  {
    MutexLock hold(lock_);
    isOver = rules_.answered();
  }
  if (isOver) desktop_->withdraw(tagOf(NoticeCause::keyRefused));
}

void Notices::went(const std::function<bool(EditID)>& hasGone) {
  bool isOver = false;
  {
    MutexLock hold(lock_);
    isOver = rules_.went(hasGone);
  }
  if (isOver) desktop_->withdraw(tagOf(NoticeCause::accountFull));
}

void Notices::conflicted(const std::string& name) {
  bool isFirst = false;
  {
    MutexLock hold(lock_);
    isFirst = !gathered_;
    gathered_ = rules_.conflicted(name, clock_.monotonic());
  }
  if (!isFirst) return;
  queue_->after(GATHER_TIME, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->showGathered();
  });
}

void Notices::showGathered() {
  std::optional<Notice> notice;
  {
    MutexLock hold(lock_);
    notice = std::exchange(gathered_, std::nullopt);
  }
  if (notice) show(*notice);
}

void Notices::show(const Notice& notice) {
  desktop_->show(tagOf(notice.cause), title_, notice.text);
}

}  // namespace vondle
