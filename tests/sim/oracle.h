#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "service/edits/edit.h"
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
//   that the program did not see: that one is in the trash, too, where it can be had again. So is what others put into
//   a deleted folder when the service had just found it empty.
class Oracle {
 public:
  void saved(const std::string& print, const std::string& how);
  void mayGo(const std::string& print);
  // The call that it might have gone by did nothing. It must be there again, unless others let it go, too.
  void takeBack(const std::string& print);

  // A program begins to remove an item, which stands at the place and has this identifier and, perhaps, edit; and has
  // its answer. In between and after it, `noteDeletions` is told what waits in the queue: what is to be deleted of what
  // programs removed, whatever it is called by then and on the server, may go to the trash.
  void removalBegins(const ItemIdentifier& item, const std::optional<Edit>& edit, const Place& place);
  void removalEnds(const std::optional<Place>& place, const std::vector<Edit>& queue);
  // The service died: none is under way any more.
  void removalsEnd(const std::vector<Edit>& queue);
  void noteDeletions(const std::vector<Edit>& queue);
  // A program gave the item, removed or not, contents.
  void madeAgain(const ItemIdentifier& item) { gone_.erase(item.text); }
  // The service has looked into a folder of the server's.
  void listed(const std::string& folder, std::set<std::string> items) { listed_[folder] = std::move(items); }
  // The service is about to move it to the trash, with these items in it.
  void checkRemoval(const SimulatedStorage::Stored& item, const std::vector<SimulatedStorage::Stored>& children) const;
  void trashedByOther(const std::string& id) { trashedByOther_.insert(id); }

  // `inQueue`: the prints of the private files that edits in the queue have.
  void check(const std::vector<SimulatedStorage::Stored>& server, const std::set<std::string>& inQueue) const;
  // When nothing is in the queue any more but what stays there.
  void checkAtEnd(const std::vector<SimulatedStorage::Stored>& server, const std::set<std::string>& inQueue) const;

  [[nodiscard]] std::size_t count() const { return must_.size(); }

 private:
  std::map<std::string, std::string> must_;  // by print, how they came to be
  struct Loose {
    std::string how;
    int times = 0;
  };
  std::map<std::string, Loose> loose_;    // those that were let go
  std::set<std::string> removed_, gone_;  // identifiers: that ever were removed, and that nobody made again
  std::set<EditID> removals_;             // edits of removed items
  std::multiset<std::pair<std::string, std::string>> removing_;
  std::set<std::string> trashedByOther_;
  std::map<std::string, std::set<std::string>> listed_;
};

}  // namespace vondle::sim
