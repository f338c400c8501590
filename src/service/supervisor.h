#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/time.h"

namespace vondle {

// How the worker, the process that serves the mount, tells the supervisor why it ended. 0 is what the extension's exit
// notification leaves behind: it wants to be started anew.
inline constexpr int WORKER_ASKED_FOR_RESTART = 0;
inline constexpr int WORKER_STOPPED = 100;  // unmounted, by a signal or a command
inline constexpr int WORKER_REFUSED = 101;  // it cannot work here; the reason came through the status pipe

// What the worker writes into the status pipe: one line, then it closes the pipe.
inline constexpr std::string_view WORKER_READY = "ready";        // the folder answers
inline constexpr std::string_view WORKER_REFUSES = "refused: ";  // followed by the reason

struct WorkerEnd {
  bool exited = false;  // by itself, with `status`; else a signal ended it
  int status = 0;
};

struct SupervisorDecision {
  bool restart = false;
  Duration delay{0};
  int exitStatus = 0;  // when it does not restart
};

// What to do after a worker's end. A crash is answered by a new worker after a delay that doubles; workers that live
// less than half a minute, six times in a row, end it. Pure, but for the count of such crashes.
class SupervisorPolicy {
 public:
  static constexpr int MAX_FAST_CRASHES = 5;
  static constexpr Duration FAST = seconds(30);
  static constexpr Duration FIRST_DELAY = seconds(0.2);

  SupervisorDecision afterEnd(WorkerEnd end, Duration ranFor, bool stopping);

 private:
  int fastCrashes_ = 0;
};

// The parent of the worker. It holds nothing of the mount, so nothing can block or break it, and it stays the one
// process that the user's session knows: it starts the worker, starts it anew after the exit notification (from the
// program's path, so that a newly installed build takes over) or a crash, and ends it cleanly on SIGTERM, SIGINT and
// SIGHUP. Each worker cleans up the dead mount of the one before. The worker gets SIGTERM when the supervisor dies.
// Use it before any thread is started.
class Supervisor {
 public:
  struct Events {
    std::function<void()> ready;                      // each time a worker serves the folder
    std::function<void(const std::string&)> refused;  // the worker's reason
    std::function<void(const std::string&)> ended;    // a line about an unexpected end, for the log
    std::function<void()> stopping;
  };

  // The worker is started as `command` with one more argument, --status-descriptor=N.
  Supervisor(std::vector<std::string> command, Events events);

  // Until the worker has stopped; gives the process's exit status.
  int run();

 private:
  struct Worker;

  Worker start();
  void report(std::string_view line);

  const std::vector<std::string> command_;
  const Events events_;
};

// The absolute path of this program, also when the file has since been replaced.
std::string programPath();

}  // namespace vondle
