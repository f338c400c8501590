#pragma once

#include <string_view>

namespace vondle {

// Short messages that the desktop shows to the user. Any thread; returns at once. Where there is no desktop, or it does
// not answer, nothing happens.
class DesktopNotices {
 public:
  virtual ~DesktopNotices() = default;
  // Plain texts. Replaces what is still to be seen of the same tag.
  virtual void show(std::string_view tag, std::string_view title, std::string_view text) = 0;
  virtual void withdraw(std::string_view tag) = 0;
};

}  // namespace vondle
