#include "programs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>

#include <fmt/format.h>

#include "service/follow/keep_action.h"

namespace vondle::sim {
namespace {

constexpr std::size_t AT_ONCE = 3;
constexpr std::size_t NAMES = 14;
constexpr std::size_t MAX_FOLDERS = 14;
constexpr std::size_t CHUNK = 16 * 1024;
// Larger than what goes up in one request; nearly all of it is a hole.
constexpr std::int64_t LARGE = 104'857'600 + 5'000'000;

// Of an item's contents version, which begins with it.
std::int64_t numberOf(std::string_view contentVersion) {
  std::int64_t number = 0;
  std::from_chars(contentVersion.data(), contentVersion.data() + contentVersion.size(), number);
  return number;
}

}  // namespace

// System calls of one program, one after the other; the first that fails ends it.
class Programs::Script : public std::enable_shared_from_this<Script> {
 public:
  using Step = std::move_only_function<void(const ScriptPtr&)>;

  Script(Programs& programs, std::string words)
      : number(++programs.lastScript_), programs_(programs), words_(std::move(words)) {}

  void add(Step step) { steps_.push_back(std::move(step)); }
  void next() {
    if (steps_.empty()) return end();
    auto step = std::move(steps_.front());
    steps_.pop_front();
    step(shared_from_this());
  }
  // The way on from a call that answers nothing but an error.
  Kernel::Then thenNext(const char* call) {
    return [self = shared_from_this(), call](const KernelAnswer& answer) {
      if (answer.error != 0) return self->failed(call, answer.error);
      self->next();
    };
  }
  void failed(const char* call, int error) {
    programs_.trace_.add("prog {}: {} fails: {}", number, call, ::strerrorname_np(error));
    if (isOpen) {
      isOpen = false;
      programs_.machine_.kernel().release(inode, {.writes = true}, [](const KernelAnswer&) {});
    }
    hasFailed = true;
    if (node) node->print = programs_.shown(inode).value_or(node->print);
    end();
  }
  [[nodiscard]] const std::string& words() const { return words_; }

  const int number;
  std::vector<std::pair<Inode, std::string>> names;
  std::vector<Inode> inodes;
  std::vector<std::pair<ModelTree::NodePtr, std::string>> places;  // that the model is unsure of when the process dies
  Inode inode = 0;
  ModelTree::NodePtr node;  // of the file that is written
  bool isOpen = false;
  bool hasFailed = false;
  std::vector<std::pair<std::string, std::optional<std::string>>> mayGo;  // of the call that is under way

 private:
  void end() {
    const auto self = shared_from_this();
    for (const auto& name : names) programs_.busyNames_.erase(name);
    for (const auto one : inodes) programs_.busyInodes_.erase(one);
    programs_.running_.erase(self);
  }

