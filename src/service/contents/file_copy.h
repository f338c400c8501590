#pragma once

namespace vondle {

// Makes the file at the second descriptor, which is empty, the same as the one at the first: by sharing its blocks
// where the file system can, else by copying what is not a hole. Takes as long as the file is large. 0 or the error
// number.
int copyFileContents(int from, int to);

}  // namespace vondle
