#pragma once

#include <optional>

namespace vondle {

// Where an item's contents are.
enum class ContentState {
  absent,     // on the server only
  fetching,   // on their way
  clean,      // here, as on the server
  edited,     // here only: programs have written them
  uploading,  // here, on their way to the server
};

enum class ContentEvent {
  wanted,     // somebody needs them
  arrived,    // whole
  failed,     // the fetch did not bring them, or nobody wanted them any more
  changed,    // the server has another version, or the item is gone
  evicted,    // the room is needed
  edited,     // a program changes them
  sent,       // they begin to be sent
  kept,       // sending them has failed
  saved,      // the server has just these
  abandoned,  // what was edited counts no more: the server has other contents, or the item is gone
};

// The state after an event; absent when the event cannot happen in that state. Nothing but being saved or abandoned
// leads away from what was edited.
std::optional<ContentState> contentStateAfter(ContentState state, ContentEvent event);

}  // namespace vondle