  Programs& programs_;
  const std::string words_;
  std::deque<Step> steps_;
};

Programs::Programs(Installation& machine, SimulatedStorage& storage, Oracle& oracle, ModelTree* model, Random& random,
                   Trace& trace, Numbers& numbers)
    : machine_(machine),
      storage_(storage),
      oracle_(oracle),
      model_(model),
      random_(random),
      trace_(trace),
      numbers_(numbers),
      queue_(machine.scheduler.makeSerialQueue("scripts")) {}

// --- What there is ---

std::optional<std::string> Programs::shown(Inode inode) const {
  if (const auto file = machine_.core().edited()->find(inode)) return printOfFile(file->descriptor());
  const auto item = machine_.tree().storedItem(inode);
  if (!item || item->isFolder()) return std::nullopt;
  return storage_.printOf(item->itemIdentifier.text, numberOf(item->itemVersion.contentVersion));
}

std::vector<Inode> Programs::folders() const {
  std::vector<Inode> found{ROOT_INODE};
  for (std::size_t i = 0; i < found.size(); ++i) {
    std::map<std::string, Inode> sorted;
    for (const auto& entry : machine_.tree().entries(found[i], machine_.tree().children(found[i])))
      if (entry.attributes.isFolder) sorted.emplace(entry.name, entry.attributes.inode);
    for (const auto& [name, inode] : sorted) found.push_back(inode);
  }
  return found;
}

std::vector<Programs::Target> Programs::targets(bool areFolders) const {
  std::vector<Target> found;
  for (const auto folder : folders()) {
    std::map<std::string, ItemAttributes> sorted;
    for (const auto& entry : machine_.tree().entries(folder, machine_.tree().children(folder)))
      if (entry.attributes.isFolder == areFolders) sorted.emplace(entry.name, entry.attributes);
    for (auto& [name, item] : sorted) found.push_back({folder, name, item});
  }
  return found;
}

Listing Programs::folder() const {
  Listing all;
  std::function<void(Inode, const std::string&)> collect = [&](Inode folder, const std::string& path) {
    for (const auto& entry : machine_.tree().entries(folder, machine_.tree().children(folder))) {
      const auto here = path + "/" + entry.name;
      const auto inode = entry.attributes.inode;
      const bool isFolder = entry.attributes.isFolder;
      all[here] = {isFolder, isFolder ? "" : shown(inode).value_or("unknown")};
      if (isFolder) collect(inode, here);
    }
  };
  collect(ROOT_INODE, "");
  return all;
}

std::set<std::string> Programs::unsurePaths() const {
  std::set<std::string> paths;
  for (const auto& script : running_)
    for (const auto& [folder, name] : script->places) paths.insert(ModelTree::pathOf(*folder) + "/" + name);
  return paths;
}

void Programs::alignModel() {
  modelFolders_.clear();
  if (!model_) return;
  for (const auto folder : folders())
    if (const auto node = modelOf(folder)) modelFolders_[folder] = node;
}

ModelTree::NodePtr Programs::modelOf(Inode folder) const {
  if (const auto known = modelFolders_.find(folder); known != modelFolders_.end()) return known->second;
  const auto path = machine_.tree().pathOf(folder);
  return model_ && path ? model_->at(*path) : nullptr;
}

// --- What is done ---

std::string Programs::newName() {
  static constexpr std::array<const char*, 4> ENDS = {"", ".txt", ".jpg", ".bin"};
  const auto number = random_.below(NAMES);
  return fmt::format("n{}{}", number, ENDS[number % ENDS.size()]);
}

std::size_t Programs::someSize() {
  switch (random_.below(6)) {
    case 0:
      return 0;
    case 1:
      return 40'000 + random_.below(25'000);
    default:
      return 12 + random_.below(3'000);
  }
}

// No other contents are the same, whatever their size.
std::string Programs::bytesOf(std::size_t size) {
  std::string bytes(size, '.');
  const auto number = fmt::format("{:010}\n", ++numbers_.saves);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = i < number.size() ? number[i] : static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return bytes;
}

bool Programs::claim(Script& script, Inode folder, const std::string& name) {
  if (!busyNames_.emplace(folder, name).second) return false;
  script.names.emplace_back(folder, name);
  if (const auto node = modelOf(folder)) script.places.emplace_back(node, name);
  const auto item = machine_.tree().lookup(folder, name);
  if (!item || item->isFolder) return true;
  if (!busyInodes_.insert(item->inode).second) return false;
  script.inodes.push_back(item->inode);
  return true;
}

void Programs::begin(const ScriptPtr& script) {
  trace_.add("prog {}: {}", script->number, script->words());
  running_.insert(script);
  script->next();
}

void Programs::startOne() {
  if (running_.size() >= AT_ONCE) return;
  const auto kind = random_.below(100);
  if (kind < 16) return saveNew();
  if (kind < 28) return overwrite();
  if (kind < 36) return editInPlace();
  if (kind < 46) return saveByRename();
  if (kind < 50) return saveWithBackup();
  if (kind < 59) return removeFile();
  if (kind < 65) return removeFolder();
  if (kind < 71) return makeFolder();
  if (kind < 81) return moveFile();
  if (kind < 86) return moveFolder();
  if (kind < 90) {
    const auto all = targets(false);
    if (!all.empty()) read(random_.anyOf(all));
    return;
  }
  if (kind < 93) return lockFile();
  if (kind < 95) return list(random_.anyOf(folders()));
  if (kind < 98) return touch();
  random_.oneIn(2) ? evict() : keep();
}

// --- Steps ---

void Programs::pause(const ScriptPtr& script) {
  script->add([this](const ScriptPtr& self) {
    if (!random_.oneIn(6)) return self->next();
    queue_->after(seconds(random_.smallOf(random_.oneIn(10) ? 60 : 4)), [self] { self->next(); });
  });
}

void Programs::create(const ScriptPtr& script, Inode folder, const std::string& name, bool mustBeNew) {
  script->add([this, folder, name, mustBeNew](const ScriptPtr& self) {
    machine_.kernel().create(folder, name, !mustBeNew, [this, self, folder, name](const KernelAnswer& answer) {
      if (answer.error != 0) return self->failed("create", answer.error);
      self->inode = answer.node.inode;
      self->isOpen = true;
      if (busyInodes_.insert(self->inode).second) self->inodes.push_back(self->inode);
      if (const auto parent = modelOf(folder); parent && model_) self->node = model_->make(parent, name, false);
      self->next();
    });
  });
}

// What the item shows, and what its edit is recorded to be made on, may be replaced from now on.
void Programs::noteReplaced(Inode inode) {
  if (const auto print = shown(inode)) oracle_.mayGo(*print);
  if (const auto item = machine_.tree().identifierOf(inode)) noteBase(*item);
}

void Programs::noteBase(const ItemIdentifier& item) {
  const auto edit = machine_.tree().editOf(item);
  if (!edit || isLocal(item)) return;
  if (const auto print = storage_.printOf(item.text, numberOf(edit->baseVersion.contentVersion))) oracle_.mayGo(*print);
}

// Inode 0: nothing stands there yet.
Place Programs::beginRemoval(Inode inode, Inode folder, const std::string& name) {
  auto place = machine_.tree().placeOf(inode).value_or(
      Place{machine_.tree().identifierOf(folder).value_or(ItemIdentifier()), name});
  oracle_.removalBegins(machine_.tree().identifierOf(inode).value_or(ItemIdentifier()), machine_.edits().ofItem(inode),
                        place);
  return place;
}

void Programs::openEmptied(const ScriptPtr& script) {
  script->add([this](const ScriptPtr& self) {
    const auto print = shown(self->inode);
    if (print) oracle_.mayGo(*print);
    machine_.kernel().open(self->inode, {.writes = true, .truncates = true},
                           [this, self, print](const KernelAnswer& answer) {
                             if (answer.error != 0) {
                               if (print && shown(self->inode) == print) oracle_.takeBack(*print);
                               return self->failed("open", answer.error);
                             }
                             self->isOpen = true;
                             noteReplaced(self->inode);
                             if (self->node) self->node->print = EMPTY;
                             self->next();
                           });
  });
}

void Programs::write(const ScriptPtr& script, std::string bytes, std::int64_t offset) {
  script->add([this, bytes = std::move(bytes), offset](const ScriptPtr& self) {
    machine_.kernel().write(self->inode, bytes, offset, [this, self](const KernelAnswer& answer) {
      if (answer.error != 0) return self->failed("write", answer.error);
      noteReplaced(self->inode);
      self->next();
    });
  });
}

void Programs::writeAll(const ScriptPtr& script, const std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += CHUNK) {
    write(script, bytes.substr(at, CHUNK), static_cast<std::int64_t>(at));
    pause(script);
  }
}

