#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "base/time.h"
#include "service/edits/edit.h"

// Which edits may go to the server now: pure functions from what is known to decisions.
namespace vondle {

enum class SendState { settling, waitingForOthers, staysHere, ready, sending, waitingToRetry };

// What is done for an edit in one go. One with new contents and a new place takes two.
enum class SendStep { create, contents, place, remove };

[[nodiscard]] SendStep nextStep(const Edit& edit);

// When an edit's time comes, whatever the others do.
struct SendTime {
  SendState state = SendState::ready;  // or settling, staysHere, waitingToRetry
  std::optional<Timestamp> until;      // none of staysHere: for as long as it is named so
  friend bool operator==(const SendTime&, const SendTime&) = default;
};

struct SendTimeFacts {
  Timestamp now{};
  Duration settleTime{0};                // how long it is left alone after a change
  std::optional<Timestamp> busyUntil{};  // its contents are being written
  std::optional<Duration> stay{};        // of its name; see TemporaryNames
  bool isDelayed = false;                // its next try counts
  Duration lastRetry{0};                 // the longest that a next try can be away
};

// Times that are to come although they should be past, because the clock was set back, count as past.
[[nodiscard]] SendTime sendTimeOf(const Edit& edit, const SendTimeFacts& facts);

struct QueuedEdit {
  Edit edit;
  SendTime time;
  bool isSending = false;
  // Of one that is being sent.
  SendStep step = SendStep::create;
  std::optional<Place> target;  // where it will stand on the server
};

struct SendDecision {
  SendState state = SendState::ready;
  SendStep step = SendStep::create;
  // To a name of its own beside the one it wants, because those who wait for one another's names wait in a ring.
  bool isAside = false;
  EditID waitsFor = 0;  // of waitingForOthers: one of those, if it is known
  std::optional<Timestamp> until;
};

struct SendPlan {
  std::vector<SendDecision> decisions;  // one for each edit, in their order
  std::vector<std::size_t> starts;      // which of them to begin, in this order; all can be under way together
};

// The folder that an item is in, as the user sees it; none for the root and for unknown ones.
using ParentOf = std::function<std::optional<ItemIdentifier>(const ItemIdentifier&)>;

// The edits are in the order in which they were made. At most `capacity` are to begin.
//
// - What is in a folder that the server does not know waits for the folder.
// - A place that another item still has on the server, or may have there (see Attempt), or is on its way to, waits for
//   that item. Where they wait in a ring, one goes to another name first.
// - A folder that moves to below itself, as the server sees it, waits for the one that moves out of it.
// - A folder is deleted after everything that the server still has in it has been moved or deleted; it goes to the
// trash
//   after everything that is to be sent of what is below it.
// - While a folder is moved or deleted nothing goes on below it: paths would change on the way.
[[nodiscard]] SendPlan planSending(const std::vector<QueuedEdit>& edits, const ParentOf& parentOf,
                                   std::size_t capacity);

// What an item is called for the moment when its name is not free yet: always the same, so that a folder that was made
// is found again when its answer was lost.
[[nodiscard]] std::string asideName(const Edit& edit);

}  // namespace vondle
