#include "service/edits/edit_sender.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/log.h"
#include "service/edits/send_failure.h"

namespace vondle {

namespace {

constexpr Log LOG("com.ferrow.vondle.service", "edits");

Timestamp later(Timestamp time, Duration by) {
  return {time.secondsSince1970 + inSeconds(by)};
}

bool hasContentsToSend(const Edit& edit) {
  const auto step = nextStep(edit);
  return step == SendStep::contents || (step == SendStep::create && !edit.isFolder);
}

bool isSmall(const Edit& edit) {
  return !hasContentsToSend(edit) || edit.size <= EditSender::SMALL_BYTES;
}

bool isStillToCome(const SendDecision& decision) {
  return decision.state == SendState::ready || decision.state == SendState::sending ||
         decision.state == SendState::settling;
}

}  // namespace

EditSender::EditSender(Parts parts)
    : parts_(std::move(parts)), queue_(parts_.services.scheduler.makeSerialQueue("edits")) {}

Duration EditSender::retryDelay(int failures) {
  auto delay = FIRST_RETRY;
  for (int i = 1; i < failures && delay < LAST_RETRY; ++i) delay *= 2;
  return std::min(delay, LAST_RETRY);
}

std::shared_ptr<EditSender> EditSender::make(Parts parts) {
  const std::shared_ptr<EditSender> sender(new EditSender(std::move(parts)));
  sender->parts_.services.edits->onChange([weak = std::weak_ptr(sender)] {
    if (const auto self = weak.lock()) self->planSoon();
  });
  return sender;
}

void EditSender::start() {
  queue_->post([self = shared_from_this()] { self->isStarted_ = true; });
  planSoon();
}

void EditSender::stop() {
  queue_->post([self = shared_from_this()] {
    self->isStopped_ = true;
    self->backlog_.clear();
    self->queue_->cancel(self->planTimer_);
    self->queue_->cancel(self->dueTimer_);
    for (const auto& [id, running] : self->facts().running) running.operation->cancel();
    const auto left = self->parts_.services.edits->pendingCount();
    for (auto& drained : std::exchange(self->drains_, {})) std::move(drained)(left);
  });
}

void EditSender::sendNow() {
  queue_->post([self = shared_from_this()] {
    const auto now = self->parts_.clock.now();
    {
      const MutexLock hold(self->lock_);
      auto& facts = self->facts_;
      facts.delayed.clear();
      facts.restUntil.clear();
      facts.hurriedAt = now;
      if (facts.outage) facts.outage->until = now;
    }
    self->planSoon();
  });
}

void EditSender::drain(Completion<std::size_t> completion) {
  sendNow();
  queue_->post([self = shared_from_this(), completion = std::move(completion)]() mutable {
    if (self->isStopped_) return std::move(completion)(self->parts_.services.edits->pendingCount());
    self->drains_.push_back(std::move(completion));
    {
      const MutexLock hold(self->lock_);
      self->facts_.isDraining = true;
    }
    self->planSoon();
  });
}

std::vector<EditSender::Report> EditSender::report() const {
  const auto known = facts();
  const auto edits = queued(parts_.services.edits->pending(), known);
  const auto plan = planSending(edits, [this](const auto& item) { return parentOf(item); }, 0);
  std::vector<Report> reports;
  for (std::size_t i = 0; i < edits.size(); ++i) {
    const auto& decision = plan.decisions[i];
    const auto running = known.running.find(edits[i].edit.id);
    reports.push_back({.edit = edits[i].edit,
                       .state = decision.state,
                       .waitsFor = decision.waitsFor,
                       .until = decision.until,
                       .progress = running == known.running.end() ? nullptr : running->second.operation->progress()});
  }
  return reports;
}

// Any thread, often: a program that writes asks for it with every write.
void EditSender::planSoon() {
  if (isPlanAsked_.exchange(true)) return;
  queue_->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->isStopped_) return;
    if (!self->isStarted_) {
      self->isPlanAsked_ = false;
      return;
    }
    const auto now = self->parts_.clock.monotonic();
    if (!self->nextPlan_ || *self->nextPlan_ <= now) return self->plan();
    self->planTimer_ = self->queue_->after(*self->nextPlan_ - now, [weak] {
      if (const auto sender = weak.lock(); sender && !sender->isStopped_) sender->plan();
    });
  });
}

void EditSender::plan() {
  isPlanAsked_ = false;
  auto pending = parts_.services.edits->pending();
  forgetThoseThatWent(pending);
  const auto known = facts();
  const auto edits = queued(std::move(pending), known);
  const auto now = parts_.clock.monotonic();
  soonestPlan_ = now + std::max(MIN_PLAN_INTERVAL, PLAN_INTERVAL_PER_EDIT * static_cast<std::int64_t>(edits.size()));
  const auto plan = planSending(edits, [this](const auto& item) { return parentOf(item); }, capacity(known));
  backlog_.clear();
  for (const auto index : plan.starts) backlog_.emplace_back(edits[index], plan.decisions[index]);
  scheduleNext(plan);
  endDrainsIfDone(plan);
  startMore();
  nextPlan_ = backlog_.empty() ? *soonestPlan_ : std::max(*soonestPlan_, now + PLAN_LIFE);
}