void Programs::acknowledged(const Script& script, const std::string& print, const std::string& what) {
  oracle_.saved(print, fmt::format("program {}’s {}", script.number, what));
  if (const auto item = machine_.tree().identifierOf(script.inode)) oracle_.madeAgain(*item);
}

// `bytes`: all that the file is to have; empty: what is there now.
void Programs::close(const ScriptPtr& script, std::string what, const std::string& bytes) {
  if (random_.oneIn(5))
    script->add([this](const ScriptPtr& self) { machine_.kernel().sync(self->inode, self->thenNext("fsync")); });
  script->add([this, what = std::move(what), print = printOf(bytes)](const ScriptPtr& self) {
    machine_.kernel().flush(self->inode, [this, self, what, print](const KernelAnswer& answer) {
      if (answer.error != 0) return self->failed("close", answer.error);
      const auto now = shown(self->inode);
      if (self->node) self->node->print = print == EMPTY ? now.value_or("unknown") : print;
      if (model_ && model_->isTrusted() && print != EMPTY && now != print)
        throw Violation(
            fmt::format("program {} saved {} ({}), but sees {}", self->number, what, print, now.value_or("nothing")));
      // Gone, or no longer its own: others have removed or changed the file that it still had open.
      if (now && (print == EMPTY || now == print) && machine_.tree().attributes(self->inode))
        acknowledged(*self, *now, what);
      trace_.add("prog {}: saved {} as {} (inode {})", self->number, what, now.value_or("nothing"), self->inode);
      self->next();
    });
  });
  script->add([this](const ScriptPtr& self) {
    self->isOpen = false;
    machine_.kernel().release(self->inode, {.writes = true}, self->thenNext("release"));
  });
}

