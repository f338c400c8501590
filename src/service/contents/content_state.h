#pragma once

#include <optional>

namespace vondle {

// Where an item's contents are.
enum class ContentState {
  absent,    // on the server only
  fetching,  // on their way
  clean,     // here, as on the server
};

enum class ContentEvent {
  wanted,   // somebody needs them
  arrived,  // whole
  failed,   // the fetch did not bring them, or nobody wanted them any more
  changed,  // the server has another version, or the item is gone
  evicted,  // the room is needed
};

// The state after an event; absent when the event cannot happen in that state.
std::optional<ContentState> contentStateAfter(ContentState state, ContentEvent event);

}  // namespace vondle
