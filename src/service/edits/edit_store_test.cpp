#include "service/edits/edit_store.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// How often SQLite has asked for what it wrote to be on disk; see replica_test.cpp.
extern std::atomic<int> syncs;

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class EditStoreTest : public testing::Test {
 protected:
  EditStoreTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-store-XXXXXX").native();
    folder_ = ::mkdtemp(pattern.data());
  }
  ~EditStoreTest() override { std::filesystem::remove_all(folder_); }

  [[nodiscard]] std::string path() const { return folder_ + "/edits.sqlite"; }
  EditStore open() {
    auto store = EditStore::open(path());
    EXPECT_TRUE(store) << store.error().localizedDescription();
    return std::move(*store);
  }
  // The database as a program of version 1 or 2 would have left it.
  void makeOfVersion(std::int64_t version) {
    auto database = sqlite::Database::open(path());
    for (const auto* column : {"folder", "name", "contents", "generation"})
      ASSERT_TRUE(database->execute(fmt::format("ALTER TABLE edit DROP COLUMN attempt_{}", column)));
    ASSERT_TRUE(database->setUserVersion(version));
  }
  static Edit edit(EditID id, const std::string& item) {
    Edit edit;
    edit.id = id;
    edit.item = {item};
    edit.fields = EDIT_PLACED | EDIT_CONTENTS;
    edit.place = {{"folder"}, "name\n\xff"};
    edit.serverPlace = Place{{"other"}, ""};
    edit.baseVersion = {std::string("a\0b", 3), "meta"};
    edit.contents = 12;
    edit.size = 34;
    edit.modified = {5.25};
    edit.generation = 6;
    edit.contentsGeneration = 5;
    edit.changedAt = {7.5};
    edit.attempt = Attempt{{{"third"}, "former"}, 11, 4};
    edit.attempts = 8;
    edit.nextTry = Timestamp{9.125};
    edit.lastError = "no room";
    return edit;
  }
  static EditBatch batch(std::vector<Edit> edits, std::vector<EditID> removals = {}) {
    return {std::move(edits), std::move(removals), {}, {}};
  }

  std::string folder_;
};

TEST_F(EditStoreTest, EverythingOfAnEditIsKept) {
  auto created = edit(2, "created");
  created.isFolder = true;
  created.fields = EDIT_CREATED;
  created.serverPlace.reset();
  created.attempt.reset();
  created.nextTry.reset();
  {
    auto store = open();
    EXPECT_THAT(*store.edits(), IsEmpty());
    ASSERT_TRUE(store.write(batch({created, edit(1, "x")})));
  }
  EXPECT_THAT(*open().edits(), ElementsAre(edit(1, "x"), created));
}

TEST_F(EditStoreTest, AnEditIsChangedAndRemoved) {
  auto store = open();
  store.write(batch({edit(1, "x"), edit(2, "y")}));
  auto changed = edit(1, "x");
  changed.place.name = "new";
  store.write(batch({changed}, {2}));
  EXPECT_THAT(*store.edits(), ElementsAre(changed));
}

TEST_F(EditStoreTest, AnItemPassesFromOneEditToAnother) {
  auto store = open();
  store.write(batch({edit(1, "x"), edit(2, "local")}));
  store.write(batch({edit(2, "x")}, {1}));
  EXPECT_THAT(*store.edits(), ElementsAre(edit(2, "x")));
}