// The kernel looks names up before it renames or removes: what the folder turns out to have is known then.
void Programs::lookUp(const ScriptPtr& script, Inode folder, const std::string& name) {
  script->add([this, folder, name](const ScriptPtr& self) {
    machine_.kernel().lookup(folder, name, [self](const KernelAnswer&) { self->next(); });
  });
}

void Programs::rename(const ScriptPtr& script, Inode folder, const std::string& name, Inode toFolder,
                      const std::string& toName, bool mayReplace) {
  lookUp(script, toFolder, toName);
  script->add([this, folder, name, toFolder, toName, mayReplace](const ScriptPtr& self) {
    const auto replaced = machine_.tree().lookup(toFolder, toName);
    const auto moved = machine_.tree().lookup(folder, name);
    const bool isItself = replaced && moved && replaced->inode == moved->inode;
    std::optional<std::string> print;
    std::optional<Place> place;
    const auto id = machine_.tree().identifierOf(replaced ? replaced->inode : 0).value_or(ItemIdentifier());
    // What comes to the name until the call is done is replaced, too.
    if (mayReplace && !isItself) place = beginRemoval(replaced ? replaced->inode : 0, toFolder, toName);
    if (replaced && place) print = shown(replaced->inode);
    if (print) oracle_.mayGo(*print);
    machine_.kernel().rename(
        folder, name, toFolder, toName, mayReplace,
        [this, self, folder, name, toFolder, toName, print, replaced, place, id](const KernelAnswer& answer) {
          oracle_.removalEnds(place, machine_.edits().pending());
          if (answer.error != 0) {
            if (print && shown(replaced->inode) == print) oracle_.takeBack(*print);
            return self->failed("rename", answer.error);
          }
          // It may have become newer since.
          if (place) noteBase(id);
          if (model_) {
            const auto from = modelOf(folder), to = modelOf(toFolder);
            if (from && to && ModelTree::child(from, name) && !(from == to && name == toName))
              model_->move(from, name, to, toName);
          }
          self->next();
        });
  });
}