// Small ones pass large ones that have to wait.
void EditSender::startMore() {
  for (auto next = backlog_.begin(); next != backlog_.end();) {
    if (runningCount() >= (isSmall(next->first.edit) ? SMALL_AT_ONCE : AT_ONCE)) {
      ++next;
      continue;
    }
    const auto [queued, decision] = std::move(*next);
    next = backlog_.erase(next);
    begin(queued, decision);
  }
}

// Everything has begun that the last plan lets begin.
void EditSender::planWhenUsedUp() {
  if (!backlog_.empty() || nextPlan_ == soonestPlan_) return;
  nextPlan_ = soonestPlan_;
  if (queue_->cancel(planTimer_)) isPlanAsked_ = false;
}

void EditSender::begin(const QueuedEdit& queued, const SendDecision& decision) {
  const auto& edit = queued.edit;
  const SendTask task{
      .edit = edit.id, .generation = edit.generation, .step = decision.step, .isAside = decision.isAside};
  const auto operation =
      std::make_shared<SendOperation>(parts_.services, queue_, task, [weak = weak_from_this()](SendResult result) {
        if (const auto self = weak.lock()) self->ended(std::move(result));
      });
  Running running{.operation = operation, .step = decision.step, .target = {}, .outageNumber = outages_};
  if (decision.step == SendStep::create || decision.step == SendStep::place) {
    running.target = edit.place;
    if (decision.isAside) running.target->name = asideName(edit);
  }
  {
    const MutexLock hold(lock_);
    facts_.restUntil.erase(edit.id);
    facts_.running[edit.id] = std::move(running);
  }
  operation->start();
}

void EditSender::ended(SendResult result) {
  // Still as running, for whoever plans until it is recorded.
  if (result.ending == SendResult::Ending::failed) return failed(result);
  if (result.ending == SendResult::Ending::done) {
    noteServerAnswered();
    if (result.hasClashed) noteClash(result);
  }
  if (result.ending == SendResult::Ending::later) {
    const MutexLock hold(lock_);
    facts_.restUntil[result.sent.id] = later(parts_.clock.now(), SETTLE_TIME);
  }
  forgetRunning(result.sent.id);
}

void EditSender::failed(const SendResult& result) {
  const auto& sent = result.sent;
  const auto now = parts_.clock.now();
  if (parts_.notices) parts_.notices->failed(*result.error, sent.id);
  std::optional<Timestamp> nextTry;
  if (sendFailureOf(*result.error) == SendFailure::outOfReach) {
    std::uint64_t number = 0;
    {
      const MutexLock hold(lock_);
      number = facts_.running[sent.id].outageNumber;
    }
    noteOutage(number, *result.error);
    const MutexLock hold(lock_);
    facts_.delayed.erase(sent.id);
    nextTry = facts_.outage ? facts_.outage->until : now;
  } else {
    noteServerAnswered();
    nextTry = later(now, retryDelay(sent.attempts + 1));
    LOG.error("“%{public}@” cannot be sent: %{public}@", sent.place.name, result.error->localizedDescription());
    const MutexLock hold(lock_);
    facts_.delayed.insert(sent.id);
  }
  parts_.services.edits->failed(sent, result.error->localizedDescription(), nextTry,
                                [weak = weak_from_this(), id = sent.id](const Result<void>&) {
                                  const auto self = weak.lock();
                                  if (!self) return;
                                  self->queue_->post([self, id] { self->forgetRunning(id); });
                                });
}

void EditSender::forgetRunning(EditID id) {
  {
    const MutexLock hold(lock_);
    facts_.running.erase(id);
  }
  if (isStopped_) return;
  startMore();
  planWhenUsedUp();
  planSoon();
}

// Those that were under way when the first of them found out say nothing new.
void EditSender::noteOutage(std::uint64_t numberAtStart, const Error& error) {
  if (numberAtStart != outages_) return;
  ++outages_;
  backlog_.clear();
  auto outage = facts().outage.value_or(Outage{});
  const auto delay = retryDelay(++outage.failures);
  outage.until = later(parts_.clock.now(), delay);
  {
    const MutexLock hold(lock_);
    facts_.outage = outage;
  }
  LOG.error("nothing can be sent, next try in %.0f s: %{public}@", inSeconds(delay), error.localizedDescription());
}

void EditSender::noteServerAnswered() {
  if (parts_.notices) parts_.notices->answered();
  const MutexLock hold(lock_);
  facts_.outage.reset();
}

