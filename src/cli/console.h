#pragma once

#include <ostream>
#include <string>
#include <string_view>

namespace vondle {

// Where a command speaks: data on `out`, messages on `err`. Foreign texts (names, server messages) go through shown(),
// so that on a terminal they cannot move the cursor or pass for something else; into a pipe they go as they are.
class Console {
 public:
  struct Abilities {
    bool outIsTerminal = false;
    bool errIsTerminal = false;
    bool colour = false;  // NO_COLOR is not set, and the terminal is no dumb one
  };

  Console(std::ostream& out, std::ostream& err, Abilities abilities) : out_(out), err_(err), abilities_(abilities) {}

  // Of this process.
  static Console standard();

  [[nodiscard]] bool outIsTerminal() const { return abilities_.outIsTerminal; }
  [[nodiscard]] bool errIsTerminal() const { return abilities_.errIsTerminal; }

  [[nodiscard]] std::string shown(std::string_view foreign) const;
  [[nodiscard]] std::string heading(std::string_view text) const { return styled("1", text); }
  [[nodiscard]] std::string warning(std::string_view text) const { return styled("31", text); }

  // One line of data. False when nobody takes it any more.
  bool print(std::string_view line);
  // One line of message, after the program's name.
  void say(std::string_view message);
  // A message that the next one replaces; only on a terminal. An empty one takes the last away.
  void showProgress(std::string_view message);
  // The same with a bar for how much of all is done; an empty bar when there is nothing to do.
  void showProgress(double done, double all, std::string_view message);
  // Clears the terminal before the next screenful; on anything else an empty line parts them.
  void nextScreen();

 private:
  [[nodiscard]] std::string styled(std::string_view code, std::string_view text) const;

  std::ostream& out_;
  std::ostream& err_;
  const Abilities abilities_;
  bool progressShown_ = false;
};

}  // namespace vondle
