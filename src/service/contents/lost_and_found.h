#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace vondle {

// Private files that no edit names although nothing says that they are done with: the queue's database was lost, or cut
// short. What programs wrote is in them, so they are the user's to look through, in "lost+found" in the folder of the
// private files. All paths are of the latter.

[[nodiscard]] std::string lostAndFound(const std::string& folder);
// The number of a private file; none when the name is not one.
[[nodiscard]] std::optional<std::int64_t> privateFileNumber(std::string_view name);
// The numbers of the files there; none when it can't be read.
[[nodiscard]] std::set<std::int64_t> lostFiles(const std::string& folder);
// How many files would be lost with the folder, beside those that edits name.
[[nodiscard]] std::size_t countUnclaimed(const std::string& folder, const std::set<std::int64_t>& named);

// Takes one there when it holds something that is not done with, and that has no other name; else it is removed. False
// when it could be neither, and stays.
bool setAside(const std::string& folder, std::int64_t number);
// Brings one back that an edit names after all.
bool bringBack(const std::string& folder, std::int64_t number);

}  // namespace vondle