void EditSender::noteClash(const SendResult& result) {
  LOG.log("“%{public}@” was changed on the server too; both are kept", result.sent.place.name);
  if (parts_.notices) parts_.notices->conflicted(result.sent.place.name);
  if (result.inode != 0) {
    parts_.errors.note(
        result.inode,
        {POSIX_ERROR_DOMAIN, EEXIST,
         "It was changed on the server too; what was changed here is kept beside it as a conflicted copy."},
        parts_.clock.now());
  }
  parts_.services.sync([](const std::optional<Error>&) {});
}

// A timer runs only while there is something to wait for.
void EditSender::scheduleNext(const SendPlan& plan) {
  queue_->cancel(dueTimer_);
  dueTimer_ = 0;
  std::optional<Timestamp> next;
  for (const auto& decision : plan.decisions) {
    if (decision.until && (!next || *decision.until < *next)) next = decision.until;
  }
  if (!next) return;
  const auto delay = seconds(next->secondsSince1970 - parts_.clock.now().secondsSince1970);
  dueTimer_ = queue_->after(delay, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->planSoon();
  });
}

void EditSender::endDrainsIfDone(const SendPlan& plan) {
  if (drains_.empty() || std::ranges::any_of(plan.decisions, isStillToCome)) return;
  {
    const MutexLock hold(lock_);
    facts_.isDraining = false;
  }
  const auto left = std::ranges::count_if(
      plan.decisions, [](const SendDecision& decision) { return decision.state != SendState::staysHere; });
  for (auto& drained : std::exchange(drains_, {})) std::move(drained)(static_cast<std::size_t>(left));
}

std::size_t EditSender::runningCount() const {
  const MutexLock hold(lock_);
  return facts_.running.size();
}

// `pending` is ordered.
void EditSender::forgetThoseThatWent(const std::vector<Edit>& pending) {
  const auto hasGone = [&](EditID id) { return !std::ranges::binary_search(pending, id, {}, &Edit::id); };
  if (parts_.notices) parts_.notices->went(hasGone);
  const MutexLock hold(lock_);
  std::erase_if(facts_.delayed, hasGone);
  std::erase_if(facts_.restUntil, [&](const auto& each) { return hasGone(each.first); });
}

EditSender::Facts EditSender::facts() const {
  const MutexLock hold(lock_);
  return facts_;
}

std::vector<QueuedEdit> EditSender::queued(std::vector<Edit> edits, const Facts& facts) const {
  const auto now = parts_.clock.now();
  std::vector<QueuedEdit> result;
  result.reserve(edits.size());
  for (auto& edit : edits) {
    QueuedEdit queued;
    if (const auto running = facts.running.find(edit.id); running != facts.running.end()) {
      queued.isSending = true;
      queued.step = running->second.step;
      queued.target = running->second.target;
    } else {
      queued.time = timeOf(edit, facts, now);
    }
    queued.edit = std::move(edit);
    result.push_back(std::move(queued));
  }
  return result;
}

// In the trash there are no temporary files: what was put there is to be had again, from any machine.
std::optional<Duration> EditSender::stayOf(const Edit& edit) const {
  if (edit.fields & EDIT_TRASHED || parts_.services.edits->inodeOf(edit.id) == 0) return std::nullopt;
  return parts_.temporaryNames.stay(edit.place.name);
}

SendTime EditSender::timeOf(const Edit& edit, const Facts& facts, Timestamp now) const {
  const auto settleTime = facts.isDraining || edit.changedAt <= facts.hurriedAt ? Duration(0) : SETTLE_TIME;
  SendTimeFacts times{.now = now,
                      .settleTime = settleTime,
                      .busyUntil = {},
                      .stay = stayOf(edit),
                      .isDelayed = facts.delayed.contains(edit.id),
                      .lastRetry = LAST_RETRY};
  if (hasContentsToSend(edit)) {
    if (const auto inode = parts_.services.edits->inodeOf(edit.id))
      times.busyUntil = parts_.services.contents->busyUntil(inode, settleTime, OPEN_SETTLE_TIME);
  }
  if (const auto rest = facts.restUntil.find(edit.id); rest != facts.restUntil.end())
    times.busyUntil = std::max(times.busyUntil.value_or(now), rest->second);
  auto time = sendTimeOf(edit, times);
  if (time.state == SendState::ready && facts.outage && facts.outage->until > now &&
      facts.outage->until <= later(now, LAST_RETRY))
    time = {SendState::waitingToRetry, facts.outage->until};
  return time;
}

// After an outage one edit asks for all.
std::size_t EditSender::capacity(const Facts& facts) const {
  if (!facts.outage) return BACKLOG;
  return facts.running.empty() ? 1 : 0;
}

std::optional<ItemIdentifier> EditSender::parentOf(const ItemIdentifier& item) const {
  const auto& replica = parts_.tree.replica();
  const auto inode = replica.inodeOf(item);
  if (!inode || *inode == ROOT_INODE) return std::nullopt;
  const auto attributes = replica.attributes(*inode);
  return attributes ? replica.identifierOf(attributes->parent) : std::nullopt;
}

}  // namespace vondle
