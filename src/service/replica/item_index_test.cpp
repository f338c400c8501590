#include "service/replica/item_index.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using Slot = ItemIndex::Slot;

TEST(ItemIndexTest, AnItemIsFoundByInodeIdentifierAndName) {
  ItemIndex index;
  const Slot root = index.insert(1, "root id", "", {});
  const Slot file = index.insert(2, "4711", "", {.size = 12});
  index.attach(file, root, "thesis.odt");
  EXPECT_EQ(index.find(2), file);
  EXPECT_EQ(index.findIdentifier("4711"), file);
  EXPECT_EQ(index.findChild(root, "thesis.odt"), file);
  EXPECT_EQ(index.findChild(file, "thesis.odt"), ItemIndex::NONE);
  EXPECT_EQ(index.findChild(root, "thesis"), ItemIndex::NONE);
  EXPECT_EQ(index.find(3), ItemIndex::NONE);
  EXPECT_EQ(index.findIdentifier("471"), ItemIndex::NONE);
  EXPECT_EQ(index.name(file), "thesis.odt");
  EXPECT_EQ(index.identifier(file), "4711");
  EXPECT_EQ(index.facts(file).size, 12);
  index.detach(file);
  EXPECT_EQ(index.findChild(root, "thesis.odt"), ItemIndex::NONE);
  EXPECT_EQ(index.firstChild(root), ItemIndex::NONE);
  index.remove(file);
  EXPECT_EQ(index.find(2), ItemIndex::NONE);
  EXPECT_EQ(index.findIdentifier("4711"), ItemIndex::NONE);
  EXPECT_EQ(index.size(), 1U);
}

TEST(ItemIndexTest, TheSubtreeHasChildrenBeforeTheirParents) {
  ItemIndex index;
  const Slot root = index.insert(1, "1", "", {});
  const Slot folder = index.insert(2, "2", "", {});
  const Slot inner = index.insert(3, "3", "", {});
  const Slot file = index.insert(4, "4", "", {});
  index.attach(folder, root, "f");
  index.attach(inner, folder, "i");
  index.attach(file, inner, "x");
  EXPECT_EQ(index.subtree(folder), (std::vector<Slot>{file, inner, folder}));
  EXPECT_TRUE(index.isAtOrAbove(folder, file));
  EXPECT_TRUE(index.isAtOrAbove(file, file));
  EXPECT_FALSE(index.isAtOrAbove(file, folder));
  EXPECT_EQ(index.topmost(file), root);
  index.detach(inner);
  EXPECT_EQ(index.topmost(file), inner);
}

// Random work against the same done with standard containers.
TEST(ItemIndexTest, StaysTrueUnderRandomChanges) {
  std::mt19937 random(20240501);
  ItemIndex index;
  const Slot root = index.insert(1, "root", "", {});
  struct Expected {
    std::string identifier;
    std::string name;  // empty: detached
  };
  std::map<Inode, Expected> expected;
  Inode next = 2;
  for (int step = 0; step < 40'000; ++step) {
    const auto choice = random() % 10;
    auto chosen = expected.empty() ? expected.end() : expected.lower_bound(2 + random() % (next - 2));
    if (chosen == expected.end()) chosen = expected.begin();
    if (choice < 5 || expected.empty()) {
      const auto identifier = fmt::format("id-{}{}", next, std::string(random() % 200, 'i'));
      index.insert(next, identifier, "", {});
      expected[next++] = {identifier, ""};
    } else if (choice < 7) {
      index.remove(index.find(chosen->first));
      expected.erase(chosen);
    } else if (choice < 8) {
      index.detach(index.find(chosen->first));
      chosen->second.name.clear();
    } else if (chosen->second.name.empty()) {
      chosen->second.name = fmt::format("{}-{}", random() % 1000, chosen->first);
      index.attach(index.find(chosen->first), root, chosen->second.name);
    }
  }
  EXPECT_EQ(index.size(), expected.size() + 1);
  std::set<Inode> attached;
  for (const auto& [inode, item] : expected) {
    const Slot slot = index.find(inode);
    ASSERT_NE(slot, ItemIndex::NONE);
    EXPECT_EQ(index.identifier(slot), item.identifier);
    EXPECT_EQ(index.findIdentifier(item.identifier), slot);
    if (item.name.empty()) continue;
    EXPECT_EQ(index.findChild(root, item.name), slot);
    attached.insert(inode);
  }
  std::set<Inode> children;
  for (Slot child = index.firstChild(root); child != ItemIndex::NONE; child = index.nextSibling(child))
    children.insert(index.inode(child));
  EXPECT_EQ(children, attached);
}