void Programs::unlink(const ScriptPtr& script, Inode folder, const std::string& name) {
  lookUp(script, folder, name);
  script->add([this, folder, name](const ScriptPtr& self) {
    const auto item = machine_.tree().lookup(folder, name);
    std::optional<std::string> print;
    std::optional<Place> place;
    const auto id = machine_.tree().identifierOf(item ? item->inode : 0).value_or(ItemIdentifier());
    if (item) {
      print = shown(item->inode);
      if (print) oracle_.mayGo(*print);
      place = beginRemoval(item->inode, folder, name);
    }
    machine_.kernel().removeFile(folder, name,
                                 [this, self, folder, name, item, print, place, id](const KernelAnswer& answer) {
                                   oracle_.removalEnds(place, machine_.edits().pending());
                                   if (answer.error != 0) {
                                     if (print && shown(item->inode) == print) oracle_.takeBack(*print);
                                     return self->failed("unlink", answer.error);
                                   }
                                   noteBase(id);
                                   if (const auto parent = modelOf(folder)) ModelTree::remove(parent, name);
                                   self->next();
                                 });
  });
}

// --- Scripts ---

void Programs::saveNew() {
  const auto folder = random_.anyOf(folders());
  const auto name = newName();
  const auto bytes = bytesOf(someSize());
  const auto script = std::make_shared<Script>(
      *this, fmt::format("new {} in {} of {}", name, machine_.tree().pathOf(folder).value_or("?"), bytes.size()));
  if (machine_.tree().lookup(folder, name) || !claim(*script, folder, name)) return script->next();
  create(script, folder, name, true);
  pause(script);
  writeAll(script, bytes);
  close(script, name, bytes);
  begin(script);
}

void Programs::startLarge() {
  const auto name = newName();
  const auto script = std::make_shared<Script>(*this, "a large " + name);
  if (machine_.tree().lookup(ROOT_INODE, name) || !claim(*script, ROOT_INODE, name)) return script->next();
  create(script, ROOT_INODE, name, true);
  script->add([this](const ScriptPtr& self) {
    machine_.kernel().change(self->inode, {.permissions = {}, .size = LARGE, .modified = {}}, self->thenNext("size"));
  });
  write(script, bytesOf(100), 0);
  close(script, name, "");
  begin(script);
}

void Programs::overwrite() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto bytes = bytesOf(someSize());
  const auto script = std::make_shared<Script>(
      *this, fmt::format("overwrite {} ({}) with {}", target.name, target.item.inode, bytes.size()));
  if (!claim(*script, target.folder, target.name)) return script->next();
  script->inode = target.item.inode;
  if (const auto parent = modelOf(target.folder)) script->node = ModelTree::child(parent, target.name);
  openEmptied(script);
  pause(script);
  writeAll(script, bytes);
  close(script, target.name, bytes);
  begin(script);
}

