#include "storage/content_store.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using Kind = ContentStore::Kind;
constexpr const char* KEY = "0123456789abcdef0123456789abcdef";

class ContentStoreTest : public testing::Test {
 protected:
  ContentStoreTest() : store_(std::move(*ContentStore::open(folder_.path()))) {}

  std::string stored(Kind kind = Kind::contents) const {
    const auto file = store_.read(kind, KEY);
    if (!file) return "(nothing)";
    std::string bytes(static_cast<std::size_t>((*file)->size()), '\0');
    EXPECT_EQ((*file)->readAt(0, bytes), bytes.size());
    return bytes;
  }

  TemporaryFolder folder_;
  ContentStore store_;
};

TEST_F(ContentStoreTest, BytesAreVisibleOnlyWhenTheyHaveTheirPlace) {
  auto incoming = store_.receive(Kind::contents, KEY);
  ASSERT_TRUE(incoming);
  ASSERT_TRUE((*incoming)->write("ab"));
  ASSERT_TRUE((*incoming)->write("c"));
  EXPECT_EQ((*incoming)->size(), 3);
  EXPECT_FALSE(store_.has(Kind::contents, KEY));
  EXPECT_EQ((*incoming)->seal(), hexadecimal(sha256("abc")));
  EXPECT_FALSE(store_.has(Kind::contents, KEY));
  ASSERT_TRUE((*incoming)->place());
  EXPECT_EQ(stored(), "abc");
  EXPECT_EQ(stored(Kind::thumb), "(nothing)");
}

TEST_F(ContentStoreTest, WhatIsNotFinishedLeavesNothing) {
  {
    ASSERT_TRUE((*store_.receive(Kind::contents, KEY))->write("abc"));
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path() + "/incoming"));
  folder_.write("incoming/left-by-a-crash", "x");
  ASSERT_TRUE(ContentStore::open(folder_.path()));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path() + "/incoming"));
}

TEST_F(ContentStoreTest, ManyPiecesOfAnySizeComeOutAsTheyWentIn) {
  std::string bytes;
  for (int i = 0; i < 300000; ++i) bytes += static_cast<char>(i * 7 + i / 255);
  auto incoming = store_.receive(Kind::contents, KEY);
  for (std::size_t at = 0, size = 1; at < bytes.size(); at += size, size = size * 3 % 70001 + 1)
    ASSERT_TRUE((*incoming)->write(std::string_view(bytes).substr(at, size)));
  EXPECT_EQ((*incoming)->seal(), hexadecimal(sha256(bytes)));
  ASSERT_TRUE((*incoming)->place());
  EXPECT_TRUE(stored() == bytes);
}

TEST_F(ContentStoreTest, AReaderGoesOnWhenTheContentsAreRemoved) {
  auto incoming = store_.receive(Kind::contents, KEY);
  ASSERT_TRUE((*incoming)->write("abc"));
  ASSERT_TRUE((*incoming)->seal());
  ASSERT_TRUE((*incoming)->place());
  const auto file = store_.read(Kind::contents, KEY);
  ASSERT_TRUE(store_.remove(KEY));
  ASSERT_TRUE(store_.remove(KEY));
  EXPECT_EQ(stored(), "(nothing)");
  std::string bytes(2, '\0');
  EXPECT_EQ((*file)->readAt(1, bytes), 2U);
  EXPECT_EQ(bytes, "bc");
  EXPECT_EQ((*file)->readAt(3, bytes), 0U);
}

TEST_F(ContentStoreTest, PartsInAnyOrderMakeUpTheWhole) {
  for (const auto& [number, offset, bytes] :
       {std::tuple(2, 3, "def"), std::tuple(1, 0, "abc"), std::tuple(3, 6, "g")}) {
    auto part = store_.receivePart(KEY, number, offset);
    ASSERT_TRUE(part);
    ASSERT_TRUE((*part)->write(bytes));
    EXPECT_EQ((*part)->seal(), hexadecimal(sha256(bytes)));
  }
  EXPECT_EQ(stored(), "(nothing)");
  EXPECT_FALSE(store_.assemble(KEY, 8));
  ASSERT_TRUE(store_.assemble(KEY, 7));
  EXPECT_EQ(stored(), "abcdefg");
  EXPECT_TRUE(store_.assemble(KEY, 7)) << "the second time is success";
}

TEST_F(ContentStoreTest, ATransferOfAPartThatWasTakenOverCannotWriteAnyMore) {
  auto old = store_.receivePart(KEY, 1, 0);
  ASSERT_TRUE((*old)->write("old"));
  auto other = store_.receivePart(KEY, 2, 3);
  EXPECT_TRUE((*old)->isCurrent()) << "another part takes nothing over";
  auto fresh = store_.receivePart(KEY, 1, 0);
  EXPECT_FALSE((*old)->isCurrent());
  ASSERT_TRUE((*fresh)->write("new"));
  ASSERT_TRUE((*fresh)->seal());
  const auto sealed = (*old)->seal();
  ASSERT_FALSE(sealed);
  EXPECT_TRUE(sealed.error().is(POSIX_ERROR_DOMAIN, ECANCELED));
  ASSERT_TRUE(store_.assemble(KEY, 3));
  EXPECT_EQ(stored(), "new");
}

}  // namespace
}  // namespace vondle::storage
