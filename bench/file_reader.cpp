#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "measure.h"

// Opens, reads to the end and closes the files named on standard input: file_reader READERS BLOCK-SIZE.
// Says: seconds, bytes, and the median milliseconds from an open to its first bytes.

namespace vondle::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

double millisecondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

int run(int readers, std::size_t blockSize) {
  std::vector<std::string> files;
  for (std::string line; std::getline(std::cin, line);) files.push_back(line);
  std::vector<double> firstBytes(files.size());
  std::atomic<std::size_t> next = 0;
  std::atomic<std::int64_t> bytes = 0;
  std::atomic<bool> failed = false;
  const auto start = SteadyClock::now();
  std::vector<std::thread> threads;
  for (int i = 0; i < readers; ++i)
    threads.emplace_back([&] {
      std::vector<char> block(blockSize);
      for (std::size_t file = next++; file < files.size(); file = next++) {
        const auto opened = SteadyClock::now();
        const int descriptor = ::open(files[file].c_str(), O_RDONLY | O_CLOEXEC);
        ssize_t count = ::read(descriptor, block.data(), block.size());
        firstBytes[file] = millisecondsSince(opened);
        for (; count > 0; count = ::read(descriptor, block.data(), block.size())) bytes += count;
        if (count < 0) failed = true;
        ::close(descriptor);
      }
    });
  for (auto& thread : threads) thread.join();
  const double taken = millisecondsSince(start) / 1000;
  if (failed) {
    fmt::print(stderr, "file_reader: some files could not be read\n");
    return EXIT_FAILURE;
  }
  fmt::print("{:.6f} {} {:.3f}\n", taken, bytes.load(), firstBytes.empty() ? 0 : median(firstBytes));
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace vondle::bench

int main(int count, char** words) {
  if (count != 3) return 2;
  return vondle::bench::run(std::atoi(words[1]), static_cast<std::size_t>(std::atoll(words[2])));
}
