#include "provider/modify_item.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/edit_rig.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::uint32_t NAME = FIELD_FILENAME;
constexpr std::uint32_t PARENT = FIELD_PARENT_ITEM_IDENTIFIER;

struct ModifyItemTest : testing::Test, EditRig {
  ModifyItemTest() {
    serveFolder("3", "docs");
    serveFolder("5", "letters/old", "4");
    serve({});
  }
};

TEST_F(ModifyItemTest, ChangesThatTheServerDoesNotKeepSendNothingAndReturnTheItem) {
  for (const std::uint32_t fields : {0U, std::uint32_t{FIELD_CONTENT_MODIFICATION_DATE}, FIELD_LAST_USED_DATE | 0U,
                                     FIELD_TAG_DATA | FIELD_FAVORITE_RANK | FIELD_CREATION_DATE |
                                         FIELD_FILE_SYSTEM_FLAGS | FIELD_EXTENDED_ATTRIBUTES}) {
    const auto saved = modify(wanted("7", "other.txt", {"5"}), fields);
    ASSERT_TRUE(saved) << saved.error().localizedDescription();
    EXPECT_EQ(saved->item.itemIdentifier, ItemIdentifier{"7"});
    EXPECT_EQ(saved->item.filename, "a.txt");
    EXPECT_EQ(saved->stillPendingFields, 0U);
    EXPECT_FALSE(saved->shouldFetchContent);
    EXPECT_FALSE(saved->hasGivenContents);
  }
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ModifyItemTest, ADateOfWhatLiesInTheTrashDoesNotRestoreIt) {
  serve({.trashed = true});
  const auto saved = modify(wanted("7"), FIELD_LAST_USED_DATE);
  EXPECT_EQ(saved.value().item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ModifyItemTest, RenamesAFileAtTheRoot) {
  serve({.path = "a.txt", .parentID = "root"});
  take("move", "{}", [this] { serve({.path = "b.txt", .parentID = "root"}); });
  const auto saved = modify(wanted("7", "b.txt"), NAME);
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.filename, "b.txt");
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_FALSE(saved->shouldFetchContent);
  EXPECT_THAT(calls(), ElementsAre("GET item?id=7", R"(move {"source_key":"k7","dest_key":"b.txt"})", "GET item?id=7"));
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("modify a.txt -> b.txt"));
}

TEST_F(ModifyItemTest, SendsTheFullTargetPath) {
  const struct {
    EditRig::File file;
    Item item;
    std::uint32_t fields;
    const char* sent;
  } cases[] = {
      {{}, wanted("7", "b.txt"), NAME, R"(move {"source_key":"k7","dest_key":"docs/b.txt"})"},
      // Only what is marked as changed counts.
      {{}, wanted("7", "b.txt", {"5"}), NAME, R"(move {"source_key":"k7","dest_key":"docs/b.txt"})"},
      {{}, wanted("7", "b.txt", {"5"}), PARENT, R"(move {"source_key":"k7","dest_key":"letters/old/a.txt"})"},
      {{}, wanted("7", "b.txt", {"5"}), NAME | PARENT, R"(move {"source_key":"k7","dest_key":"letters/old/b.txt"})"},
      {{}, wanted("7", "b.txt", ROOT_CONTAINER), PARENT, R"(move {"source_key":"k7","dest_key":"a.txt"})"},
      {{}, wanted("7", "A.TXT"), NAME | FIELD_TAG_DATA, R"(move {"source_key":"k7","dest_key":"docs/A.TXT"})"},
      {{.path = "docs/work", .isFolder = true},
       wanted("7", "play"),
       NAME,
       R"(move-folder {"source_prefix":"docs/work/","dest_prefix":"docs/play/"})"},
      {{.path = "docs/work", .isFolder = true},
       wanted("7", "play", ROOT_CONTAINER),
       NAME | PARENT,
       R"(move-folder {"source_prefix":"docs/work/","dest_prefix":"play/"})"},
  };
  take("move");
  take("move-folder");
  for (const auto& c : cases) {
    serve(c.file);
    const auto before = writes().size();
    const auto saved = modify(c.item, c.fields);
    ASSERT_TRUE(saved) << c.sent << ": " << saved.error().localizedDescription();
    ASSERT_EQ(writes().size(), before + 1) << c.sent;
    EXPECT_EQ(writes().back(), c.sent);
  }
}