// Other bytes at the beginning, and more or fewer of them.
void Programs::editInPlace() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto script =
      std::make_shared<Script>(*this, fmt::format("edit {} ({}) in place", target.name, target.item.inode));
  if (!claim(*script, target.folder, target.name)) return script->next();
  script->inode = target.item.inode;
  if (const auto parent = modelOf(target.folder)) script->node = ModelTree::child(parent, target.name);
  script->add([this](const ScriptPtr& self) {
    machine_.kernel().open(self->inode, {.writes = true}, [self](const KernelAnswer& answer) {
      if (answer.error != 0) return self->failed("open", answer.error);
      self->isOpen = true;
      self->next();
    });
  });
  script->add([this](const ScriptPtr& self) {
    const auto print = shown(self->inode);
    if (print) oracle_.mayGo(*print);
    machine_.kernel().write(self->inode, bytesOf(12), 0, [this, self, print](const KernelAnswer& answer) {
      if (answer.error != 0) {
        if (print && shown(self->inode) == print) oracle_.takeBack(*print);
        return self->failed("write", answer.error);
      }
      noteReplaced(self->inode);
      self->next();
    });
  });
  pause(script);
  if (random_.oneIn(2)) {
    const auto size = static_cast<std::int64_t>(12 + random_.below(5'000));
    script->add([this, size](const ScriptPtr& self) {
      machine_.kernel().change(self->inode, {.permissions = {}, .size = size, .modified = {}},
                               [this, self](const KernelAnswer& answer) {
                                 if (answer.error != 0) return self->failed("size", answer.error);
                                 noteReplaced(self->inode);
                                 self->next();
                               });
    });
  }
  close(script, target.name, "");
  begin(script);
}

// To another name first, then over the file.
void Programs::saveByRename() {
  static constexpr std::array<const char*, 4> PATTERNS = {"{}.tmp", ".goutputstream-{}", ".{}.part", "{}~"};
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto name =
      fmt::format(fmt::runtime(random_.anyOf(PATTERNS)), fmt::format("{}{}", target.name, ++numbers_.names));
  const auto bytes = bytesOf(12 + random_.below(9'000));
  const auto script =
      std::make_shared<Script>(*this, fmt::format("save {} ({}) by way of {}", target.name, target.item.inode, name));
  if (!claim(*script, target.folder, target.name) || !claim(*script, target.folder, name)) return script->next();
  create(script, target.folder, name, true);
  writeAll(script, bytes);
  close(script, name, bytes);
  pause(script);
  rename(script, target.folder, name, target.folder, target.name, true);
  begin(script);
}

// The old one goes aside, the new one is made in its place, the old one goes.
void Programs::saveWithBackup() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto backup = target.name + "~";
  const auto bytes = bytesOf(someSize());
  const auto script =
      std::make_shared<Script>(*this, fmt::format("save {} ({}) with a backup", target.name, target.item.inode));
  if (machine_.tree().lookup(target.folder, backup) || !claim(*script, target.folder, target.name) ||
      !claim(*script, target.folder, backup))
    return script->next();
  rename(script, target.folder, target.name, target.folder, backup, true);
  pause(script);
  create(script, target.folder, target.name, true);
  writeAll(script, bytes);
  close(script, target.name, bytes);
  pause(script);
  unlink(script, target.folder, backup);
  begin(script);
}

void Programs::removeFile() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto script = std::make_shared<Script>(*this, fmt::format("remove {} ({})", target.name, target.item.inode));
  if (!claim(*script, target.folder, target.name)) return script->next();
  unlink(script, target.folder, target.name);
  begin(script);
}

void Programs::removeFolder() {
  const auto all = targets(true);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  // With all that is in it now, or alone, which only works when there is nothing.
  const auto script =
      std::make_shared<Script>(*this, fmt::format("remove the folder {} ({})", target.name, target.item.inode));
  if (!claim(*script, target.folder, target.name)) return script->next();
  const auto folder = target.item.inode;
  std::map<std::string, ItemAttributes> below;
  for (const auto& entry : machine_.tree().entries(folder, machine_.tree().children(folder)))
    below.emplace(entry.name, entry.attributes);
  if (below.size() > 4 && !random_.oneIn(4)) below.clear();
  for (const auto& [name, item] : below)
    if (!item.isFolder && !claim(*script, folder, name)) return script->next();
  for (const auto& [name, item] : below)
    if (!item.isFolder) unlink(script, folder, name);
  script->add([this, target](const ScriptPtr& self) {
    const auto place = beginRemoval(target.item.inode, target.folder, target.name);
    machine_.kernel().removeFolder(target.folder, target.name, [this, self, target, place](const KernelAnswer& answer) {
      oracle_.removalEnds(place, machine_.edits().pending());
      if (answer.error != 0) return self->failed("rmdir", answer.error);
      if (const auto parent = modelOf(target.folder)) ModelTree::remove(parent, target.name);
      self->next();
    });
  });
  begin(script);
}

void Programs::makeFolder() {
  const auto all = folders();
  if (all.size() > MAX_FOLDERS) return;
  const auto folder = random_.anyOf(all);
  const auto name = fmt::format("f{}", random_.below(NAMES));
  const auto script = std::make_shared<Script>(
      *this, fmt::format("make the folder {} in {}", name, machine_.tree().pathOf(folder).value_or("?")));
  if (!claim(*script, folder, name)) return script->next();
  script->add([this, folder, name](const ScriptPtr& self) {
    machine_.kernel().makeFolder(folder, name, [this, self, folder, name](const KernelAnswer& answer) {
      if (answer.error != 0) return self->failed("mkdir", answer.error);
      if (const auto parent = modelOf(folder)) modelFolders_[answer.node.inode] = model_->make(parent, name, true);
      self->next();
    });
  });
  begin(script);
}

void Programs::moveFile() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto to = random_.oneIn(2) ? target.folder : random_.anyOf(folders());
  const auto name = random_.oneIn(3) ? target.name : newName();
  if (to == target.folder && name == target.name) return;
  const bool mayReplace = random_.oneIn(2);
  const auto script = std::make_shared<Script>(
      *this, fmt::format("move {} ({}) to {}/{}{}", target.name, target.item.inode,
                         machine_.tree().pathOf(to).value_or("?"), name, mayReplace ? "" : " if that is free"));
  if (!claim(*script, target.folder, target.name) || !claim(*script, to, name)) return script->next();
  rename(script, target.folder, target.name, to, name, mayReplace);
  begin(script);
}

