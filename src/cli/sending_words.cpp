#include "cli/sending_words.h"

#include <algorithm>

#include <fmt/format.h>

#include "cli/words.h"

namespace vondle {

std::string sendingInWords(const json::Object& edit, Timestamp now) {
  const auto state = json::text(edit, "state").value_or("");
  if (state == "sending") {
    return fmt::format("being sent, {:.0f} %", 100 * json::number(edit, "fraction").value_or(0));
  }
  if (state == "retrying") {
    const auto next = json::number(edit, "next_try").value_or(now.secondsSince1970);
    return "next try in " + durationInWords(seconds(std::max(0.0, next - now.secondsSince1970)));
  }
  if (state == "settling") return "still being changed";
  if (state == "waiting") return "waits for another change";
  if (state == "local") return "stays here, because of its name";
  return "about to be sent";
}

}  // namespace vondle
