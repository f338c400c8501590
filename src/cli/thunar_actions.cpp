#include "cli/thunar_actions.h"

#include <string_view>

#include <fmt/format.h>

#include "platform/markup_text.h"

namespace vondle {

namespace {

constexpr std::string_view BEGIN = "<action>";
constexpr std::string_view END = "</action>\n";
constexpr std::string_view END_OF_ALL = "</actions>";
constexpr std::string_view ID = "<unique-id>vondle-";

std::string quoted(std::string_view path) {
  std::string result = "'";
  for (const char each : path) result += each == '\'' ? std::string("'\\''") : std::string(1, each);
  return result + "'";
}

// Thunar puts the paths in the place of %F, quoted.
std::string action(std::string_view id, std::string_view icon, std::string_view name, std::string_view description,
                   const std::string& program) {
  return fmt::format(
      "{}\n\t<icon>{}</icon>\n\t<name>{}</name>\n\t<submenu>Vondle</submenu>\n\t{}{}</unique-id>\n"
      "\t<command>{} {} %F</command>\n\t<description>{}</description>\n\t<patterns>*</patterns>\n\t<directories/>\n"
      "\t<audio-files/>\n\t<image-files/>\n\t<other-files/>\n\t<text-files/>\n\t<video-files/>\n{}",
      BEGIN, icon, name, ID, id, markupText(quoted(program)), id, description, END);
}

}  // namespace

std::optional<std::string> withoutVondleActions(const std::string& actions) {
  if (actions.rfind(END_OF_ALL) == std::string::npos) return std::nullopt;
  auto result = actions;
  for (auto id = result.find(ID); id != std::string::npos; id = result.find(ID)) {
    const auto begin = result.rfind(BEGIN, id);
    const auto end = result.find(END.substr(0, END.size() - 1), id);
    if (begin == std::string::npos || end == std::string::npos) return std::nullopt;
    const auto next = end + END.size() - 1;
    result.erase(begin, next - begin + (next < result.size() && result[next] == '\n' ? 1 : 0));
  }
  return result;
}

std::optional<std::string> withVondleActions(const std::string& actions, const std::string& program) {
  auto result = withoutVondleActions(actions);
  if (!result) return std::nullopt;
  result->insert(
      result->rfind(END_OF_ALL),
      action("keep", "folder-download", "Keep Downloaded", "Have it on this machine at all times", program) +
          action("unkeep", "list-remove", "Stop Keeping Downloaded",
                 "Have it on the server, and here when it is opened", program) +
          action("evict", "edit-clear", "Free Up Space", "Remove the local copy; it stays on the server", program));
  return result;
}

}  // namespace vondle
