#include "service/contents/content_state.h"

namespace vondle {

std::optional<ContentState> contentStateAfter(ContentState state, ContentEvent event) {
  using enum ContentState;
  switch (event) {
    case ContentEvent::wanted:
      if (state == absent) return fetching;
      break;
    case ContentEvent::arrived:
      if (state == fetching) return clean;
      break;
    case ContentEvent::failed:
      if (state == fetching) return absent;
      break;
    case ContentEvent::changed:
      // What is on its way is looked at when it is here.
      return state == clean ? absent : state;
    case ContentEvent::evicted:
      if (state != fetching) return absent;
      break;
  }
  return std::nullopt;
}

}  // namespace vondle
