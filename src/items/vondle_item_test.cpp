#include "items/vondle_item.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "items/root_item.h"
#include "testing/items_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::Optional;

struct VondleItemTest : testing::Test, ItemsRig {
  Item item(const Entry& entry) { return VondleItem(entry, pins).item(); }

  Entry sharedTop(bool isFolder, std::string ownerName = "") {
    Entry made = entry("7", "Photos", isFolder);
    made.parentID = "shared";
    made.ownerName = std::move(ownerName);
    return made;
  }
};

TEST_F(VondleItemTest, KeepsIdentifiersButForTheRoot) {
  Entry folder = entry("root", "top", true);
  EXPECT_EQ(item(folder).itemIdentifier, ROOT_CONTAINER);
  folder.id = "shared";
  EXPECT_EQ(item(folder).itemIdentifier, ItemIdentifier{"shared"});
  EXPECT_EQ(item(folder).parentItemIdentifier, ROOT_CONTAINER);
  folder.parentID = "12";
  EXPECT_EQ(item(folder).parentItemIdentifier, ItemIdentifier{"12"});
}

TEST_F(VondleItemTest, PutsWhatIsDeletedIntoTheTrash) {
  for (const char* parent : {"root", "12", "shared"}) {
    Entry deleted = entry("7", "a");
    deleted.parentID = parent;
    deleted.deleted = true;
    EXPECT_EQ(item(deleted).parentItemIdentifier, TRASH_CONTAINER) << parent;
  }
}

TEST_F(VondleItemTest, TakesTheContentTypeFromTheLastExtension) {
  const struct {
    const char* name;
    const char* type;
  } cases[] = {
      {"a.txt", "text/plain"},
      {"a.JPG", "image/jpeg"},
      {"a.txt.png", "image/png"},
      {"a", "application/octet-stream"},
      {"txt", "application/octet-stream"},
      {".txt", "application/octet-stream"},
      {"a.", "application/octet-stream"},
      {"", "application/octet-stream"},
      {"a.no-such-extension", "application/octet-stream"},
  };
  for (const auto& c : cases) EXPECT_EQ(item(entry("7", c.name)).contentType, c.type) << c.name;
  EXPECT_EQ(item(entry("7", "a.txt", true)).contentType, "inode/directory");
  EXPECT_TRUE(item(entry("7", "a.txt", true)).isFolder());
}

TEST_F(VondleItemTest, DecidesRightsByRoleThenByParent) {
  const struct {
    std::optional<std::string> role;
    const char* parent;
    std::uint32_t capabilities;
    std::uint32_t folderFlags;
    std::uint32_t fileFlags;
  } cases[] = {
      {"read", "root", 1, 3, 2},        {"container", "12", 1, 3, 2},      {"read", "shared", 1, 3, 2},
      {"container", "root", 1, 3, 2},   {std::nullopt, "shared", 3, 7, 6}, {"owner", "shared", 3, 7, 6},
      {std::nullopt, "root", 63, 7, 6}, {"owner", "12", 63, 7, 6},         {"editor", "root", 63, 7, 6},
  };
  for (const auto& c : cases) {
    for (const bool isFolder : {false, true}) {
      Entry made = entry("7", "a", isFolder);
      made.role = c.role;
      made.parentID = c.parent;
      const Item result = item(made);
      EXPECT_EQ(result.capabilities, c.capabilities) << c.role.value_or("(none)") << " in " << c.parent;
      EXPECT_EQ(result.fileSystemFlags, isFolder ? c.folderFlags : c.fileFlags)
          << c.role.value_or("(none)") << " in " << c.parent;
    }
  }
}

