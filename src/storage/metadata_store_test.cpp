#include "storage/metadata_store.h"

#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

class MetadataStoreTest : public testing::Test {
 protected:
  MetadataStore open() {
    auto store = MetadataStore::open(path());
    EXPECT_TRUE(store);
    return std::move(*store);
  }
  std::string path() const { return folder_.path() + "/metadata.db"; }

  TemporaryFolder folder_;
};

TEST_F(MetadataStoreTest, WhatWasWrittenIsThereAfterReopening) {
  {
    auto store = open();
    ASSERT_TRUE(store.write<void>([&]() -> Answer<void> {
      store.set("a", "1");
      return {};
    }));
  }
  auto store = open();
  EXPECT_EQ(store.read<std::string>([&]() -> Answer<std::string> { return store.setting("a").value_or(""); }), "1");
}

TEST_F(MetadataStoreTest, ARefusedWriteChangesNothing) {
  auto store = open();
  const auto refused = store.write<void>([&]() -> Answer<void> {
    store.set("a", "1");
    return refuse(409, "no");
  });
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().status, 409);
  EXPECT_EQ(store.read<bool>([&]() -> Answer<bool> { return store.setting("a").has_value(); }), false);
}

TEST_F(MetadataStoreTest, AFailureOfTheDatabaseUndoesTheWriteAndIsAnswered) {
  auto store = open();
  ASSERT_TRUE(store.write<void>([&]() -> Answer<void> {
    store.addAccount("ann", "hash", 0);
    return {};
  }));
  const auto failed = store.write<void>([&]() -> Answer<void> {
    store.set("a", "1");
    store.addAccount("ben", "hash", 0);  // the key's hash is unique
    store.set("b", "1");
    return {};
  });
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().status, 500);
  EXPECT_EQ(store.read<bool>([&]() -> Answer<bool> {
    return store.setting("a").has_value() || store.setting("b").has_value() || store.accountNamed("ben").has_value();
  }),
            false);
}

TEST_F(MetadataStoreTest, AReaderSeesOneMomentOnly) {
  auto writer = open();
  auto reader = open();
  const auto seen = reader.read<int>([&]() -> Answer<int> {
    const bool before = reader.setting("a").has_value();
    EXPECT_TRUE(writer.write<void>([&]() -> Answer<void> {
      writer.set("a", "1");
      return {};
    }));
    const bool after = reader.setting("a").has_value();
    return (before ? 1 : 0) + (after ? 1 : 0);
  });
  EXPECT_EQ(seen, 0);
  EXPECT_EQ(reader.read<bool>([&]() -> Answer<bool> { return reader.setting("a").has_value(); }), true);
}

TEST_F(MetadataStoreTest, ADatabaseOfANewerProgramIsRefused) {
  open();
  {
    auto database = sqlite::Database::open(path());
    ASSERT_TRUE(database->setUserVersion(99));
  }
  const auto refused = MetadataStore::open(path());
  ASSERT_FALSE(refused);
  EXPECT_NE(refused.error().description.find("newer"), std::string::npos);
}

}  // namespace
}  // namespace vondle::storage
