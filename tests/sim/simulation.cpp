#include "simulation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "crash_points.h"
#include "platform/linux/sqlite.h"

namespace vondle::sim {
namespace {

constexpr int STEPS = 160;
constexpr int STEPS_BETWEEN_CHECKS = 10;
constexpr std::size_t MAX_ITEMS = 60;
constexpr int MAX_DEPTH = 100;
constexpr std::uint64_t LARGE_ONE_IN = 100;
// In bytes; most files are smaller, and all of an account are not.
constexpr std::int64_t SMALL_CACHE = 12'000;

// As they are, links among them and times of modification, too.
void copyTree(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::map<ino_t, std::filesystem::path> copied;
  std::filesystem::create_directories(to);
  ::chmod(to.c_str(), 0700);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(from)) {
    const auto target = to / std::filesystem::relative(entry.path(), from);
    struct stat status{};
    if (::lstat(entry.path().c_str(), &status) != 0) continue;
    if (S_ISDIR(status.st_mode)) {
      std::filesystem::create_directory(target);
    } else if (entry.path().native().ends_with("-shm")) {
      continue;  // SQLite's own memory, which it makes anew
    } else if (const auto known = copied.find(status.st_ino); known != copied.end()) {
      std::filesystem::create_hard_link(known->second, target);
      continue;
    } else {
      std::filesystem::copy_file(entry.path(), target);
      copied[status.st_ino] = target;
    }
    ::chmod(target.c_str(), status.st_mode & 0777);
    const timespec times[] = {status.st_atim, status.st_mtim};
    ::utimensat(AT_FDCWD, target.c_str(), times, 0);
  }
}

}  // namespace

Simulation::Simulation(const Settings& settings, std::string folder)
    : settings_(settings),
      folder_(std::move(folder)),
      random_(settings.seed * 0x9E3779B97F4A7C15 + 1),
      trace_(settings.isShown),
      isAlone_(random_.oneIn(3)),
      isLying_(!isAlone_ && random_.oneIn(4)),
      usualFaults_(random_.anyOf(std::array<unsigned, 4>{0, 2, 8, 25})),
      deathsLeft_(static_cast<int>(random_.below(7))),
      cacheLimit_(random_.oneIn(3) ? SMALL_CACHE : CacheLimits::DEFAULT_LIMIT),
      storage_(folder_ + "/storage", clock_),
      network_(storage_, random_, trace_) {
  trace_.setClock(&clock_);
  network_.areCommitsSafe = isAlone_;
  network_.isLying = isLying_;
  network_.onDeparture = [this] { oracle_.noteDeletions(machine_->edits().pending()); };
  network_.onArrival = [this](const URLRequest& request) { arrived(request); };
}

void Simulation::run() {
  CrashPoints::setClock(&clock_);
  trace_.add("seed {}: {}{}, {} faults in a hundred requests, up to {} deaths", settings_.seed,
             isAlone_ ? "alone" : "with another device", isLying_ ? ", before a lying server" : "", usualFaults_,
             deathsLeft_);
  prepare();
  beginLife();
  explore();
  work();
  drain();
  verify();
}

