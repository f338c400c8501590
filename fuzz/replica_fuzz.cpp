#include <map>
#include <set>

#include <fmt/format.h>

#include "base/utf8.h"
#include "fileprovider/error_codes.h"
#include "fuzzing.h"
#include "platform/content_types.h"
#include "service/replica/replica.h"

// Listings, updates and deletions of any kind, decoded from the bytes: the tree stays one, tells the kernel all that
// changed, and is the same after a restart.
namespace vondle {
namespace {

const std::string ROOT = ROOT_CONTAINER.text;

const std::vector<std::string> IDENTIFIERS = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"};
const std::vector<std::string> ODD_IDENTIFIERS = {
    "", ROOT, TRASH_CONTAINER.text, WORKING_SET_CONTAINER.text, "unknown", std::string(70'000, 'x')};
const std::vector<std::string> NAMES = {"x",
                                        "y",
                                        "",
                                        ".",
                                        "..",
                                        "a/b",
                                        "%=a%2Fb",
                                        std::string("n\0l", 3),
                                        "caf\xe9",
                                        std::string(300, 'n'),
                                        distinctLocalName("x", "a", 0),
                                        distinctLocalName("x", "b", 0),
                                        localName(std::string(300, 'n'), "c")};

class Run {
 public:
  Run(FuzzedDataProvider& input, std::string path) : input_(input), path_(std::move(path)) { open(); }

  void go() {
    for (int step = 0; step < 30 && input_.remaining_bytes() > 0; ++step) {
      takeStep();
      requireTree();
    }
    isAtEnd_ = true;
    requireTree();
    const auto before = snapshot();
    const auto problems = namesOf(replica_->problems());
    open();
    REQUIRE(snapshot() == before);
    REQUIRE(namesOf(replica_->problems()) == problems);
    requireTree();
  }

 private:
  // What a kernel may remember.
  struct Known {
    std::map<std::pair<Inode, std::string>, Inode> entries;  // of listed folders
    std::set<Inode> listed;
    std::map<Inode, std::tuple<std::int64_t, double, std::uint32_t, std::uint32_t, std::uint64_t>> attributes;
  };

  void open() {
    replica_.reset();
    auto opened = Replica::open(path_);
    REQUIRE(opened.has_value());
    replica_ = std::move(*opened);
  }

  void takeStep() {
    const auto before = known();
    std::vector<ReplicaChange> changes;
    switch (input_.ConsumeIntegralInRange(0, 9)) {
      case 0:
        replica_->beginListing(anyFolder());
        break;
      case 1:
        replica_->abandonListing(anyFolder());
        break;
      case 2:
        open();
        break;
      case 3:
      case 4:
      case 5: {
        const auto folder = anyFolder();
        const bool exists = replica_->attributes(folder) && replica_->attributes(folder)->isFolder;
        const auto items = anyItems(folder);
        auto listed = replica_->applyListing(folder, items);
        REQUIRE(listed.has_value() == exists);
        if (listed) changes = std::move(*listed);
        break;
      }
      default: {
        const auto updates = anyItems(0);
        std::vector<ItemIdentifier> deletions;
        for (auto count = input_.ConsumeIntegralInRange(0, 2); count > 0; --count)
          deletions.push_back({anyIdentifier()});
        changes = replica_->applyNews(updates, deletions);
      }
    }
    requireTold(before, changes);
  }

  std::string anyIdentifier() {
    if (input_.ConsumeIntegralInRange(0, 7) == 0)
      return ODD_IDENTIFIERS[input_.ConsumeIntegralInRange<std::size_t>(0, ODD_IDENTIFIERS.size() - 1)];
    return IDENTIFIERS[input_.ConsumeIntegralInRange<std::size_t>(0, IDENTIFIERS.size() - 1)];
  }
  Inode anyFolder() {
    if (input_.ConsumeBool()) return ROOT_INODE;
    return replica_->inodeOf({anyIdentifier()}).value_or(99'999'999);
  }
  std::vector<Item> anyItems(Inode folder) {
    std::vector<Item> items;
    for (auto count = input_.ConsumeIntegralInRange(0, 6); count > 0; --count) items.push_back(anyItem(folder));
    return items;
  }
  Item anyItem(Inode folder) {
    Item item;
    item.itemIdentifier.text = anyIdentifier();
    const auto lister = replica_->identifierOf(folder);
    item.parentItemIdentifier.text = lister && input_.ConsumeBool() ? lister->text
                                     : input_.ConsumeBool()         ? ROOT
                                                                    : anyIdentifier();
    const auto name = input_.ConsumeIntegralInRange<std::size_t>(0, NAMES.size());
    item.filename = name < NAMES.size() ? NAMES[name] : input_.ConsumeRandomLengthString(300);
    const bool isFolder = input_.ConsumeBool();
    item.contentType = isFolder ? FOLDER_CONTENT_TYPE : GENERIC_DATA_CONTENT_TYPE;
    const auto odd = input_.ConsumeIntegral<std::uint8_t>();
    if (odd & 1) item.documentSize = input_.ConsumeIntegral<std::int64_t>();
    if (odd & 2) item.contentModificationDate = Timestamp{input_.ConsumeFloatingPoint<double>()};
    if (odd & 4) item.capabilities = input_.ConsumeIntegral<std::uint32_t>();
    if (odd & 8) item.contentPolicy = ContentPolicy::downloadEagerlyAndKeepDownloaded;
    if (odd & 16) item.ownerNameComponents.emplace().givenName = input_.ConsumeRandomLengthString(10);
    item.itemVersion = {fmt::format("{}", odd >> 5), fmt::format("{}", odd >> 6)};
    return item;
  }

  [[nodiscard]] std::vector<Inode> inodes() const {
    std::vector<Inode> found;
    for (const auto* identifiers : {&IDENTIFIERS, &ODD_IDENTIFIERS})
      for (const auto& identifier : *identifiers)
        if (const auto inode = replica_->inodeOf({identifier})) found.push_back(*inode);
    return found;
  }

  [[nodiscard]] Known known() const {
    Known known;
    for (const Inode folder : inodes()) {
      const auto attributes = *replica_->attributes(folder);
      known.attributes[folder] = {attributes.size, attributes.modified.secondsSince1970, attributes.capabilities,
                                  attributes.permissions, attributes.isFolder ? 0 : attributes.contentTag};
      if (!attributes.isListed) continue;
      known.listed.insert(folder);
      for (const auto& [name, child] : replica_->entries(folder, replica_->children(folder)))
        known.entries[{folder, name}] = child.inode;
    }
    return known;
  }

  // A kernel that knew what was before and is told the changes knows nothing wrong.
  void requireTold(const Known& before, const std::vector<ReplicaChange>& changes) const {
    auto entries = before.entries;
    std::set<Inode> touched;
    for (const auto& change : changes) {
      switch (change.kind) {
        case ReplicaChange::Kind::entryAdded:
          entries[{change.parent, change.name}] = change.inode;
          break;
        case ReplicaChange::Kind::entryRemoved:
          entries.erase({change.parent, change.name});
          break;
        case ReplicaChange::Kind::itemRemoved:
          entries.erase({change.parent, change.name});
          std::erase_if(entries, [&](const auto& entry) {
            return entry.second == change.inode || entry.first.first == change.inode;
          });
          break;
        default:
          touched.insert(change.inode);
      }
    }
    const auto now = known();
    for (const auto& [place, inode] : entries) {
      const auto found = now.entries.find(place);
      REQUIRE(found != now.entries.end() && found->second == inode);
    }
    for (const auto& [place, inode] : now.entries)
      if (before.listed.contains(place.first)) REQUIRE(entries.contains(place));
    for (const auto& [inode, attributes] : now.attributes) {
      const auto old = before.attributes.find(inode);
      if (inode != ROOT_INODE && old != before.attributes.end() && old->second != attributes)
        REQUIRE(touched.contains(inode));
    }
  }

  void requireTree() {
    const auto all = inodes();
    REQUIRE(replica_->itemCount() + 1 == all.size());
    REQUIRE(std::set<Inode>(all.begin(), all.end()).size() == all.size());
    std::map<Inode, std::string> oddNames;
    for (const auto& problem : replica_->problems()) {
      REQUIRE(problem.serverName != problem.localName);
      oddNames[problem.inode] = problem.serverName;
    }
    for (const Inode inode : all) {
      const auto identifier = *replica_->identifierOf(inode);
      REQUIRE(replica_->inodeOf(identifier) == inode);
      const auto [known, isNew] = owners_.try_emplace(inode, identifier.text);
      REQUIRE(known->second == identifier.text);  // a number is never used for another item
      if (inode == ROOT_INODE) continue;
      requireInFolder(inode, *replica_->attributes(inode), oddNames);
    }
  }

  void requireInFolder(Inode inode, const ItemAttributes& attributes, const std::map<Inode, std::string>& oddNames) {
    REQUIRE(attributes.inode == inode && attributes.parent != inode && attributes.size >= 0);
    const auto parent = replica_->attributes(attributes.parent);
    REQUIRE(parent && parent->isFolder);
    Inode above = inode;
    for (std::size_t steps = 0; above != ROOT_INODE; ++steps) {
      REQUIRE(steps <= IDENTIFIERS.size() + ODD_IDENTIFIERS.size());
      above = replica_->attributes(above)->parent;
    }
    const auto path = *replica_->pathOf(inode);
    const auto name = path.substr(path.rfind('/') + 1);
    REQUIRE(!name.empty() && name.size() <= MAX_LOCAL_NAME && name != "." && name != ".." && !name.contains('\0') &&
            isUTF8(name));
    if (parent->isListed) {
      REQUIRE(replica_->lookup(attributes.parent, name)->inode == inode);
      const auto children = replica_->children(attributes.parent);
      REQUIRE(std::ranges::count(children, inode) == 1);
    }
    if (!isAtEnd_) return;  // what follows opens the database each time
    const auto item = replica_->item(inode);
    REQUIRE(item.has_value());
    REQUIRE(item->itemIdentifier == replica_->identifierOf(inode));
    REQUIRE(item->parentItemIdentifier == replica_->identifierOf(attributes.parent));
    REQUIRE(item->isFolder() == attributes.isFolder);
    const auto odd = oddNames.find(inode);
    REQUIRE(item->filename == (odd == oddNames.end() ? name : odd->second));
  }

  [[nodiscard]] std::map<Inode, std::string> snapshot() const {
    std::map<Inode, std::string> lines;
    for (const Inode inode : inodes()) {
      const auto a = *replica_->attributes(inode);
      lines[inode] = fmt::format("{} {} {} {} {} {} {} {} {} {}", *replica_->pathOf(inode), a.parent, a.isFolder,
                                 a.isListed, a.size, a.modified.secondsSince1970, a.capabilities, a.permissions,
                                 a.keepDownloaded, a.contentTag);
    }
    return lines;
  }
  static std::map<Inode, std::pair<std::string, std::string>> namesOf(const std::vector<NamedDifferently>& problems) {
    std::map<Inode, std::pair<std::string, std::string>> names;
    for (const auto& problem : problems) names[problem.inode] = {problem.serverName, problem.localName};
    return names;
  }

  FuzzedDataProvider& input_;
  const std::string path_;
  std::unique_ptr<Replica> replica_;
  std::map<Inode, std::string> owners_;
  bool isAtEnd_ = false;
};

}  // namespace

void fuzz(std::string_view bytes) {
  static const MemoryFolder folder;
  const auto path = folder.path() + "/replica.sqlite";
  for (const auto* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
  auto input = providerOf(bytes);
  Run(input, path).go();
}

}  // namespace vondle
