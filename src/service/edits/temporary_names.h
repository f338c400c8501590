#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/time.h"

namespace vondle {

// Which new files stay on this machine because of their names: the lock and swap files that programs keep beside what
// they have open, and the files that they write first and rename afterwards. A value.
class TemporaryNames {
 public:
  // A file of such a name is one that a program is about to rename or remove.
  static constexpr std::string_view SHORT_LIVED = "*.tmp";
  static constexpr Duration SHORT_LIFE = seconds(60);

  // Of LibreOffice, vim, GLib and the Office programs.
  static std::vector<std::string> defaultPatterns();

  // Patterns of the shell (*, ?, [a-z]) for whole names, of files that stay here for ever.
  explicit TemporaryNames(std::vector<std::string> patterns = defaultPatterns());

  // How long a new file of that name stays here: none, not at all; Duration::max(): for as long as it has that name.
  [[nodiscard]] std::optional<Duration> stay(const std::string& name) const;

 private:
  std::vector<std::string> patterns_;
};

}  // namespace vondle
