#pragma once

#include <memory>
#include <optional>
#include <string>

#include "service/trash/trash.h"

namespace vondle {

// Brings one item back from the trash and to the place wished. What is still on its way there never leaves; of anything
// else the server is asked. Runs on the trash's queue; kept alive by what it waits for.
class TrashRestore : public std::enable_shared_from_this<TrashRestore> {
 public:
  TrashRestore(std::shared_ptr<Trash> trash, std::uint64_t number, Inode folder, std::string name, bool mayReplace,
               Trash::Done completion);
  void start();

 private:
  void takeBack(std::optional<Item> item);
  void takenBack(const Result<Inode>& inode);
  void lookUp();
  void waitUntilSent();
  [[nodiscard]] bool hasPatience() const;
  void confirm();
  void ask();
  [[nodiscard]] Item inTrash() const;
  void restored(const Result<SavedItem>& saved);
  void makeWay();
  [[nodiscard]] bool isWayToBeFree() const;
  void askAgain(int otherwise);
  void restoreAside();
  void place();
  void moveOnServer();
  void moveHere(Inode from, const std::string& name);
  void checkServer(const Error& error);
  void finish(Result<void> result);

  // The answer of any thread becomes a step on the queue.
  template <class Function>
  [[nodiscard]] auto onQueue(Function function);

  const std::shared_ptr<Trash> trash_;
  const std::uint64_t number_;
  const Inode folder_;
  const std::string name_;
  const bool mayReplace_;
  const MonotonicTime startedAt_;
  Trash::Done completion_;
  ItemIdentifier item_;
  std::optional<Item> saved_;  // as the server restored it
};

}  // namespace vondle