TEST_F(ModifyItemTest, AChangeThatLeavesThePathAsItIsSendsNothing) {
  for (const auto& item : {wanted("7", "a.txt", {"3"}), wanted("7", "a.txt")}) {
    EXPECT_EQ(modify(item, NAME).value().item.filename, "a.txt");
    EXPECT_THAT(writes(), IsEmpty());
  }
  EXPECT_EQ(modify(wanted("7", "a.txt", {"3"}), NAME | PARENT).value().item.filename, "a.txt");
  EXPECT_THAT(writes(), IsEmpty());
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("modify"))));
}

TEST_F(ModifyItemTest, MovingIntoTheTrashNeverRenames) {
  take("delete-files", "{}", [this] { serve({.trashed = true}); });
  const auto saved = modify(wanted("7", "other.txt", TRASH_CONTAINER), NAME | PARENT);
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_EQ(saved->item.filename, "a.txt");
  EXPECT_THAT(writes(), ElementsAre(R"(delete-files {"keys":["k7"]})"));
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("trashing 7"));
}

TEST_F(ModifyItemTest, AFolderGoesIntoTheTrashByItsPath) {
  serve({.path = "docs/work", .isFolder = true});
  take("delete-folder", "{}", [this] { serve({.path = "docs/work", .trashed = true, .isFolder = true}); });
  EXPECT_EQ(modify(wanted("7", "", TRASH_CONTAINER), PARENT).value().item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_THAT(writes(), ElementsAre(R"(delete-folder {"prefix":"docs/work/"})"));
}

TEST_F(ModifyItemTest, WhatIsInTheTrashAlreadyIsNotSentThereAgain) {
  serve({.trashed = true});
  EXPECT_EQ(modify(wanted("7", "", TRASH_CONTAINER), PARENT).value().item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ModifyItemTest, TheTrashAsParentCountsOnlyWhenTheParentChanges) {
  take("move");
  ASSERT_TRUE(modify(wanted("7", "b.txt", TRASH_CONTAINER), NAME));
  EXPECT_THAT(writes(), ElementsAre(R"(move {"source_key":"k7","dest_key":"docs/b.txt"})"));
}

TEST_F(ModifyItemTest, AFileWithoutContentsOnTheServerIsNoItemToMove) {
  serve({.key = std::nullopt});
  for (const auto& item : {wanted("7", "", TRASH_CONTAINER), wanted("7", "", {"5"})})
    EXPECT_EQ(modify(item, PARENT).error(), noSuchItem());
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ModifyItemTest, MovingOutOfTheTrashRestoresById) {
  serve({.trashed = true});
  take("restore", "{}", [this] { serve({}); });
  const auto saved = modify(wanted("7", "b.txt", {"5"}), NAME | PARENT);
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.parentItemIdentifier, ItemIdentifier{"3"});
  EXPECT_EQ(saved->item.filename, "a.txt");
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_THAT(calls(), ElementsAre("GET item?id=7", R"(restore {"id":"7"})", "GET item?id=7"));
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("restoring 7"));
}

TEST_F(ModifyItemTest, AnUnknownItemOrParentIsNoSuchItem) {
  for (const auto& item : {wanted("8", "b.txt"), wanted("7", "b.txt", {"99"})}) {
    const auto saved = modify(item, NAME | PARENT);
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error(), noSuchItem());
  }
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ModifyItemTest, AsksAfreshHoweverYoungTheRecordIs) {
  see("7");
  serve({.path = "docs/renamed meanwhile.txt", .key = "k8"});
  take("move");
  ASSERT_TRUE(modify(wanted("7", "", ROOT_CONTAINER), PARENT));
  EXPECT_THAT(writes(), ElementsAre(R"(move {"source_key":"k8","dest_key":"renamed meanwhile.txt"})"));
}

