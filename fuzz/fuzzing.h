#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

// What the fuzz targets share. A target is one file with one function fuzz: it reads the bytes as its reader would get
// them from outside and requires what must hold whatever they are.
namespace vondle {

void fuzz(std::string_view bytes);

// Ends the process, so that the fuzzer keeps the input, unless the condition holds.
#define REQUIRE(condition)                                                                \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (false)

inline FuzzedDataProvider providerOf(std::string_view bytes) {
  return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

// A folder in memory, for what must have real files; gone at the process's end.
class MemoryFolder {
 public:
  MemoryFolder() : path_("/dev/shm/vondle-fuzz-" + std::to_string(getpid())) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directory(path_);
  }
  ~MemoryFolder() { std::filesystem::remove_all(path_); }
  MemoryFolder(const MemoryFolder&) = delete;
  MemoryFolder& operator=(const MemoryFolder&) = delete;

  [[nodiscard]] std::string path() const { return path_; }

 private:
  const std::string path_;
};

}  // namespace vondle
