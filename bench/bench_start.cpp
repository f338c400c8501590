#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "account.h"
#include "measure.h"
#include "platform/linux/sqlite.h"
#include "service/replica/replica.h"

// How long it takes to know a million items again after a start. Held against SQLite reading the same
// columns to nobody.

namespace vondle::bench {
namespace {

constexpr double BUDGET = 15;  // seconds

Item folderItem(int number) {
  Item item;
  item.itemIdentifier.text = item.filename = fmt::format("folder-{:03}", number);
  item.parentItemIdentifier = ROOT_CONTAINER;
  item.contentType = "inode/directory";
  item.capabilities = 63;
  item.fileSystemFlags = 7;
  item.contentModificationDate = Timestamp{1.7e9};
  item.itemVersion = {"1-0", "1-" + item.filename + "-0-1700000000"};
  return item;
}

Item fileItem(int folder, int number) {
  Item item;
  item.itemIdentifier.text = fmt::format("{:08x}-{:08x}", folder, number);
  item.parentItemIdentifier.text = fmt::format("folder-{:03}", folder);
  item.filename = fmt::format("IMG_{:08}.jpg", number);
  item.contentType = "image/jpeg";
  item.capabilities = 63;
  item.fileSystemFlags = 6;
  item.documentSize = 1000 + number;
  item.creationDate = item.contentModificationDate = Timestamp{1.7e9 + number % 1000 / 1000.0};
  item.contentPolicy = ContentPolicy::downloadLazily;
  item.itemVersion = {fmt::format("3-{}", 1000 + number), fmt::format("3-{}-0-1700000000", item.filename)};
  return item;
}

std::unique_ptr<Replica> opened(const std::string& database) {
  auto replica = Replica::open(database);
  if (!replica) throw std::runtime_error(replica.error().localizedDescription());
  return std::move(*replica);
}

// The number of items in it.
std::size_t fill(const std::string& database) {
  const auto replica = opened(database);
  std::vector<Item> items;
  for (int folder = 0; folder < FOLDERS; ++folder) items.push_back(folderItem(folder));
  (void)replica->applyListing(ROOT_INODE, items);
  for (int folder = 0; folder < FOLDERS; ++folder) {
    items.clear();
    for (int i = 0; i < filesIn(folder); ++i) items.push_back(fileItem(folder, i));
    (void)replica->applyListing(replica->inodeOf({fmt::format("folder-{:03}", folder)}).value(), items);
  }
  return replica->itemCount();
}

void readAll(const std::string& path) {
  auto database = sqlite::Database::open(path, {.readOnly = true});
  auto rows = database->prepare(
      "SELECT id, parent, identifier, name, local, content_version, size, modified, capabilities, flags, policy, kind "
      "FROM item");
  std::size_t bytes = 0;
  while (rows->step().value()) {
    for (const int text : {2, 3, 4, 5}) bytes += rows->view(text).size();
    for (const int number : {0, 1, 6, 8, 9, 10, 11}) bytes += static_cast<std::size_t>(rows->integer(number));
    bytes += static_cast<std::size_t>(rows->real(7));
  }
  if (bytes == 0) throw std::runtime_error("there are no rows");
}

int run() {
  const TemporaryFolder folder;
  const auto database = folder.path() + "/replica.db";
  const auto count = fill(database);
  const auto result = compare(
      BUDGET, [&] { return costOf([&] { readAll(database); }); },
      [&] {
        std::unique_ptr<Replica> replica;
        const auto cost = costOf([&] { replica = opened(database); });
        if (replica->itemCount() != count) throw std::runtime_error("items are missing");
        return cost;
      });
  report(fmt::format("{} known items into memory; reference: reading them", count), "<= 0.4 s",
         figure(result.reference.seconds, "s"), figure(result.ours.seconds, "s"),
         fmt::format("{:.2f}", result.timeRatio));
  report("the same, processor time", "", figure(result.reference.processorSeconds, "s"),
         figure(result.ours.processorSeconds, "s"), fmt::format("{:.2f}", result.processorRatio));
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main() {
  return vondle::bench::run();
}
