#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "simulated_storage.h"

namespace vondle::sim {

// A promise was broken.
struct Violation : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What must be true of all contents that anybody was told are saved. Each piece has bytes of its own, by which it is
// followed wherever it goes:
//
// - From the moment that a program's save is acknowledged (or another device's, by the server), its bytes are on the
//   server, in its trash, or in the private file of an edit in the queue; in the end on the server.
// - That ends when somebody replaces or removes them who saw them: a program the contents that its folder showed, the
//   other device those that the server had. From the beginning of such a call they may go, also when it fails half way.
// - They are in the trash only when somebody has moved them there on purpose. A deletion is not held back by a version
//   that the program did not see: that one is in the trash, too, where it can be had again.
class Oracle {
 public:
  void saved(const std::string& print, const std::string& how);
  // Answers what it was saved as, for takeBack.
  std::optional<std::string> mayGo(const std::string& print);
  void takeBack(const std::string& print, const std::optional<std::string>& how);

  // A program removes the item of this identifier, name and contents.
  void removedByProgram(const std::string& id, const std::string& name, const std::string& print);
  // The service is about to move it to the trash.
  void checkRemoval(const SimulatedStorage::Stored& item) const;
  void trashedByOther(const std::string& id) { trashedByOther_.insert(id); }

  // `inQueue`: the prints of the private files that edits in the queue have.
  void check(const std::vector<SimulatedStorage::Stored>& server, const std::set<std::string>& inQueue) const;
  // When nothing is in the queue any more.
  void checkAtEnd(const std::vector<SimulatedStorage::Stored>& server) const;

  [[nodiscard]] std::size_t count() const { return must_.size(); }

 private:
  std::map<std::string, std::string> must_;  // by print, how they came to be
  std::set<std::string> removedIDs_, removedNames_, removedPrints_;
  std::set<std::string> trashedByOther_;
};

}  // namespace vondle::sim
