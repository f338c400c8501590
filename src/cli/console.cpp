#include "cli/console.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include <fmt/format.h>

#include "platform/visible_text.h"

namespace vondle {

Console Console::standard() {
  const char* noColour = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  const bool outIsTerminal = ::isatty(STDOUT_FILENO) == 1;
  return {std::cout,
          std::cerr,
          {.outIsTerminal = outIsTerminal,
           .errIsTerminal = ::isatty(STDERR_FILENO) == 1,
           .colour = outIsTerminal && !(noColour && *noColour) && terminal && std::string_view(terminal) != "dumb"}};
}

std::string Console::shown(std::string_view foreign) const {
  return abilities_.outIsTerminal ? visibleText(foreign) : std::string(foreign);
}

std::string Console::styled(std::string_view code, std::string_view text) const {
  return abilities_.colour ? fmt::format("\x1b[{}m{}\x1b[0m", code, text) : std::string(text);
}

bool Console::print(std::string_view line) {
  out_ << line << '\n' << std::flush;
  return out_.good();
}

void Console::say(std::string_view message) {
  showProgress("");
  err_ << "vondle: " << (abilities_.errIsTerminal ? visibleText(message) : std::string(message)) << '\n' << std::flush;
}

void Console::showProgress(std::string_view message) {
  if (!abilities_.errIsTerminal || (message.empty() && !progressShown_)) return;
  err_ << "\r\x1b[K" << visibleText(message) << std::flush;
  progressShown_ = !message.empty();
}

void Console::showProgress(double done, double all, std::string_view message) {
  constexpr int WIDTH = 30;
  const auto filled = all > 0 ? static_cast<std::size_t>(WIDTH * std::clamp(done / all, 0.0, 1.0)) : 0;
  showProgress(fmt::format("[{:<{}}] {}", std::string(filled, '='), WIDTH, message));
}

void Console::nextScreen() {
  if (abilities_.outIsTerminal)
    out_ << "\x1b[H\x1b[2J";
  else
    out_ << '\n';
}

}  // namespace vondle
