#include "service/edits/temporary_names.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

namespace vondle {

namespace {

bool matches(const std::string& pattern, const std::string& name) {
  return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

}  // namespace

std::vector<std::string> TemporaryNames::defaultPatterns() {
  return {".~lock.*#", "*.swp", "*.swx", "*.swo", ".goutputstream-*", "~$*"};
}

TemporaryNames::TemporaryNames(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {}

std::optional<Duration> TemporaryNames::stay(const std::string& name) const {
  if (std::ranges::any_of(patterns_, [&](const auto& pattern) { return matches(pattern, name); }))
    return Duration::max();
  if (matches(std::string(SHORT_LIVED), name)) return SHORT_LIFE;
  return std::nullopt;
}

}  // namespace vondle