void Programs::moveFolder() {
  const auto all = targets(true);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto to = random_.oneIn(2) ? target.folder : random_.anyOf(folders());
  const auto name = random_.oneIn(3) ? target.name : fmt::format("f{}", random_.below(NAMES));
  if (to == target.folder && name == target.name) return;
  const auto script =
      std::make_shared<Script>(*this, fmt::format("move the folder {} ({}) to {}/{}", target.name, target.item.inode,
                                                  machine_.tree().pathOf(to).value_or("?"), name));
  if (!claim(*script, target.folder, target.name) || !claim(*script, to, name)) return script->next();
  rename(script, target.folder, target.name, to, name, random_.oneIn(2));
  begin(script);
}

// What is read must be what the folder showed when it began, or shows when it ends, or, when others change the account,
// showed in between.
void Programs::read(const Target& target) {
  const auto script = std::make_shared<Script>(*this, fmt::format("read {} ({})", target.name, target.item.inode));
  if (!claim(*script, target.folder, target.name)) return script->next();
  const auto inode = target.item.inode;
  script->inode = inode;
  script->places.clear();
  const auto before = shown(inode);
  script->add([this](const ScriptPtr& self) { machine_.kernel().open(self->inode, {}, self->thenNext("open")); });
  script->add([this, before](const ScriptPtr& self) {
    machine_.kernel().read(self->inode, 0, 256 * 1024, [this, self, before](const KernelAnswer& answer) {
      if (answer.error != 0) {
        trace_.add("prog {}: read fails: {}", self->number, ::strerrorname_np(answer.error));
        return self->next();
      }
      const auto print = printOf(answer.bytes);
      const auto after = shown(self->inode);
      trace_.add("prog {}: read {}", self->number, print);
      if (print == before || print == after || (after && after->starts_with(std::to_string(LARGE))))
        return self->next();
      const auto id = machine_.tree().identifierOf(self->inode).value_or(ItemIdentifier()).text;
      const auto known = storage_.printsOf(id);
      if ((model_ && model_->isTrusted()) || std::ranges::find(known, print) == known.end())
        throw Violation(fmt::format("program {} reads {} from inode {}, which shows {}, before {}", self->number, print,
                                    self->inode, after.value_or("nothing"), before.value_or("nothing")));
      self->next();
    });
  });
  script->add([this](const ScriptPtr& self) { machine_.kernel().flush(self->inode, self->thenNext("close")); });
  script->add([this](const ScriptPtr& self) { machine_.kernel().release(self->inode, {}, self->thenNext("release")); });
  begin(script);
}

