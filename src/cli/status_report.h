#pragma once

#include <optional>
#include <string>

#include "base/json.h"
#include "base/time.h"
#include "cli/command_context.h"

namespace vondle {

// What `vondle status` reports, gathered from the service, the configuration and the extension's published rates.
class StatusReport {
 public:
  static StatusReport gather(const CommandContext& context);

  [[nodiscard]] bool isRunning() const { return service_.has_value(); }
  [[nodiscard]] const Failure& whyNotRunning() const { return whyNotRunning_; }

  [[nodiscard]] json::Object toJSON() const;
  // The lines for people, each without its line break.
  [[nodiscard]] std::string toText(const Console& console) const;

 private:
  [[nodiscard]] std::string accountText() const;
  [[nodiscard]] std::string changesText() const;

  std::optional<json::Object> service_;
  Failure whyNotRunning_;
  std::optional<Account::Summary> account_;
  std::string configurationError_;
  json::Object settings_;
  double downRate_ = 0;  // bytes per second
  double upRate_ = 0;
  Timestamp now_;
};

}  // namespace vondle
