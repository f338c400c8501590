#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "platform/log.h"

namespace vondle {

// Takes the process's log lines for as long as it lives, and gives the log back as it was. Any thread may log.
class CapturedLog final : private LogSink {
 public:
  struct Line {
    LogLevel level;
    std::string subsystem;
    std::string category;
    std::string message;
    friend bool operator==(const Line&, const Line&) = default;
  };

  CapturedLog();
  ~CapturedLog() override;
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  [[nodiscard]] std::vector<Line> lines() const EXCLUDES(lock_);
  [[nodiscard]] std::vector<std::string> messages() const EXCLUDES(lock_);
  [[nodiscard]] std::vector<std::string> messages(LogLevel level) const EXCLUDES(lock_);
  void clear() EXCLUDES(lock_);

 private:
  void write(LogLevel level, std::string_view subsystem, std::string_view category, std::string_view message) override
      EXCLUDES(lock_);

  mutable Mutex lock_;
  std::vector<Line> lines_ GUARDED_BY(lock_);
  LogSink* const previous_;
};

}  // namespace vondle
