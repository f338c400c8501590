#include "cli/terminal_secret.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

namespace vondle {

namespace {

volatile std::sig_atomic_t interruptedBy = 0;
void noteSignal(int signal) {
  interruptedBy = signal;
}

// While it lives, the terminal shows nothing of what is typed, and signals that would end or stop the program with the
// terminal in that state only end the reading.
class HiddenTyping {
 public:
  explicit HiddenTyping(int terminal) : terminal_(terminal) {
    struct sigaction note{};
    note.sa_handler = noteSignal;  // without SA_RESTART, so that the read returns
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) ::sigaction(SIGNALS[i], &note, &handlers_[i]);
    if (::tcgetattr(terminal, &before_) != 0) return;
    auto hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    changed_ = ::tcsetattr(terminal, TCSAFLUSH, &hidden) == 0;
  }
  ~HiddenTyping() {
    if (changed_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) ::sigaction(SIGNALS[i], &handlers_[i], nullptr);
  }
  HiddenTyping(const HiddenTyping&) = delete;
  HiddenTyping& operator=(const HiddenTyping&) = delete;

  [[nodiscard]] bool isHidden() const { return changed_; }

 private:
  static constexpr std::array SIGNALS = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

  const int terminal_;
  termios before_{};
  bool changed_ = false;
  std::array<struct sigaction, SIGNALS.size()> handlers_{};
};

constexpr std::size_t MAX_LENGTH = 8192;

Outcome<std::string> readHidden(int terminal, const std::string& prompt) {
  const HiddenTyping hidden(terminal);
  if (!hidden.isHidden()) return fail(ExitCode::failed, "the terminal cannot hide what is typed; use --key-file");
  [[maybe_unused]] auto written = ::write(terminal, prompt.data(), prompt.size());
  std::string secret;
  for (char c = 0; secret.size() < MAX_LENGTH && interruptedBy == 0;) {
    if (::read(terminal, &c, 1) != 1 || c == '\n') break;
    secret += c;
  }
  written = ::write(terminal, "\n", 1);
  return secret;
}

}  // namespace

Outcome<std::string> readSecretFromTerminal(const std::string& prompt) {
  const int terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (terminal < 0) {
    return fail(ExitCode::usage, "there is no terminal to ask on; give the key with --key-file FILE or --key-file -");
  }
  interruptedBy = 0;
  auto secret = readHidden(terminal, prompt);
  ::close(terminal);
  if (const int signal = std::exchange(interruptedBy, 0)) {
    ::raise(signal);
    return fail(ExitCode::failed, "interrupted; nothing was changed");
  }
  return secret;
}

}  // namespace vondle
