#include "state/compact_entries.h"

#include <cstdint>
#include <limits>
#include <map>
#include <random>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

Entry entryOf(std::string id, std::string name, std::string path) {
  Entry entry;
  entry.id = std::move(id);
  entry.name = std::move(name);
  entry.path = std::move(path);
  return entry;
}

TEST(CompactEntriesTest, GivesBackWhatWentIn) {
  Entry full = entryOf("4711", "a.txt", "d/e/a.txt");
  full.parentID = "9";
  full.size = 123'456'789'012;
  full.key = "key";
  full.url = "https://example.org/a";
  full.thumbURL = "";
  full.modified = {1714558830.25};
  full.version = 12;
  full.role = "read";
  full.ownerName = "Ann";
  full.fetchedAt = {1.7e9};
  full.isFolder = full.deleted = full.shared = full.hasThumb = true;
  std::vector<Entry> cases = {full, Entry()};
  for (const char* path : {"", "/", "a", "/a", "b/a", "//a", "b//a", "ba", "b/c", "a/", "a/a", "aa"})
    for (const char* name : {"a", "", "/", "/a"}) cases.push_back(entryOf("id", name, path));
  for (const auto number : {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{127},
                            std::int64_t{128}, std::numeric_limits<std::int64_t>::max()}) {
    cases.push_back(full);
    cases.back().size = cases.back().version = number;
    cases.back().modified = {-1e300};
  }
  for (const std::size_t length : {127U, 128U, 70'000U, 2U << 20}) {
    cases.push_back(full);
    cases.back().id = cases.back().name = std::string(length, 'x') + '\0';
  }
  for (bool Entry::* flag : {&Entry::isFolder, &Entry::deleted, &Entry::shared, &Entry::hasThumb}) {
    cases.push_back(full);
    cases.back().*flag = false;
  }
  for (std::optional<std::string> Entry::* text : {&Entry::key, &Entry::url, &Entry::thumbURL, &Entry::role}) {
    cases.push_back(full);
    cases.back().*text = std::nullopt;
    cases.push_back(full);
    cases.back().*text = "";
  }
  for (const Entry& entry : cases) {
    CompactEntries entries;
    entries.put(entryOf("another", "b", "c/b"));
    entries.put(entry);
    EXPECT_EQ(entries.get(entry.id), entry);
  }
}

TEST(CompactEntriesTest, StaysTrueUnderRandomChanges) {
  std::mt19937 random(20240501);
  CompactEntries entries;
  std::map<std::string, Entry> expected;
  for (int step = 0; step < 30'000; ++step) {
    const auto id = fmt::format("id {}", random() % 500);
    if (random() % 3 == 0) {
      entries.remove(id);
      expected.erase(id);
    } else {
      const auto name = std::string(random() % 3000, 'n');
      Entry entry = entryOf(id, name, fmt::format("folder {}/{}", random() % 40, name));
      entry.parentID = fmt::format("{}", random() % 40);
      entry.version = step;
      entries.put(entry);
      expected[id] = entry;
    }
    ASSERT_EQ(entries.size(), expected.size());
  }
  for (int i = 0; i < 500; ++i) {
    const auto id = fmt::format("id {}", i);
    const auto found = expected.find(id);
    EXPECT_EQ(entries.get(id), found == expected.end() ? std::nullopt : std::optional(found->second));
  }
  EXPECT_LT(entries.bytes(), std::size_t{12} << 20);
  for (const auto& [id, entry] : expected) entries.remove(id);
  EXPECT_EQ(entries.surroundings(), 0U);
}

TEST(CompactEntriesTest, KeepsOnceWhatAFolderHasInCommon) {
  CompactEntries entries;
  for (int i = 0; i < 10'000; ++i) {
    const auto name = fmt::format("{:08}", i);
    Entry entry = entryOf(fmt::format("id-{}", i), name, std::string(1'000, 'p') + "/" + name);
    entry.parentID = std::string(1'000, 'i');
    entries.put(entry);
  }
  EXPECT_EQ(entries.surroundings(), 1U);
  EXPECT_LE(entries.bytes(), std::size_t{1} << 20);
}

}  // namespace
}  // namespace vondle
