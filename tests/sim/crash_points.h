#pragma once

#include <cstdint>
#include <functional>

#include "platform/clock.h"

namespace vondle::sim {

// Where the simulated process can die. Every system call by which it changes something on the disk passes here (the
// program is linked with --wrap for them, and SQLite is given them), is counted, and may be the one before which, or in
// the middle of which, the process dies as by kill -9: what it wrote stays, all else is lost. No destructor runs: the
// stack is left as it is, and whoever made the objects on the heap must leave them alone.
//
// Beside that, files get the simulated clock's time of modification, so that runs are the same.
class CrashPoints {
 public:
  static void install();

  // Runs a piece of the process's life; false when it died in it.
  static bool survives(const std::function<void()>& life);
  // It dies in the n-th change from now; 0: it does not.
  static void arm(std::uint64_t changes);
  [[nodiscard]] static std::uint64_t changes() { return changes_; }
  // Null: files keep their own time.
  static void setClock(const Clock* clock) { clock_ = clock; }

  // What happens within is not the process's doing.
  class Elsewhere {
   public:
    Elsewhere() : before_(isElsewhere_) { isElsewhere_ = true; }
    ~Elsewhere() { isElsewhere_ = before_; }
    Elsewhere(const Elsewhere&) = delete;
    Elsewhere& operator=(const Elsewhere&) = delete;

   private:
    const bool before_;
  };

  // For the wrapped calls. True: this is the change that is cut in the middle.
  static bool isCut();
  [[noreturn]] static void die();
  static void stamp(int descriptor);
  [[nodiscard]] static const Clock* clock() { return clock_; }

 private:
  static inline const Clock* clock_ = nullptr;
  static inline std::uint64_t changes_ = 0;
  static inline std::uint64_t lastChange_ = 0;
  static inline bool isAlive_ = false;
  static inline bool isElsewhere_ = false;
};

}  // namespace vondle::sim
