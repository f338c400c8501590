// record_notices: is the desktop of the session bus, and prints what programs ask it for, a line each; see
// RecordingDesktop. Until it is killed.
#include <cstdio>

#include <fmt/format.h>

#include "recording_desktop.h"

int main() {
  vondle::RecordingDesktop desktop("body-markup", [](const std::string& line) {
    fmt::print("{}\n", line);
    std::fflush(stdout);
  });
  if (!desktop.isReady()) {
    fmt::print(stderr, "record_notices: there is no session bus, or it has a desktop\n");
    return 1;
  }
  fmt::print("ready\n");
  std::fflush(stdout);
  while (desktop.answerSome()) {
  }
  return 0;
}
