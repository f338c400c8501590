#pragma once

#include <span>

namespace vondle {

// Makes thumbnails, with these longer sides in growing order, of the pictures that come on one descriptor, one after
// the other until its end, and answers on the other. A smaller picture keeps its size. A picture is its length and its
// bytes; the answer is a number of PNGs, one for each side wished or 0 where there is none, and each of them with its
// length. Numbers are of 32 bits, as the machine has them. False when what comes is nothing of that kind or nobody
// takes the answers.
bool makeThumbnails(int input, int output, std::span<const int> sides);

}  // namespace vondle
