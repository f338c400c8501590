#pragma once

#include <string>

namespace vondle {

// Sends this process's stderr, and that of the processes it starts, to the journal if there is one, else to the end of
// the file, which is made 0600; a file of more than 10 MiB is first moved to one with ".1" after its name.
void sendLogToFile(const std::string& path);

}  // namespace vondle
