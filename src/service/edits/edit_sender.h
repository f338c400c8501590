#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "base/completion.h"
#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/edits/send_operation.h"
#include "service/edits/send_plan.h"
#include "service/edits/temporary_names.h"
#include "service/last_errors.h"
#include "service/notices/notices.h"

namespace vondle {

// Brings the queue's edits to the server through the extension: parents before what is in them, what frees a name
// before what takes it, deletions of what is in a folder before the folder's; several items at once. A file goes when
// nothing has changed it for a moment and no program has it open for writing, or has not written for a while. What
// fails is tried again with growing delays, for ever; the reason stands in the edit.
//
// While the server is out of reach, or does not let us in, one edit at a time asks whether that is over; then
// everything goes. Any thread.
class EditSender : public std::enable_shared_from_this<EditSender> {
 public:
  // Items under way at a time; more of those that have no large contents, whose way is mostly waiting for answers.
  static constexpr std::size_t AT_ONCE = 8;
  static constexpr std::size_t SMALL_AT_ONCE = 24;
  static constexpr std::int64_t SMALL_BYTES = 1'048'576;  // at most
  // How long an item must have been left alone.
  static constexpr Duration SETTLE_TIME = seconds(1);
  // After which a file that is still open for writing goes up as it is, if nothing was written for so long.
  static constexpr Duration OPEN_SETTLE_TIME = seconds(30);
  // The delay after the first failure; each further one doubles it, up to the last.
  static constexpr Duration FIRST_RETRY = seconds(5);
  static constexpr Duration LAST_RETRY = seconds(300);

  struct Parts {
    SendServices services;
    Tree& tree;
    LastErrors& errors;
    const Clock& clock;
    TemporaryNames temporaryNames;
    std::shared_ptr<Notices> notices = nullptr;  // null: the user is not told
  };

  struct Report {
    Edit edit;
    SendState state = SendState::ready;
    EditID waitsFor = 0;                 // of waitingForOthers, if known
    std::optional<Timestamp> until;      // of settling, staysHere, waitingToRetry, if known
    std::shared_ptr<Progress> progress;  // of sending; null otherwise
  };

  // Before the first change of a program's.
  static std::shared_ptr<EditSender> make(Parts parts);

  // Nothing is sent before.
  void start();
  // What is under way is cancelled and stays in the queue; whoever drains it hears how much that is.
  void stop();
  // Everything that waits is tried at once, without settling and without waiting for the next try. Files that are open
  // for writing still have to come to rest.
  void sendNow();
  // Sends everything now, and what is added meanwhile; completes when nothing is left that can be sent, whether it was
  // or failed: with the number of edits that are left, those that stay here because of their names not counted.
  void drain(Completion<std::size_t> completion);
  // In the order of the edits.
  [[nodiscard]] std::vector<Report> report() const EXCLUDES(lock_);

  [[nodiscard]] static Duration retryDelay(int failures);

 private:
  explicit EditSender(Parts parts);

  // Edits that one plan sees on their way: a plan looks at the whole queue.
  static constexpr std::size_t BACKLOG = 256;
  // Between two plans, so that a long queue costs a bounded part of a processor; and as long as not all has begun that
  // the last one lets begin.
  static constexpr Duration MIN_PLAN_INTERVAL = seconds(0.005);
  static constexpr Duration PLAN_INTERVAL_PER_EDIT = seconds(0.000'02);
  static constexpr Duration PLAN_LIFE = seconds(0.25);

  struct Running {
    std::shared_ptr<SendOperation> operation;
    SendStep step = SendStep::create;
    std::optional<Place> target;
    std::uint64_t outageNumber = 0;  // how many outages had been by its start
  };
  struct Outage {
    int failures = 0;
    Timestamp until;
  };
  // What decisions are made from, beside the edits.
  struct Facts {
    std::map<EditID, Running> running;
    std::set<EditID> delayed;               // their next tries count
    std::map<EditID, Timestamp> restUntil;  // those that were busy
    std::optional<Outage> outage;
    Timestamp hurriedAt{0};  // changes up to then need not settle
    bool isDraining = false;
  };

  void planSoon();
  void plan();
  void startMore();
  void planWhenUsedUp();
  void begin(const QueuedEdit& queued, const SendDecision& decision);
  void ended(SendResult result);
  void failed(const SendResult& result);
  void forgetRunning(EditID id);
  void noteOutage(std::uint64_t numberAtStart, const Error& error);
  void noteServerAnswered();
  void noteClash(const SendResult& result);
  void scheduleNext(const SendPlan& plan);
  void endDrainsIfDone(const SendPlan& plan);

  void forgetThoseThatWent(const std::vector<Edit>& pending) EXCLUDES(lock_);
  [[nodiscard]] Facts facts() const EXCLUDES(lock_);
  [[nodiscard]] std::size_t runningCount() const EXCLUDES(lock_);
  [[nodiscard]] std::vector<QueuedEdit> queued(std::vector<Edit> edits, const Facts& facts) const;
  [[nodiscard]] std::optional<Duration> stayOf(const Edit& edit) const;
  [[nodiscard]] SendTime timeOf(const Edit& edit, const Facts& facts, Timestamp now) const;
  [[nodiscard]] std::size_t capacity(const Facts& facts) const;
  [[nodiscard]] std::optional<ItemIdentifier> parentOf(const ItemIdentifier& item) const;

  const Parts parts_;
  const std::shared_ptr<Queue> queue_;
  std::atomic<bool> isPlanAsked_ = false;

  mutable Mutex lock_;
  Facts facts_ GUARDED_BY(lock_);  // changed on the queue alone

  // Used on the queue alone.
  bool isStarted_ = false;
  bool isStopped_ = false;
  std::deque<std::pair<QueuedEdit, SendDecision>> backlog_;
  std::uint64_t outages_ = 0;
  std::vector<Completion<std::size_t>> drains_;
  std::optional<MonotonicTime> soonestPlan_;
  std::optional<MonotonicTime> nextPlan_;
  TimerID planTimer_ = 0;
  TimerID dueTimer_ = 0;
};

}  // namespace vondle
