#pragma once

namespace vondle {

// Gives memory that the process has freed but keeps back to the system: worth it after much was held for a moment.
// Takes milliseconds; any thread.
void giveBackFreeMemory();

}  // namespace vondle
