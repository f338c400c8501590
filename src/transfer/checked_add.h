#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace vondle {

// A sum that must fit: counts of bytes never come near the end, so reaching it means that the process is broken.
inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) {
    std::fputs("vondle: a count overflowed\n", stderr);
    std::abort();
  }
  return sum;
}

}  // namespace vondle
