#pragma once

#include <string>

namespace vondle::bench {

// An account of a million items that nobody has to store: the top folder holds folder 0 with 100,000 files and folders
// 1 to 900 with 1,000 each. Every entry follows from its number.
inline constexpr int FOLDERS = 901;
int filesIn(int folder);

// The server's reply to a listing of one of those folders, with so many files.
std::string listingReply(int folder, int files);
// To one of the top folder.
std::string topListingReply();

}  // namespace vondle::bench
