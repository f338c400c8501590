#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/desktop_notices.h"

namespace vondle {

// A desktop that keeps what it was told. One thread.
class SimulatedDesktopNotices : public DesktopNotices {
 public:
  void show(std::string_view tag, std::string_view, std::string_view text) override {
    shown.emplace_back(text);
    visible[std::string(tag)] = text;
  }
  void withdraw(std::string_view tag) override {
    ++withdrawals;
    visible.erase(std::string(tag));
  }

  std::vector<std::string> shown;              // all
  std::map<std::string, std::string> visible;  // by tag
  int withdrawals = 0;
};

}  // namespace vondle
