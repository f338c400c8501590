#include "service/contents/eviction.h"

#include <cerrno>
#include <deque>
#include <utility>

namespace vondle {

std::optional<Error> evictAll(const Replica& replica, ContentStore& contents, Inode inode) {
  const auto top = replica.attributes(inode);
  if (top && top->parent != inode && replica.keptBy(top->parent))
    return Error::posix(EBUSY, "it is kept downloaded with the folder that it is in");
  std::optional<Error> first;
  std::deque<Inode> left{inode};
  for (; !left.empty(); left.pop_front()) {
    const auto attributes = replica.attributes(left.front());
    if (!attributes || (attributes->keepDownloaded && attributes->inode != inode)) continue;
    if (attributes->isFolder) {
      for (const Inode child : replica.children(attributes->inode)) left.push_back(child);
    } else if (auto error = contents.evict(attributes->inode); error && !first) {
      first = std::move(error);
    }
  }
  return first;
}

}  // namespace vondle