TEST(ItemIndexTest, RefusesWhatIsThereAlready) {
  ItemIndex index;
  const Slot root = index.insert(1, "root", "", {});
  const Slot file = index.insert(2, "2", "", {});
  EXPECT_EQ(index.insert(2, "3", "", {}), ItemIndex::NONE);
  EXPECT_EQ(index.insert(3, "2", "", {}), ItemIndex::NONE);
  EXPECT_EQ(index.find(3), ItemIndex::NONE);
  EXPECT_EQ(index.findIdentifier("3"), ItemIndex::NONE);
  const Slot other = index.insert(3, "3", "", {});
  EXPECT_TRUE(index.attach(file, root, "name"));
  EXPECT_FALSE(index.attach(other, root, "name"));
  EXPECT_EQ(index.parent(other), ItemIndex::NONE);
  EXPECT_TRUE(index.attach(other, file, "name"));
  EXPECT_EQ(index.size(), 3U);
}

struct Row {
  Inode inode;
  Inode parent;
  std::string identifier;
  std::string name;
  bool isFolder = false;
};

std::vector<ItemIndex::Part> partsOf(const std::vector<Row>& rows, std::size_t count = 1) {
  std::vector<ItemIndex::Part> parts(count);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto& [inode, parent, identifier, name, isFolder] = rows[i];
    parts[i * 7 / 3 % count].add(inode, parent, identifier, name, {.size = 12, .isFolder = isFolder});
  }
  return parts;
}

TEST(ItemIndexTest, PartsBecomeOneTreeThatCanBeChanged) {
  std::vector<Row> rows;
  for (Inode inode = 2; inode < 20'000; ++inode)
    rows.push_back({inode, inode < 102 ? 1 : 2 + inode % 100, fmt::format("id {}", inode),
                    fmt::format("n {}", inode / 2), inode < 102});
  for (Inode i = 2; i < 102; ++i) rows[i - 2].name = fmt::format("folder {}", i);
  std::shuffle(rows.begin(), rows.end(), std::mt19937(1));
  for (const std::size_t count : {1U, 3U}) {
    ItemIndex index;
    const Slot root = index.insert(1, "root", "", {.isFolder = true});
    ASSERT_TRUE(index.take(partsOf(rows, count)));
    EXPECT_EQ(index.size(), rows.size() + 1);
    EXPECT_EQ(index.subtree(root).size(), rows.size() + 1);
    for (const auto& [inode, parent, identifier, name, isFolder] : rows) {
      const Slot slot = index.find(inode);
      ASSERT_NE(slot, ItemIndex::NONE);
      EXPECT_EQ(index.findIdentifier(identifier), slot);
      EXPECT_EQ(index.findChild(index.find(parent), name), slot);
      EXPECT_EQ(index.name(slot), name);
      EXPECT_EQ(index.facts(slot).size, 12);
    }
    for (Inode inode = 102; inode < 20'000; inode += 2) index.remove(index.find(inode));
    for (Inode inode = 20'000; inode < 40'000; ++inode)
      EXPECT_TRUE(
          index.attach(index.insert(inode, fmt::format("id {}", inode), "", {}), root, fmt::format("{}", inode)));
    EXPECT_EQ(index.subtree(root).size(), index.size());
    EXPECT_EQ(index.findIdentifier("id 102"), ItemIndex::NONE);
    EXPECT_EQ(index.inode(index.findIdentifier("id 103")), 103U);
  }
}

TEST(ItemIndexTest, PartsThatAreNoTreeAreRefused) {
  const std::vector<Row> cases[] = {
      {{1, 1, "again", "x"}},                // the inode is there
      {{2, 1, "root", "x"}},                 // the identifier is there
      {{2, 1, "a", "x"}, {2, 1, "b", "y"}},  // an inode twice
      {{2, 1, "a", "x"}, {3, 1, "a", "y"}},  // an identifier twice
      {{2, 1, "a", "x"}, {3, 1, "b", "x"}},  // a name twice
      {{2, 9, "a", "x"}},                    // no parent
      {{2, 1, "a", "x"}, {3, 2, "b", "y"}},  // a file as the parent
      {{2, 2, "a", "x", true}},              // its own parent
      {{2, 3, "a", "x", true}, {3, 4, "b", "y", true}, {4, 2, "c", "z", true}},
  };
  for (const auto& rows : cases) {
    ItemIndex index;
    index.insert(1, "root", "", {.isFolder = true});
    EXPECT_FALSE(index.take(partsOf(rows))) << rows[0].identifier;
  }
  ItemIndex index;
  index.insert(1, "root", "", {.isFolder = true});
  EXPECT_TRUE(index.take(partsOf({{2, 3, "a", "x"}, {3, 1, "b", "x", true}}, 2)));
  EXPECT_TRUE(index.take({}));
}

TEST(ItemIndexTest, RenamingForeverDoesNotGrowTheTexts) {
  ItemIndex index;
  const Slot root = index.insert(1, "root", "", {});
  const Slot file = index.insert(2, std::string(60'000, 'i'), "", {});
  for (int i = 0; i < 5'000; ++i) {
    index.detach(file);
    index.attach(file, root, fmt::format("{}", i));
  }
  EXPECT_EQ(index.name(file), "4999");
  EXPECT_EQ(index.identifier(file), std::string(60'000, 'i'));
  EXPECT_EQ(index.identifier(root), "root");
  EXPECT_LT(index.textBytes(), std::size_t{32} << 20);
}

}  // namespace
}  // namespace vondle
