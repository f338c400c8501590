#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vondle {

// The program's information dictionary, "CFBundleVersion" and the like; an absent key is one that is not text.
class BundleInformation {
 public:
  explicit BundleInformation(std::map<std::string, std::string, std::less<>> entries) : entries_(std::move(entries)) {}

  [[nodiscard]] std::optional<std::string> text(std::string_view key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? std::nullopt : std::optional(found->second);
  }

 private:
  std::map<std::string, std::string, std::less<>> entries_;
};

}  // namespace vondle
