#include "service/replica/replica_loading.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace vondle {
namespace {

// The rows are read in runs of this many inodes, at most.
constexpr Inode RUN = 65'536;
constexpr Inode MAX_RUNS = 1'000;
constexpr unsigned MAX_THREADS = 4;

ItemIndex::Facts factsOf(const ReplicaStore::Row& row) {
  return {.contentTag = TreeState::contentTag(row.identifier, row.contentVersion),
          .size = row.isFolder ? 0 : std::max<std::int64_t>(0, row.size),
          .modified = TreeState::shownTime(row.modified, row.isFolder),
          .permissions = TreeState::permissionsOf(row.fileSystemFlags),
          .capabilities = static_cast<std::uint8_t>(row.capabilities),
          .isFolder = row.isFolder,
          .isListed = row.isListed,
          .keepDownloaded = row.contentPolicy == ContentPolicy::downloadEagerlyAndKeepDownloaded};
}

Error damage() {
  return {sqlite::ERROR_DOMAIN, SQLITE_CORRUPT, "the kept tree has items that nothing leads to"};
}

// What one thread has read.
struct Share {
  ItemIndex::Part part;
  std::vector<std::pair<Inode, std::string>> oddNames;  // as the server has them
  std::vector<Inode> kept;                              // downloaded
  std::optional<bool> isRootListed;
  Result<void> result;

  void take(const ReplicaStore::Row& row) {
    if (row.inode == ROOT_INODE) {
      isRootListed = row.isListed;
      return;
    }
    if (row.identifier.size() > ItemIndex::MAX_IDENTIFIER || row.localName.empty() ||
        row.localName.size() > MAX_LOCAL_NAME) {
      result = failure(damage());
      return;
    }
    const auto facts = factsOf(row);
    part.add(row.inode, row.parent, row.identifier, row.localName, facts);
    if (facts.keepDownloaded) kept.push_back(row.inode);
    if (row.localName != row.serverName) oddNames.emplace_back(row.inode, row.serverName);
  }
};

std::vector<Share> readAll(const std::string& path, ReplicaStore::Inodes inodes) {
  const Inode count = inodes.last - inodes.first + 1;
  const Inode run = std::max(RUN, count / MAX_RUNS + 1);
  const Inode runs = (count - 1) / run + 1;
  std::atomic<Inode> next = 0;
  const auto read = [&](Share& share) {
    for (Inode i = next++; i < runs && share.result; i = next++) {
      const Inode first = inodes.first + i * run;
      auto done = ReplicaStore::read(path, {first, first + std::min(run - 1, inodes.last - first)},
                                     [&](const ReplicaStore::Row& row) { share.take(row); });
      if (!done) share.result = std::move(done);
    }
  };
  std::vector<Share> shares(std::min<Inode>(runs, std::clamp(std::thread::hardware_concurrency(), 1U, MAX_THREADS)));
  std::vector<std::jthread> threads;
  for (std::size_t i = 1; i < shares.size(); ++i) threads.emplace_back(read, std::ref(shares[i]));
  read(shares[0]);
  threads.clear();
  return shares;
}

}  // namespace

Result<void> loadTree(ReplicaStore& store, TreeState& state) {
  const auto inodes = store.inodes();
  if (!inodes) return failure(inodes.error());
  auto shares = *inodes ? readAll(store.path(), **inodes) : std::vector<Share>();
  std::vector<ItemIndex::Part> parts;
  bool hasRoot = false;
  for (Share& share : shares) {
    if (!share.result) return share.result;
    parts.push_back(std::move(share.part));
    if (!share.isRootListed) continue;
    hasRoot = true;
    state.index.facts(state.index.find(ROOT_INODE)).isListed = *share.isRootListed;
  }
  if (!state.index.take(std::move(parts))) return failure(damage());
  for (const Share& share : shares) {
    for (const auto& [inode, serverName] : share.oddNames) state.noteNames(state.index.find(inode), serverName);
    state.kept.insert(share.kept.begin(), share.kept.end());
  }
  if (!hasRoot) {
    const Item root = TreeState::rootItem();
    store.write({.upserts = {{.inode = ROOT_INODE, .parent = 0, .localName = {}, .isListed = false, .item = &root}},
                 .moves = {},
                 .listed = {},
                 .removals = {}});
  }
  return {};
}

}  // namespace vondle
