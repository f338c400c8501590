#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "measure.h"

// Makes files of random bytes in a folder, one after another, as a program that copies does:
// file_writer FOLDER FILES SIZE.
// Says: seconds, and the median milliseconds of an open, of writing one file, and of a close.

namespace vondle::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

class FileWriter {
 public:
  FileWriter(std::string folder, std::size_t size) : folder_(std::move(folder)), bytes_(size, 0) {}

  bool write(int number) {
    for (auto& byte : bytes_) byte = static_cast<char>(random_());
    const auto path = fmt::format("{}/f{:06}", folder_, number);
    const auto begun = SteadyClock::now();
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    const auto opened = SteadyClock::now();
    const auto count = ::write(descriptor, bytes_.data(), bytes_.size());
    const auto written = SteadyClock::now();
    const bool isClosed = ::close(descriptor) == 0;
    const auto closed = SteadyClock::now();
    opens_.push_back(milliseconds(opened - begun));
    writes_.push_back(milliseconds(written - opened));
    closes_.push_back(milliseconds(closed - written));
    return isClosed && count == static_cast<ssize_t>(bytes_.size());
  }

  void report(double seconds) const {
    fmt::print("{:.6f} {:.3f} {:.3f} {:.3f}\n", seconds, median(opens_), median(writes_), median(closes_));
  }

  static double milliseconds(SteadyClock::duration taken) {
    return std::chrono::duration<double, std::milli>(taken).count();
  }

 private:
  const std::string folder_;
  std::minstd_rand random_{std::random_device()()};
  std::vector<char> bytes_;
  std::vector<double> opens_;
  std::vector<double> writes_;
  std::vector<double> closes_;
};

int run(const std::string& folder, int files, std::size_t size) {
  FileWriter writer(folder, size);
  const auto start = SteadyClock::now();
  for (int i = 0; i < files; ++i)
    if (!writer.write(i)) {
      fmt::print(stderr, "file_writer: a file could not be written\n");
      return EXIT_FAILURE;
    }
  writer.report(FileWriter::milliseconds(SteadyClock::now() - start) / 1000);
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace vondle::bench

int main(int count, char** words) {
  if (count != 4) return 2;
  return vondle::bench::run(words[1], std::atoi(words[2]), static_cast<std::size_t>(std::atoll(words[3])));
}
