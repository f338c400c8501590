#pragma once

#include <cstdint>

namespace vondle {

// Names an item towards the kernel and within the service: stable over restarts, never given to another item.
using Inode = std::uint64_t;
inline constexpr Inode ROOT_INODE = 1;

}  // namespace vondle
