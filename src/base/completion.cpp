#include "base/completion.h"

#include <atomic>
#include <cstdio>

namespace vondle {
namespace {

void sayLost() {
  std::fputs("vondle: an operation ended without an answer; please report this\n", stderr);
}

std::atomic<DroppedCompletionHandler> droppedHandler = sayLost;

}  // namespace

void setDroppedCompletionHandler(DroppedCompletionHandler handler) {
  droppedHandler = handler;
}

void reportDroppedCompletion() {
  droppedHandler.load()();
}

}  // namespace vondle
