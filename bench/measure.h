#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vondle::bench {

// What a piece of work has cost: elapsed time, and the processor's of all its threads.
struct Cost {
  double seconds = 0;
  double processorSeconds = 0;
  double peakBytes = 0;  // of memory; programs only
};

Cost costOf(const std::function<void()>& work);
// Of a program and its arguments, which reads that file and whose output goes nowhere; throws unless it succeeds.
Cost costOfProgram(const std::vector<std::string>& words, const std::string& input = "/dev/null");

double median(std::vector<double> values);

// Runs both in turn, one warm-up and then as many rounds as fit into so many seconds (3 to 9), and gives the medians.
// The ratios are medians of the ratios of each round: what else the machine does meanwhile befalls both.
struct Comparison {
  Cost reference;
  Cost ours;
  double timeRatio = 0;  // ours to the reference's
  double processorRatio = 0;
};
Comparison compare(double budgetSeconds, const std::function<Cost()>& reference, const std::function<Cost()>& ours);

// One line of a measurement's report: what was measured, what is asked of it, the figure it is held against, ours, and
// the ratio of the two. What is absent is empty.
void report(std::string_view what, std::string_view asked, std::string_view reference, std::string_view ours,
            std::string_view ratio);
std::string figure(double value, std::string_view unit);

bool isGiven(int count, char** words, std::string_view option);

// A temporary folder that goes with the object.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace vondle::bench
