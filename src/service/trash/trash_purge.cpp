#include "service/trash/trash_purge.h"

#include <cerrno>
#include <utility>

namespace vondle {
namespace {

constexpr Request VIEWER{.isFileViewerRequest = true};

// How often is looked whether an item that is on its way has arrived.
constexpr Duration POLL_INTERVAL = seconds(0.05);

std::unexpected<Error> refused(int number) {
  return failure(Error::posix(number, "removing from the trash"));
}

}  // namespace

TrashPurge::TrashPurge(std::shared_ptr<Trash> trash, std::uint64_t number, Trash::Done completion)
    : trash_(std::move(trash)),
      number_(number),
      startedAt_(trash_->parts_.clock.monotonic()),
      completion_(std::move(completion)) {}

void TrashPurge::start() {
  trash_->setBusy(number_, true);
  if (trash_->hasArrived(number_)) return confirm();
  trash_->parts_.edits->purgeTrashed(trash_->find(number_)->edit,
                                     [self = shared_from_this()](const Result<void>& result) {
                                       self->trash_->perform([self, result] { self->dropped(result); });
                                     });
}

void TrashPurge::dropped(const Result<void>& result) {
  if (result) {
    trash_->parts_.contents->dropUnnamed();
    return purged();
  }
  if (!result.error().is(POSIX_ERROR_DOMAIN, EBUSY) && !result.error().is(POSIX_ERROR_DOMAIN, ENOENT))
    return finish(result);
  const auto edit = trash_->parts_.edits->find(trash_->find(number_)->edit);
  if (edit) errorBefore_ = edit->lastError;
  if (trash_->parts_.sendNow) trash_->parts_.sendNow();
  waitUntilSent();
}

void TrashPurge::waitUntilSent() {
  if (trash_->hasArrived(number_)) return confirm();
  const auto edit = trash_->parts_.edits->find(trash_->find(number_)->edit);
  const bool hasFailed = edit && !edit->lastError.empty() && !trash_->parts_.tree.replica().isSending(edit->id);
  const auto waited = trash_->parts_.clock.monotonic() - startedAt_;
  // The same error as before may be that of the last try.
  if ((hasFailed && (edit->lastError != errorBefore_ || waited > Trash::LOOKUP_PATIENCE)) ||
      waited > Trash::SENDING_PATIENCE)
    return finish(refused(EHOSTUNREACH));
  trash_->queue_->after(POLL_INTERVAL, [self = shared_from_this()] { self->waitUntilSent(); });
}

void TrashPurge::confirm() {
  trash_->whenListedWithin(Trash::MAX_AGE_FOR_CHANGES, [self = shared_from_this()](const Result<void>& listed) {
    if (!listed) return self->finish(listed);
    const auto* entry = self->trash_->find(self->number_);
    if (!entry || entry->edit != 0) return self->purged();
    self->ask();
  });
}

void TrashPurge::ask() {
  const auto* entry = trash_->find(number_);
  trash_->parts_.extension.deleteItem(
      entry->item, entry->version, 0, VIEWER, [self = shared_from_this()](std::optional<Error> error) {
        self->trash_->perform(
            [self, error = std::move(error)] { error ? self->finish(failure(*error)) : self->purged(); });
      });
}

void TrashPurge::purged() {
  trash_->remove(number_);
  finish({});
}

void TrashPurge::finish(Result<void> result) {
  trash_->setBusy(number_, false);
  std::move(completion_)(std::move(result));
}

}  // namespace vondle