TEST_F(VondleItemTest, TellsTheSizeOfFilesOnly) {
  EXPECT_THAT(item(entry("7", "a")).documentSize, Optional(0));
  Entry large = entry("7", "a");
  large.size = 5'000'000'000;
  EXPECT_THAT(item(large).documentSize, Optional(5'000'000'000));
  large.isFolder = true;
  EXPECT_EQ(item(large).documentSize, std::nullopt);
}

TEST_F(VondleItemTest, ShowsSharingForFoldersOnly) {
  const struct {
    bool isFolder;
    bool shared;
    const char* parent;
    bool isShared;
    bool byCurrentUser;
  } cases[] = {
      {true, true, "root", true, true},     {true, false, "shared", true, false}, {true, true, "shared", true, true},
      {true, false, "root", false, false},  {false, true, "root", false, false},  {false, true, "shared", false, false},
      {false, false, "root", false, false},
  };
  for (const auto& c : cases) {
    Entry made = entry("7", "a", c.isFolder);
    made.shared = c.shared;
    made.parentID = c.parent;
    const Item result = item(made);
    EXPECT_EQ(result.isShared, c.isShared);
    EXPECT_EQ(result.isSharedByCurrentUser, c.byCurrentUser);
    if (c.isShared) {
      EXPECT_THAT(result.decorations, Optional(ElementsAre("com.ferrow.vondle.provider.ext.shared")));
    } else {
      EXPECT_EQ(result.decorations, std::nullopt);
    }
  }
}

TEST_F(VondleItemTest, TellsWhereRestoringPutsItOnlyInTheTrash) {
  Entry made = entry("7", "a");
  made.path = "docs/a";
  EXPECT_EQ(item(made).restorePath, std::nullopt);
  made.deleted = true;
  EXPECT_EQ(item(made).restorePath, "docs/a");
}

TEST_F(VondleItemTest, HasDatesOnlyAfterTheEpoch) {
  const struct {
    double seconds;
    bool known;
  } cases[] = {{0, false}, {-5, false}, {0.5, true}, {1700000000.9, true}};
  for (const auto& c : cases) {
    Entry made = entry("7", "a");
    made.modified = {c.seconds};
    const auto expected = c.known ? std::optional(made.modified) : std::nullopt;
    EXPECT_EQ(item(made).contentModificationDate, expected) << c.seconds;
    EXPECT_EQ(item(made).creationDate, expected) << c.seconds;
  }
}

TEST_F(VondleItemTest, NamesTheOwnerOfWhatIsSharedWithTheUser) {
  const auto ann = item(sharedTop(true, "Ann Lee")).ownerNameComponents;
  ASSERT_TRUE(ann);
  EXPECT_EQ(ann->givenName, "Ann");
  EXPECT_EQ(ann->familyName, "Lee");
  EXPECT_EQ(ann->nickname, std::nullopt);
  EXPECT_TRUE(item(sharedTop(false, "Ann Lee")).ownerNameComponents);

  EXPECT_EQ(item(sharedTop(true, "")).ownerNameComponents, std::nullopt);
  Entry elsewhere = sharedTop(true, "Ann Lee");
  elsewhere.parentID = "12";
  EXPECT_EQ(item(elsewhere).ownerNameComponents, std::nullopt);
}

TEST_F(VondleItemTest, TakesAnOwnerNameThatIsNoPersonsNameWhole) {
  for (const char* name : {"ann@example.com", "Ann Lee @ work", "123"}) {
    const auto owner = item(sharedTop(true, name)).ownerNameComponents;
    ASSERT_TRUE(owner) << name;
    PersonNameComponents whole;
    whole.givenName = name;
    whole.nickname = name;
    EXPECT_EQ(*owner, whole) << name;
  }
}

TEST_F(VondleItemTest, KeepsPinnedItemsDownloaded) {
  EXPECT_EQ(item(entry("7", "a")).contentPolicy, ContentPolicy::downloadLazily);
  EXPECT_EQ(item(entry("8", "b", true)).contentPolicy, ContentPolicy::inherited);
  pins.set("7", true);
  pins.set("8", true);
  EXPECT_EQ(item(entry("7", "a")).contentPolicy, ContentPolicy::downloadEagerlyAndKeepDownloaded);
  EXPECT_EQ(item(entry("8", "b", true)).contentPolicy, ContentPolicy::downloadEagerlyAndKeepDownloaded);
  pins.set("7", false);
  EXPECT_EQ(item(entry("7", "a")).contentPolicy, ContentPolicy::downloadLazily);
}

TEST_F(VondleItemTest, BuildsItsVersions) {
  Entry made = entry("7", "a.txt");
  made.version = 7;
  made.size = 1024;
  EXPECT_EQ(item(made).itemVersion, (ItemVersion{"7-1024", "7-a.txt-0-0"}));

  Entry photos = sharedTop(true, "Ann");
  photos.version = 3;
  photos.modified = {1700000000.9};
  pins.set("7", true);
  EXPECT_EQ(item(photos).itemVersion, (ItemVersion{"3-0", "3-Photos-1-1700000000-s-Ann"}));

  Entry old = entry("9", "b");
  old.modified = {-1.9};
  EXPECT_EQ(item(old).itemVersion.metadataVersion, "1-b-0--1");
}

TEST_F(VondleItemTest, ChangesOnlyItsMetadataVersionWithAPin) {
  const Entry made = entry("7", "a");
  const ItemVersion before = item(made).itemVersion;
  pins.set("7", true);
  const ItemVersion after = item(made).itemVersion;
  EXPECT_EQ(after.contentVersion, before.contentVersion);
  EXPECT_EQ(before.metadataVersion, "1-a-0-0");
  EXPECT_EQ(after.metadataVersion, "1-a-1-0");
}

TEST_F(VondleItemTest, ChangesItsContentVersionOnlyWithVersionAndSize) {
  const Entry base = entry("7", "a", true);
  const ItemVersion before = item(base).itemVersion;
  const auto changed = [&](auto change) {
    Entry made = base;
    change(made);
    return item(made).itemVersion;
  };
  for (const ItemVersion& after :
       {changed([](Entry& e) { e.name = "b"; }), changed([](Entry& e) { e.shared = true; }),
        changed([](Entry& e) { e.ownerName = "Ann"; }), changed([](Entry& e) { e.modified = {5}; })}) {
    EXPECT_EQ(after.contentVersion, before.contentVersion);
    EXPECT_NE(after.metadataVersion, before.metadataVersion);
  }
  EXPECT_NE(changed([](Entry& e) { e.version = 2; }).contentVersion, before.contentVersion);
  EXPECT_NE(changed([](Entry& e) { e.size = 1; }).contentVersion, before.contentVersion);
}

TEST(RootItem, IsTheSameForEverybody) {
  const Item root = RootItem::item();
  EXPECT_EQ(root.itemIdentifier, ROOT_CONTAINER);
  EXPECT_EQ(root.parentItemIdentifier, ROOT_CONTAINER);
  EXPECT_EQ(root.filename, "Vondle");
  EXPECT_TRUE(root.isFolder());
  EXPECT_EQ(root.capabilities, 3u);
  EXPECT_EQ(root.fileSystemFlags, 7u);
  EXPECT_EQ(root.itemVersion, (ItemVersion{"1", "1"}));
}

}  // namespace
}  // namespace vondle
