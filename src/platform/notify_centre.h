#pragma once

#include <functional>
#include <string_view>

namespace vondle {

// Fire-and-forget notifications between the user's processes. Any thread.
class NotifyCentre {
 public:
  virtual ~NotifyCentre() = default;
  // The callback runs for every post of the name from now on, in this process or another, on a thread of the centre's.
  // Observers stay for the centre's life. Names are reverse domain names: letters, digits, dots and hyphens.
  virtual void observe(std::string_view name, std::function<void()> callback) = 0;
  virtual void post(std::string_view name) = 0;
};

}  // namespace vondle