// What the account has before anything begins.
void Simulation::prepare() {
  std::filesystem::create_directories(homeFolder() + "/.vondle");
  std::ofstream(homeFolder() + "/.vondle/config.json")
      << fmt::format(R"({{"server":"{}","api_key":"{}"}})", SimulatedStorage::SERVER, SimulatedStorage::KEY);
  std::filesystem::permissions(homeFolder() + "/.vondle", std::filesystem::perms::owner_all);
  std::filesystem::permissions(homeFolder() + "/.vondle/config.json",
                               std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const auto count = 4 + random_.below(14);
  for (std::size_t i = 0; i < count; ++i) {
    std::vector<std::string> paths{""};
    for (const auto& item : storage_.everything())
      if (item.isFolder) paths.push_back(item.path);
    const auto folder = random_.anyOf(paths);
    if (random_.oneIn(3)) {
      storage_.post("folders", {{"path", folder}, {"name", fmt::format("f{}", random_.below(8))}});
    } else {
      const auto bytes = fmt::format("before {}\n{}", ++otherSaves_, std::string(random_.below(3'000), 'b'));
      if (storage_.makeFile(folder, fmt::format("n{}", random_.below(10)), bytes))
        oracle_.saved(printOf(bytes), fmt::format("what was there before, {}", otherSaves_));
    }
  }
  if (isAlone_) {
    Listing listing;
    for (const auto& item : storage_.everything()) listing["/" + item.path] = {item.isFolder, item.print};
    model_.become(listing);
  }
}

// --- Lives ---

bool Simulation::live(const std::function<void()>& life) {
  if (CrashPoints::survives(life)) return true;
  processDied();
  beginLife();
  return false;
}

void Simulation::beginLife() {
  for (;;) {
    if (deaths_ > 0) arm();
    const auto now = clock_.now();
    const auto seed = random_.next();
    const bool survived = CrashPoints::survives([&] {
      machine_ = new Installation(homeFolder(), seed, now, {.limit = cacheLimit_, .reserve = 0});
      clock_.current = &machine_->scheduler;
      network_.serve(machine_->urlLoading, machine_->scheduler);
      machine_->start();
      programs_ = std::make_unique<Programs>(*machine_, storage_, oracle_, isAlone_ ? &model_ : nullptr, random_,
                                             trace_, numbers_);
    });
    if (survived) break;
    processDied();
  }
  if (deaths_ == 0) return;
  oracle_.removalsEnd(machine_->edits().pending());
  if (isAlone_) checkFolder(std::exchange(unsure_, {}));
  programs_->alignModel();
  checkPromise();
}

void Simulation::arm() {
  if (deathsLeft_ == 0) return;
  --deathsLeft_;
  CrashPoints::arm(1 + random_.below(random_.anyOf(std::array<std::size_t, 4>{30, 200, 800, 3'000})));
}

// Programs look into all folders before anything goes wrong: what they see later, they saw.
void Simulation::explore() {
  std::size_t known = 0;
  do {
    known = machine_->tree().itemCount();
    live([this] { programs_->listAll(); });
    if (!passUntil([this] { return programs_->areIdle(); }, std::chrono::hours(1)))
      throw Violation("listing takes for ever");
  } while (machine_->tree().itemCount() != known);
  programs_->alignModel();
}

void Simulation::processDied() {
  trace_.add("the service dies in change {}", CrashPoints::changes());
  std::set<std::string> unsure;
  if (programs_) unsure = programs_->unsurePaths();
  static_cast<void>(programs_.release());  // which its dead scripts still name
  network_.processDied();
  copyHome();
  if (isAlone_) unsure_.insert(unsure.begin(), unsure.end());
}

void Simulation::copyHome() {
  const auto former = homeFolder();
  ++deaths_;
  copyTree(former, homeFolder());
  std::filesystem::remove_all(former);
  if (isAlone_) return;
  const auto lose = [&](const char* what, const std::string& path) {
    std::filesystem::remove_all(homeFolder() + path);
    trace_.add("{} is lost, too", what);
  };
  if (random_.oneIn(6))
    for (const auto* suffix : {"", "-wal"})
      lose("the replica", std::string("/.local/state/vondle/replica.db") + suffix);
  if (random_.oneIn(8)) lose("what was downloaded", "/.local/share/vondle");
  if (random_.oneIn(8)) lose("the extension's state", "/.local/share/group.com.ferrow.vondle");
}

// --- Work ---

void Simulation::work() {
  network_.weather.faults = usualFaults_;
  arm();
  if (settings_.seed % LARGE_ONE_IN == 0) live([this] { programs_->startLarge(); });
  for (int i = 0; i < STEPS; ++i) {
    step();
    if (i % STEPS_BETWEEN_CHECKS == 0) checkPromise();
  }
}

void Simulation::step() {
  const auto kind = random_.below(100);
  if (kind < 38) {
    live([this] { programs_->startOne(); });
  } else if (kind < 50) {
    if (!isAlone_) otherDevice();
  } else if (kind < 53) {
    changeWeather();
  } else if (kind < 55) {
    deliverGhost();
  } else if (kind < 56) {
    live([this] { machine_->kernel().interruptAll(); });
  } else if (kind < 57) {
    live([this] { machine_->core().sender()->sendNow(); });
  } else if (kind < 75) {
    const auto count = 1 + random_.below(80);
    live([this, count] {
      for (std::size_t i = 0; i < count && machine_->scheduler.step(); ++i) {
      }
    });
  } else {
    const auto time = random_.smallOf(random_.oneIn(12) ? 900 : random_.oneIn(4) ? 60 : 6);
    live([this, time] { machine_->scheduler.advance(seconds(time)); });
  }
}

// What a dead process asked for may undo what programs have done since.
void Simulation::deliverGhost() {
  if (network_.deliverGhost()) model_.giveUp();
}

void Simulation::changeWeather() {
  if (usualFaults_ == 0) return;
  if (network_.weather.outage != 0 || network_.weather.latency > 1) {
    network_.weather = {.faults = usualFaults_};
    trace_.add("the weather clears up");
    return;
  }
  switch (random_.below(3)) {
    case 0:
      network_.weather.outage = random_.anyOf(std::array{-1, -1, 401, 500, 503, 507});
      break;
    case 1:
      network_.weather.latency = 40;
      break;
    default:
      network_.weather.faults = 50;
  }
  trace_.add("the weather: {} faults, outage {}, latency {}", network_.weather.faults, network_.weather.outage,
             network_.weather.latency);
}

// Somebody who works on what the server has.
void Simulation::otherDevice() {
  const auto all = storage_.everything();
  std::vector<const SimulatedStorage::Stored*> files, folders, trash;
  std::vector<std::string> paths{""};
  for (const auto& item : all) {
    if (item.isInTrash) {
      if (item.trashedWith == item.id) trash.push_back(&item);
      continue;
    }
    (item.isFolder ? folders : files).push_back(&item);
    if (item.isFolder) paths.push_back(item.path);
  }
  const auto folder = random_.anyOf(paths);
  const auto name = fmt::format("n{}{}", random_.below(14), random_.oneIn(2) ? ".txt" : "");
  const auto target = folder.empty() ? name : folder + "/" + name;
  const auto newBytes = [&] {
    return fmt::format("other {}\n{}", ++otherSaves_, std::string(random_.below(4'000), 'o'));
  };
  const auto tell = [&](bool done, const std::string& what) {
    trace_.add("other device: {}{}", what, done ? "" : ": refused");
  };
  switch (random_.below(10)) {
    case 0:
    case 1: {
      if (all.size() > MAX_ITEMS) return;
      const auto bytes = newBytes();
      const bool done = storage_.makeFile(folder, name, bytes);
      if (done) oracle_.saved(printOf(bytes), fmt::format("the other device’s new {}", target));
      return tell(done, fmt::format("new {} {}", target, printOf(bytes)));
    }
    case 2: {
      const auto made = fmt::format("f{}", random_.below(14));
      const bool done = storage_.post("folders", {{"path", folder}, {"name", made}}).status == 200;
      return tell(done, fmt::format("new folder {} in {}", made, folder));
    }
    case 3:
    case 4: {
      if (files.empty()) return;
      const auto& file = *random_.anyOf(files);
      const auto bytes = newBytes();
      const bool done = storage_.changeFile(file.id, file.version, bytes);
      if (done) {
        oracle_.mayGo(file.print);
        oracle_.saved(printOf(bytes), fmt::format("the other device’s version of {}", file.path));
      }
      return tell(done, fmt::format("change {} ({}) to {}", file.path, file.id, printOf(bytes)));
    }
    case 5: {
      if (files.empty()) return;
      const auto& file = *random_.anyOf(files);
      const bool done = storage_.post("move", {{"source_key", file.key}, {"dest_key", target}}).status == 200;
      return tell(done, fmt::format("move {} ({}) to {}", file.path, file.id, target));
    }
    case 6: {
      if (folders.empty()) return;
      const auto& moved = *random_.anyOf(folders);
      const auto to = (folder.empty() ? "" : folder + "/") + fmt::format("f{}", random_.below(14));
      const bool done =
          storage_.post("move-folder", {{"source_prefix", moved.path + "/"}, {"dest_prefix", to + "/"}}).status == 200;
      return tell(done, fmt::format("move the folder {} ({}) to {}", moved.path, moved.id, to));
    }
    case 7: {
      if (files.empty()) return;
      const auto& file = *random_.anyOf(files);
      oracle_.trashedByOther(file.id);
      const bool done = storage_.post("delete-files", {{"keys", json::Array{json::Value(file.key)}}}).status == 200;
      return tell(done, fmt::format("trash {} ({})", file.path, file.id));
    }
    case 8: {
      if (folders.empty() || !random_.oneIn(3)) return;
      const auto& gone = *random_.anyOf(folders);
      oracle_.trashedByOther(gone.id);
      const bool done = storage_.post("delete-folder", {{"prefix", gone.path + "/"}}).status == 200;
      return tell(done, fmt::format("trash the folder {} ({})", gone.path, gone.id));
    }
    default: {
      if (trash.empty()) return;
      const auto& item = *random_.anyOf(trash);
      const bool done = storage_.post("restore", {{"id", item.id}}).status == 200;
      return tell(done, fmt::format("restore {} ({})", item.path, item.id));
    }
  }
}

// --- What must be so ---

void Simulation::arrived(const URLRequest& request) {
  checkRemovals(request);
  // Contents that were saved after a commit whose answer was lost, or never read because the service died, are made on
  // a version that the server has no more: they clash with the account's own and become a conflicted copy. Both are
  // kept, but no longer where the model has them.
  if (request.url.ends_with("/api/register")) model_.giveUp();
  if (settings_.isCanary && request.method == "PUT") removeRows();
}

void Simulation::checkRemovals(const URLRequest& request) {
  const auto all = storage_.everything();
  const auto childrenOf = [&](const std::string& folder) {
    std::vector<SimulatedStorage::Stored> children;
    for (const auto& item : all)
      if (!item.isInTrash && item.parent == folder) children.push_back(item);
    return children;
  };
  constexpr std::string_view LISTING = "/api/browse?id=";
  if (const auto at = request.url.find(LISTING); at != std::string::npos) {
    const auto folder = request.url.substr(at + LISTING.size(), request.url.find('&') - at - LISTING.size());
    std::set<std::string> seen;
    for (const auto& child : childrenOf(folder)) seen.insert(child.id);
    return oracle_.listed(folder, std::move(seen));
  }
  const bool areFiles = request.url.ends_with("/api/delete-files");
  if (!areFiles && !request.url.ends_with("/api/delete-folder")) return;
  for (const auto& item : all) {
    if (item.isInTrash) continue;
    const bool isMeant = areFiles ? !item.isFolder && request.body->find('"' + item.key + '"') != std::string::npos
                                  : item.isFolder && request.body->find('"' + item.path + "/\"") != std::string::npos;
    if (isMeant) oracle_.checkRemoval(item, childrenOf(item.id));
  }
}

void Simulation::removeRows() {
  auto database = sqlite::Database::open(machine_->folders().editDatabase());
  if (database) static_cast<void>(database->execute("DELETE FROM edit WHERE contents != 0"));
}

std::set<std::string> Simulation::printsInQueue() const {
  std::set<std::string> prints;
  for (const auto& edit : machine_->edits().pending()) {
    if (edit.contents == 0) continue;
    const int file =
        ::open(fmt::format("{}/{}", machine_->folders().editedFiles(), edit.contents).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) continue;
    prints.insert(printOfFile(file));
    ::close(file);
  }
  return prints;
}

void Simulation::checkPromise() {
  oracle_.check(storage_.everything(), printsInQueue());
}

// Alone, the folder is as the programs' calls have left it.
void Simulation::checkFolder(const std::set<std::string>& except) {
  if (!model_.isTrusted()) return;
  const auto found = programs_->folder();
  const auto wrong = difference(model_.listing(), found, except);
  if (!wrong.empty()) throw Violation("in the folder, " + wrong);
  model_.become(found);
}

bool Simulation::passUntil(const std::function<bool()>& condition, Duration limit) {
  const auto end = clock_.now().secondsSince1970 + inSeconds(limit);
  while (!condition()) {
    if (clock_.now().secondsSince1970 > end) return false;
    live([this] {
      for (int i = 0; i < 50 && machine_->scheduler.step(); ++i) {
      }
    });
  }
  return true;
}

void Simulation::drain() {
  while (random_.oneIn(2)) deliverGhost();
  network_.forgetGhosts();
  network_.weather = {};
  trace_.add("all faults end");
  letProgramsEnd();
  // A service that dies meanwhile may have lost what was listed, or the end of a program.
  for (int life = -1; life != deaths_;) {
    life = deaths_;
    tidyUp();
    if (life != deaths_) continue;
    if (isAlone_) checkFolder({});
    programs_->alignModel();
    const auto isOver = [this, life] { return deaths_ != life || isQueueEmpty(); };
    if (!passUntil(isOver, DRAIN_LIMIT)) failToDrain();
  }
  trace_.add("the queue is empty");
  CrashPoints::arm(0);
  for (int i = 0; i < 4; ++i) {
    tidyUp();
    live([this] { machine_->scheduler.advance(std::chrono::minutes(6)); });
  }
}

// But for what stays on this machine because of its name: its folder may have gone, or have been made anew meanwhile.
bool Simulation::isQueueEmpty() const {
  if (machine_->edits().pendingCount() == 0) return true;
  return std::ranges::all_of(machine_->core().sender()->report(), [](const EditSender::Report& one) {
    return one.state == SendState::staysHere && !one.until;
  });
}

void Simulation::failToDrain() {
  std::string left;
  for (const auto& edit : machine_->edits().pending())
    left += fmt::format("\n  {} {} fields {} at {}/{}: {}", edit.id, edit.item.text, edit.fields,
                        edit.place.folder.text, edit.place.name, edit.lastError);
  throw Violation("the queue does not become empty:" + left);
}

void Simulation::letProgramsEnd() {
  if (!passUntil([this] { return programs_->areIdle(); }, std::chrono::hours(2)))
    throw Violation("a program waits for ever");
}

// All folders are looked into, and what stays on this machine for ever goes.
void Simulation::tidyUp() {
  for (int depth = 0;; ++depth) {
    live([this] { programs_->listAll(); });
    letProgramsEnd();
    live([this] { programs_->removeLockFiles(); });
    letProgramsEnd();
    if (programs_->isAllListed()) return;
    if (depth > MAX_DEPTH) throw Violation("listing takes for ever");
  }
}

void Simulation::verify() {
  const auto all = storage_.everything();
  Listing server;
  for (const auto& item : all) {
    if (item.isInTrash) continue;
    server["/" + item.path] = {item.isFolder, item.print};
    if (item.name.starts_with(".vondle-") || item.name.starts_with(".~lock.") ||
        item.name.starts_with(".goutputstream-"))
      throw Violation("a stray on the server: " + item.path);
  }
  oracle_.checkAtEnd(all, printsInQueue());
  if (const auto wrong = difference(server, programs_->folder(), {}); !wrong.empty() && !isLying_)
    throw Violation("in the folder, not as on the server, " + wrong);
  if (isAlone_ && model_.isTrusted())
    if (const auto wrong = difference(model_.listing(), server, {}); !wrong.empty())
      throw Violation("on the server, not as the programs left it, " + wrong);
  std::set<std::string> left;
  for (const auto& edit : machine_->edits().pending()) left.insert(std::to_string(edit.contents));
  for (const auto& file : std::filesystem::recursive_directory_iterator(machine_->folders().editedFiles()))
    if (file.is_regular_file() && file.path().parent_path().filename() != "lost+found" &&
        !left.contains(file.path().filename()))
      throw Violation("a private file is left: " + file.path().native());
  if (const auto missing = programs_->missingKept(); !missing.empty() && !isLying_)
    throw Violation("to be kept downloaded, and not here: " + missing.front());
  live([this] { programs_->readAll(); });
  if (!passUntil([this] { return programs_->areIdle(); }, std::chrono::hours(1)))
    throw Violation("a program waits for ever");
  trace_.add("all is well: {} items, {} pieces of contents, {} deaths", server.size(), oracle_.count(), deaths_);
}

}  // namespace vondle::sim
