#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/scheduler.h"
#include "random.h"
#include "simulated_storage.h"
#include "testing/scripted_url_session.h"
#include "trace.h"

namespace vondle::sim {

// How badly the way to the server and back is travelled.
struct Weather {
  unsigned faults = 0;   // in a hundred requests
  double latency = 0.5;  // the longest, in seconds, of an undisturbed request
  int outage = 0;        // the status that everything is answered with; 0: none, -1: nobody is reached
};

// Brings requests to the storage service and answers back, late and in any order, now and then not at all: refused on
// the way or by a server in trouble, lost before or after the server acted, delivered twice, cut short, or never
// answered.
class SimulatedNetwork {
 public:
  SimulatedNetwork(SimulatedStorage& storage, Random& random, Trace& trace)
      : storage_(storage), random_(random), trace_(trace) {}

  // For the process that now begins.
  void serve(ScriptedURLLoading& loading, Scheduler& scheduler);
  // It died: what was on its way to the server gets there, or does not, some time later.
  void processDied();
  // One of those gets there now. True when it changes the account.
  bool deliverGhost();
  void forgetGhosts() { ghosts_.clear(); }

  Weather weather;
  // A commit that fails for whatever reason makes the extension keep the contents as a conflicted copy, for nothing
  // that is on the server may be dropped. Where nobody else changes anything there is to be none, so commits arrive.
  bool areCommitsSafe = false;
  // Also says that what is there is not, or that what can be done cannot, and takes a request twice and answers the
  // second. What it says counts, so that the folder may differ from the account afterwards; nothing may be lost.
  bool isLying = false;
  // Told of every request when it leaves, and when it reaches the server, before it does.
  std::function<void()> onDeparture;
  std::function<void(const URLRequest&)> onArrival;

 private:
  enum class Fate { served, refused, lostBefore, lostAfter, unanswered, unansweredAfter, twice, cut };
  [[nodiscard]] Fate draw(const URLRequest& request);
  void travel(std::shared_ptr<ScriptedTask> task);
  ScriptedReply arrive(const URLRequest& request, const char* how);
  void answerLater(const std::shared_ptr<ScriptedTask>& task, ScriptedReply reply);
  [[nodiscard]] Duration latency();

  SimulatedStorage& storage_;
  Random& random_;
  Trace& trace_;
  std::shared_ptr<Queue> queue_;
  std::map<std::uint64_t, URLRequest> onTheWay_;
  std::map<std::uint64_t, URLRequest> ghosts_;
  std::uint64_t last_ = 0;
};

}  // namespace vondle::sim