void Programs::lockFile() {
  const auto folder = random_.anyOf(folders());
  const auto name = fmt::format(".~lock.{}#", newName());
  const auto script = std::make_shared<Script>(*this, fmt::format("lock file {}", name));
  if (!claim(*script, folder, name)) return script->next();
  if (machine_.tree().lookup(folder, name)) {
    unlink(script, folder, name);
  } else {
    const auto bytes = bytesOf(20);
    create(script, folder, name, true);
    writeAll(script, bytes);
    close(script, name, bytes);
  }
  begin(script);
}

void Programs::list(Inode folder) {
  const auto script = std::make_shared<Script>(*this, fmt::format("list {}", folder));
  script->add([this, folder](const ScriptPtr& self) { machine_.kernel().list(folder, self->thenNext("list")); });
  begin(script);
}

void Programs::touch() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const auto script = std::make_shared<Script>(*this, fmt::format("touch {} ({})", target.name, target.item.inode));
  if (!claim(*script, target.folder, target.name)) return script->next();
  script->add([this, inode = target.item.inode](const ScriptPtr& self) {
    AttributeChange change;
    if (random_.oneIn(2)) change.permissions = random_.oneIn(2) ? 0700U : 0600U;
    if (random_.oneIn(2)) change.modified = timespec{.tv_sec = 1'700'000'000, .tv_nsec = 0};
    machine_.kernel().change(inode, change, self->thenNext("setattr"));
  });
  begin(script);
}

void Programs::evict() {
  const auto all = targets(false);
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  if (machine_.tree().keptBy(target.item.inode)) return;
  const auto refused = machine_.core().contents()->evict(target.item.inode);
  trace_.add("evict {} ({}){}", target.name, target.item.inode, refused ? ": refused" : "");
}

void Programs::keep() {
  const auto all = targets(random_.oneIn(2));
  if (all.empty()) return;
  const auto& target = random_.anyOf(all);
  const bool isKept = random_.oneIn(3);
  trace_.add("{} {} ({})", isKept ? "stop keeping" : "keep", target.name, target.item.inode);
  KeepAction::start({machine_.core().tree(), machine_.extension(), machine_.core().contents(), machine_.scheduler},
                    isKept ? KeepAction::Kind::stopKeeping : KeepAction::Kind::keep, target.item.inode,
                    [this, name = target.name](const std::optional<Error>& error) {
                      trace_.add("keeping {}: {}", name, error ? error->localizedDescription() : "done");
                    });
}

void Programs::listAll() {
  for (const auto folder : folders())
    if (!machine_.tree().isListed(folder)) list(folder);
}

bool Programs::isAllListed() const {
  return std::ranges::all_of(folders(), [this](Inode folder) { return machine_.tree().isListed(folder); });
}

void Programs::readAll() {
  for (const auto& target : targets(false)) read(target);
}

std::vector<std::string> Programs::missingKept() const {
  auto& contents = *machine_.core().contents();
  const auto kept = machine_.tree().keptItems();
  std::vector<std::string> missing;
  for (const auto& [folder, name, item] : targets(false)) {
    const auto isAbove = [&](Inode inode) { return machine_.tree().isAtOrAbove(inode, item.inode); };
    const bool isHere = contents.current(item.inode) || machine_.core().edited()->find(item.inode);
    if (!isHere && std::ranges::any_of(kept, isAbove)) missing.push_back(fmt::format("{} ({})", name, item.inode));
  }
  return missing;
}

void Programs::removeLockFiles() {
  for (const auto& target : targets(false)) {
    if (!target.name.starts_with(".~lock.") && !target.name.starts_with(".goutputstream-")) continue;
    const auto script = std::make_shared<Script>(*this, "remove " + target.name);
    if (!claim(*script, target.folder, target.name)) continue;
    unlink(script, target.folder, target.name);
    begin(script);
  }
}

}  // namespace vondle::sim
