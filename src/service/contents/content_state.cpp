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
      // What is on its way is looked at when it is here, what was edited when it is sent.
      return state == clean ? absent : state;
    case ContentEvent::evicted:
      if (state == absent || state == clean) return absent;
      break;
    case ContentEvent::edited:
      // From being fetched when all of it is written anew, from being sent when it is written to meanwhile.
      return edited;
    case ContentEvent::sent:
      if (state == edited) return uploading;
      break;
    case ContentEvent::kept:
      if (state == uploading) return edited;
      break;
    case ContentEvent::saved:
      if (state == uploading) return clean;
      break;
    case ContentEvent::abandoned:
      if (state == edited || state == uploading) return absent;
      break;
  }
  return std::nullopt;
}

}  // namespace vondle
