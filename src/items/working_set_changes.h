#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/change_set.h"
#include "base/error.h"
#include "base/mutex.h"
#include "fileprovider/domain.h"
#include "fileprovider/enumerator.h"
#include "items/item_services.h"
#include "platform/scheduler.h"

namespace vondle {

// One enumeration of the working set's changes. First the pin work: pin requests that other processes left are applied,
// and items whose pin changed are announced. Then, once, the server's changes since the stored cursor, which end the
// enumeration. Pin work that takes longer than its deadline goes on beside, and may announce after the end.
class WorkingSetChanges final : public std::enable_shared_from_this<WorkingSetChanges> {
 public:
  static constexpr Duration PIN_WORK_DEADLINE = seconds(15);
  static constexpr std::int64_t PAGE_LIMIT = 1000;

  WorkingSetChanges(const ItemServices& services, Domain domain, ManagerForDomain managerForDomain,
                    std::shared_ptr<ChangeObserver> observer, SyncAnchor from);

  void start();

 private:
  // The pin work, in the order of its steps.
  void applyPinRequests();
  void applied(const ItemIdentifier& identifier, bool pinned) EXCLUDES(lock_);
  void announcePinChanges() EXCLUDES(lock_);
  void fetched(Entry entry) EXCLUDES(lock_);
  void announce(const std::vector<std::string>& ids) EXCLUDES(lock_);
  void evictUnpinned(const std::vector<std::string>& ids);
  void pinWorkFinished() EXCLUDES(lock_);
  void pinWorkExceeded() EXCLUDES(lock_);

  // The server's changes.
  void continueOnce() EXCLUDES(lock_);
  void readServerChanges();
  void readHead();
  void readPage(std::int64_t cursor);
  void deliver(std::int64_t cursor, ChangeSet page);

  std::shared_ptr<Manager> manager() const { return managerForDomain_(domain_); }

  const ItemServices services_;
  const Domain domain_;
  const ManagerForDomain managerForDomain_;
  const std::shared_ptr<ChangeObserver> observer_;
  const SyncAnchor from_;
  TimerID deadline_ = 0;  // set before the pin work starts

  Mutex lock_;
  bool continued_ GUARDED_BY(lock_) = false;
  std::vector<std::string> applied_ GUARDED_BY(lock_);
  std::vector<Item> announced_ GUARDED_BY(lock_);
};

}  // namespace vondle