TEST_F(ModifyItemTest, GoesByWhatIsKnownWhenTheServerFails) {
  see("7");
  see("3");
  itemFailure = reply("", 500);
  take("move", "{}", [this] {
    itemFailure.reset();
    serve({.path = "docs/b.txt"});
  });
  EXPECT_EQ(modify(wanted("7", "b.txt"), NAME).value().item.filename, "b.txt");
}

TEST_F(ModifyItemTest, TheFreshRecordTakesTheOldOnesPlace) {
  see("7");
  take("move", "{}", [this] { serve({.path = "docs/b.txt"}); });
  ASSERT_TRUE(modify(wanted("7", "b.txt"), NAME));
  const auto before = calls().size();
  Captured<Result<Item>> item;
  extension().itemForIdentifier({"7"}, {}, item.completion());
  EXPECT_EQ(item.value()->filename, "b.txt");
  EXPECT_EQ(calls().size(), before);
}

TEST_F(ModifyItemTest, ARefusalReachesTheCompletionAsItIs) {
  const struct {
    EditRig::File file;
    Item item;
    const char* endpoint;
  } cases[] = {
      {{}, wanted("7", "b.txt"), "move"},
      {{}, wanted("7", "", TRASH_CONTAINER), "delete-files"},
      {{.trashed = true}, wanted("7", "b.txt"), "restore"},
      {{.path = "docs/work", .isFolder = true}, wanted("7", "b"), "move-folder"},
      {{.path = "docs/work", .isFolder = true}, wanted("7", "", TRASH_CONTAINER), "delete-folder"},
  };
  for (const auto& c : cases) {
    serve(c.file);
    const auto fields = c.item.filename.empty() ? PARENT : NAME;
    for (const int status : {401, 403, 404, 409, 413, 429, 500, 507, 204}) {
      refuse(c.endpoint, status);
      const auto saved = modify(c.item, fields);
      ASSERT_FALSE(saved) << c.endpoint << " " << status;
      EXPECT_EQ(saved.error(), Error(APIError::badResponse(status))) << c.endpoint;
    }
    refuse(c.endpoint, 200, "garbage");
    EXPECT_EQ(modify(c.item, fields).error(), Error(APIError::badResponse(200))) << c.endpoint;
    refuse(c.endpoint, networkFailure());
    EXPECT_TRUE(modify(c.item, fields).error().is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST)) << c.endpoint;
  }
}

TEST_F(ModifyItemTest, WhenTheItemCannotBeReadAnewItsErrorIsTheAnswer) {
  take("move", "{}", [this] { itemFailure = reply("", 503); });
  EXPECT_EQ(modify(wanted("7", "b.txt"), NAME).error(), Error(APIError::badResponse(503)));
  // What was known is known no more.
  itemFailure.reset();
  serve({.path = "docs/b.txt"});
  const auto before = calls().size();
  see("7");
  EXPECT_EQ(calls().size(), before + 1);
}

TEST_F(ModifyItemTest, EndsWhenTheProcessEnds) {
  SimulatedPlatform otherMachine;
  otherMachine.files.put(Paths(otherMachine.users).config(), R"({"server":"https://api.example","api_key":"k"})");
  Answer answer;
  {
    Process other(otherMachine.platform());
    const auto otherExtension = other.makeExtension({"domain", "Vondle"}, [](const Domain&) { return nullptr; });
    otherExtension->modifyItem(wanted("7", "b.txt"), {}, NAME, std::nullopt, 0, {}, answer.completion());
    otherMachine.scheduler.runUntilIdle();
    EXPECT_FALSE(answer.hasValue());
  }
  EXPECT_FALSE(answer.value());
}

}  // namespace
}  // namespace vondle
