#include "testing/captured_log.h"

namespace vondle {

CapturedLog::CapturedLog() : previous_(setLogSink(this)) {}

CapturedLog::~CapturedLog() {
  setLogSink(previous_);
}

std::vector<CapturedLog::Line> CapturedLog::lines() const {
  MutexLock hold(lock_);
  return lines_;
}

std::vector<std::string> CapturedLog::messages() const {
  std::vector<std::string> found;
  for (Line& line : lines()) found.push_back(std::move(line.message));
  return found;
}

std::vector<std::string> CapturedLog::messages(LogLevel level) const {
  std::vector<std::string> found;
  for (Line& line : lines())
    if (line.level == level) found.push_back(std::move(line.message));
  return found;
}

void CapturedLog::clear() {
  MutexLock hold(lock_);
  lines_.clear();
}

void CapturedLog::write(LogLevel level, std::string_view subsystem, std::string_view category,
                        std::string_view message) {
  MutexLock hold(lock_);
  lines_.push_back({level, std::string(subsystem), std::string(category), std::string(message)});
}

}  // namespace vondle
