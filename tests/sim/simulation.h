#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "installation.h"
#include "model_tree.h"
#include "oracle.h"
#include "programs.h"
#include "random.h"
#include "simulated_network.h"
#include "simulated_storage.h"
#include "trace.h"

namespace vondle::sim {

struct Settings {
  std::uint64_t seed = 1;
  // Removes an edit from the queue's database as soon as it is being sent: the mistake that must be found.
  bool isCanary = false;
  bool isShown = false;  // every step, on the standard output
};

// One run: everything there is, from one seed. Programs and, in most runs, another device change the same account; the
// network is what it is; the service dies now and then in the middle of writing. Then all faults end, the queue has to
// become empty, and both sides are compared.
class Simulation {
 public:
  // The folder is the run's own.
  Simulation(const Settings& settings, std::string folder);

  // Throws Violation.
  void run();

  [[nodiscard]] Trace& trace() { return trace_; }
  [[nodiscard]] int deaths() const { return deaths_; }

 private:
  // The same time for all lives.
  class WorldClock final : public Clock {
   public:
    Timestamp now() const override { return current ? current->now() : VirtualScheduler::START; }
    MonotonicTime monotonic() const override { return {seconds(now().secondsSince1970)}; }
    const Clock* current = nullptr;
  };
  static constexpr Duration DRAIN_LIMIT = std::chrono::hours(24);

  void prepare();
  void explore();
  void work();
  void step();
  void drain();
  void tidyUp();
  void letProgramsEnd();
  [[nodiscard]] bool isQueueEmpty() const;
  [[noreturn]] void failToDrain();
  void deliverGhost();
  void verify();

  // Runs it in the process that lives; when that dies, another one begins, and false is answered.
  bool live(const std::function<void()>& life);
  void beginLife();
  void arm();
  void processDied();
  void copyHome();
  void checkFolder(const std::set<std::string>& except);
  [[nodiscard]] std::set<std::string> printsInQueue() const;
  void checkPromise();
  bool passUntil(const std::function<bool()>& condition, Duration limit);

  void otherDevice();
  void changeWeather();
  void arrived(const URLRequest& request);
  void checkRemovals(const URLRequest& request);
  void removeRows();

  [[nodiscard]] std::string homeFolder() const { return folder_ + "/home" + std::to_string(deaths_); }

  const Settings settings_;
  const std::string folder_;
  Random random_;
  Trace trace_;
  WorldClock clock_;
  Oracle oracle_;
  ModelTree model_;
  const bool isAlone_;  // no other device
  const bool isLying_;  // so is the server
  const unsigned usualFaults_;
  int deathsLeft_;
  const std::int64_t cacheLimit_;
  SimulatedStorage storage_;
  SimulatedNetwork network_;
  Programs::Numbers numbers_;
  std::uint64_t otherSaves_ = 0;
  int deaths_ = 0;
  std::set<std::string> unsure_;     // paths that were being changed when it died last
  Installation* machine_ = nullptr;  // never destroyed; see CrashPoints
  std::unique_ptr<Programs> programs_;
};

}  // namespace vondle::sim
