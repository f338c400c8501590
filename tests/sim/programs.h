#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "installation.h"
#include "model_tree.h"
#include "oracle.h"
#include "random.h"
#include "simulated_storage.h"
#include "trace.h"

namespace vondle::sim {

// The programs that use the folder, during one life of the service: each works through a script of system calls, one
// after the other, and tells the oracle of what it was told. Several run at a time, never two on one file or name.
class Programs {
 public:
  // Of contents, for the whole run.
  struct Numbers {
    std::uint64_t saves = 0;
    std::uint64_t names = 0;
  };

  // The model is null when others change the account, too.
  Programs(Installation& machine, SimulatedStorage& storage, Oracle& oracle, ModelTree* model, Random& random,
           Trace& trace, Numbers& numbers);

  // Begins something, unless as many as may be are at work.
  void startOne();
  void startLarge();
  // Looks into every folder.
  void listAll();
  [[nodiscard]] bool isAllListed() const;
  // Reads every file, and compares it with what the folder shows.
  void readAll();
  // The names of files that are to be kept downloaded and are not here.
  [[nodiscard]] std::vector<std::string> missingKept() const;
  // Removes what stays on this machine for ever.
  void removeLockFiles();
  // The folder and the model are the same now: from here on the model's folders are found by their inodes, for the
  // paths of the one may be ahead of those of the other by the answers that are on their way.
  void alignModel();
  [[nodiscard]] bool areIdle() const { return running_.empty(); }

  // Paths that calls were changing when the process died.
  [[nodiscard]] std::set<std::string> unsurePaths() const;
  // The folder as it is here, also where it was never listed.
  [[nodiscard]] Listing folder() const;
  // What is shown of a file; none when that cannot be told.
  [[nodiscard]] std::optional<std::string> shown(Inode inode) const;

 private:
  class Script;
  friend class Script;
  using ScriptPtr = std::shared_ptr<Script>;
  struct Target {
    Inode folder = 0;
    std::string name;
    ItemAttributes item;
  };

  [[nodiscard]] std::vector<Inode> folders() const;
  [[nodiscard]] std::vector<Target> targets(bool areFolders) const;
  std::string newName();
  std::string bytesOf(std::size_t size);
  std::size_t someSize();
  bool claim(Script& script, Inode folder, const std::string& name);
  [[nodiscard]] ModelTree::NodePtr modelOf(Inode folder) const;

  void saveNew();
  void overwrite();
  void editInPlace();
  void saveByRename();
  void saveWithBackup();
  void removeFile();
  void removeFolder();
  void makeFolder();
  void moveFile();
  void moveFolder();
  void read(const Target& target);
  void lockFile();
  void list(Inode folder);
  void touch();
  void evict();
  void keep();

  // Steps of scripts.
  void create(const ScriptPtr& script, Inode folder, const std::string& name, bool mustBeNew);
  void openEmptied(const ScriptPtr& script);
  void write(const ScriptPtr& script, std::string bytes, std::int64_t offset);
  void writeAll(const ScriptPtr& script, const std::string& bytes);
  void close(const ScriptPtr& script, std::string what, const std::string& bytes);
  void lookUp(const ScriptPtr& script, Inode folder, const std::string& name);
  void rename(const ScriptPtr& script, Inode folder, const std::string& name, Inode toFolder, const std::string& toName,
              bool mayReplace);
  void unlink(const ScriptPtr& script, Inode folder, const std::string& name);
  void pause(const ScriptPtr& script);
  void begin(const ScriptPtr& script);
  void noteReplaced(Inode inode);
  void noteBase(const ItemIdentifier& item);
  Place beginRemoval(Inode inode, Inode folder, const std::string& name);
  void acknowledged(const Script& script, const std::string& print, const std::string& what);

  Installation& machine_;
  SimulatedStorage& storage_;
  Oracle& oracle_;
  ModelTree* const model_;
  Random& random_;
  Trace& trace_;
  Numbers& numbers_;
  const std::shared_ptr<Queue> queue_;
  std::set<ScriptPtr> running_;  // NOLINT: never in an order that matters
  std::set<std::pair<Inode, std::string>> busyNames_;
  std::set<Inode> busyInodes_;
  std::map<Inode, ModelTree::NodePtr> modelFolders_;
  int lastScript_ = 0;
};

}  // namespace vondle::sim