TEST_F(EditStoreTest, AttributesAreKept) {
  const LocalAttributes one{{"x"}, 0754, Timestamp{1.5}, 0xffff'ffff'ffff'fff0};
  const LocalAttributes other{{"y"}, std::nullopt, std::nullopt, 0};
  {
    auto store = open();
    store.write({{}, {}, {one, other}, {}});
  }
  auto store = open();
  EXPECT_THAT(*store.attributes(), testing::UnorderedElementsAre(one, other));
  store.write({{}, {}, {}, {{"x"}}});
  EXPECT_THAT(*store.attributes(), ElementsAre(other));
}

TEST_F(EditStoreTest, PermissionsOfAnOlderProgramAreTakenOver) {
  {
    auto store = open();
    store.write(batch({edit(1, "x")}));
    store.write(
        {{}, {}, {{{"a"}, 7U}, {{"b"}, 2U}, {{"c"}, 6U}, {{"d"}, 3U}, {{"e"}, std::nullopt, Timestamp{1.5}, 9}}, {}});
    makeOfVersion(1);
  }
  auto former = edit(1, "x");
  former.attempt = Attempt{former.place, former.contents, former.generation};
  const std::vector<LocalAttributes> expected{
      {{"a"}, 0700U}, {{"b"}, 0400U}, {{"c"}, 0600U}, {{"d"}, 0500U}, {{"e"}, std::nullopt, Timestamp{1.5}, 9}};
  for (int i = 0; i < 2; ++i) {
    auto store = open();
    EXPECT_THAT(*store.attributes(), testing::UnorderedElementsAreArray(expected));
    EXPECT_THAT(*store.edits(), ElementsAre(former));
  }
}

TEST_F(EditStoreTest, NoIdIsGivenTwiceEvenAfterARestart) {
  EditID last = 0;
  {
    auto store = open();
    EXPECT_EQ(store.newID(), 1);
    last = store.newID();
    store.write(batch({edit(last, "x")}));
    store.write(batch({}, {last}));
  }
  EXPECT_EQ(open().newID(), last + 1);
}

TEST_F(EditStoreTest, OnlyMakeDurableWaitsForTheDisk) {
  auto store = open();
  syncs = 0;
  store.write(batch({edit(1, "x")}));
  EXPECT_EQ(syncs, 0);
  EXPECT_TRUE(store.makeDurable());
  EXPECT_GT(syncs.exchange(0), 0);
  EXPECT_TRUE(store.makeDurable());
  EXPECT_GT(syncs.exchange(0), 0);
  store.write(batch({edit(2, "y")}));
  EXPECT_EQ(syncs, 0);
}

TEST_F(EditStoreTest, WhatWasWrittenSurvivesTheEndOfTheProcess) {
  auto store = open();
  store.write(batch({edit(1, "x")}));
  // As it lies on disk when the process ends now.
  std::filesystem::create_directory(folder_ + "/killed");
  for (const auto* suffix : {"", "-wal"})
    std::filesystem::copy_file(path() + suffix, folder_ + "/killed/edits.sqlite" + suffix);
  auto again = EditStore::open(folder_ + "/killed/edits.sqlite");
  ASSERT_TRUE(again);
  EXPECT_THAT(*again->edits(), ElementsAre(edit(1, "x")));
}

TEST_F(EditStoreTest, ADamagedDatabaseIsAnErrorAndStays) {
  {
    auto store = open();
    for (EditID id = 1; id < 200; ++id) store.write(batch({edit(id, fmt::format("item {}", id))}));
  }
  const auto size = std::filesystem::file_size(path());
  for (std::uint64_t at = 0; at + 4096 <= size; at += 4096) {
    std::filesystem::copy_file(path(), path() + ".bad", std::filesystem::copy_options::overwrite_existing);
    {
      std::fstream file(path() + ".bad", std::ios::in | std::ios::out | std::ios::binary);
      file.seekp(static_cast<std::streamoff>(at));
      file << std::string(200, '\xa5');
    }
    const auto opened = EditStore::open(path() + ".bad");
    ASSERT_FALSE(opened) << at;
    EXPECT_THAT(opened.error().description, HasSubstr(path() + ".bad"));
    EXPECT_THAT(opened.error().description, HasSubstr("Nothing was removed"));
    EXPECT_EQ(std::filesystem::file_size(path() + ".bad"), size);
  }
}

TEST_F(EditStoreTest, ADatabaseOfANewerProgramIsAnErrorAndStays) {
  {
    auto store = open();
    store.write(batch({edit(1, "x")}));
  }
  {
    auto database = sqlite::Database::open(path());
    ASSERT_TRUE(database->setUserVersion(4));
  }
  const auto opened = EditStore::open(path());
  ASSERT_FALSE(opened);
  EXPECT_THAT(opened.error().description, HasSubstr("newer"));
  auto database = sqlite::Database::open(path());
  ASSERT_TRUE(database->setUserVersion(3));
  EXPECT_THAT(*open().edits(), ElementsAre(edit(1, "x")));
}

TEST_F(EditStoreTest, WhatAnOlderProgramHadNotSentMayBeOnTheServer) {
  auto moved = edit(2, "y");
  moved.fields = EDIT_PLACED;
  {
    auto store = open();
    store.write(batch({edit(1, "x"), moved}));
  }
  makeOfVersion(2);
  auto written = edit(1, "x");
  written.attempt = Attempt{written.place, written.contents, written.generation};
  moved.attempt.reset();
  EXPECT_THAT(*open().edits(), ElementsAre(written, moved));
  EXPECT_THAT(*open().edits(), ElementsAre(written, moved)) << "and is converted once";
}

TEST_F(EditStoreTest, WhatCannotBeWrittenHasNotHappened) {
  auto store = open();
  store.write(batch({edit(1, "x")}));
  {
    auto other = sqlite::Database::open(path(), {.busyTimeout = std::chrono::milliseconds(0)});
    ASSERT_TRUE(other->execute(
        "CREATE TRIGGER full BEFORE INSERT ON edit WHEN new.id = 3 BEGIN SELECT raise(ABORT, 'no room'); END"));
  }
  EXPECT_FALSE(store.write(batch({edit(2, "y"), edit(3, "z")}, {1})));
  EXPECT_THAT(*store.edits(), ElementsAre(edit(1, "x")));
}

}  // namespace
}  // namespace vondle
