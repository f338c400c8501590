#include "api/entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::Eq;

constexpr Timestamp NOW{1800000000.25};

std::optional<Entry> parsed(std::string_view text, std::string_view parentPath = "",
                            std::optional<std::string_view> role = std::nullopt) {
  const auto object = json::parseObject(text);
  EXPECT_TRUE(object) << text;
  return Entry::parse(*object, parentPath, role, NOW);
}

TEST(Entry, HasADefaultForEveryKeyButIdAndName) {
  const auto entry = parsed(R"({"id":"7","name":"a.txt"})", "docs");
  ASSERT_TRUE(entry);
  Entry expected;
  expected.id = "7";
  expected.parentID = "root";
  expected.name = "a.txt";
  expected.path = "docs/a.txt";
  expected.fetchedAt = NOW;
  EXPECT_EQ(*entry, expected);
  EXPECT_EQ(entry->size, 0);
  EXPECT_EQ(entry->version, 1);
  EXPECT_EQ(entry->ownerName, "");
  EXPECT_FALSE(entry->isFolder);
  EXPECT_FALSE(entry->deleted);
  EXPECT_FALSE(entry->hasThumb);
}

TEST(Entry, ReadsEveryKey) {
  const auto entry = parsed(R"({"id":"7","parent_id":"3","name":"a.txt","is_folder":false,"size":5000000000,
    "key":"k/7","download_url":"https://c/7","thumb_url":"https://t/7","path":"x/a.txt",
    "mtime":"2024-05-01T10:20:30.123Z","version":4,"trashed":true,"role":"read","shared":true,"owner_name":"Ann",
    "has_thumb":true})",
                            "docs", "owner");
  const Entry expected{
      "7", "3",  "a.txt", false, 5000000000, "k/7", "https://c/7", "https://t/7", "x/a.txt", Timestamp{1714558830.123},
      4,   true, "read",  true,  "Ann",      NOW,   true};
  ASSERT_TRUE(entry);
  EXPECT_NEAR(entry->modified.secondsSince1970, 1714558830.123, 1e-6);
  Entry rounded = *entry;
  rounded.modified = expected.modified;
  EXPECT_EQ(rounded, expected);
}

TEST(Entry, NeedsATextIdAndATextName) {
  for (const char* text : {R"({})", R"({"id":"7"})", R"({"name":"a"})", R"({"id":7,"name":"a"})",
                           R"({"id":"7","name":null})", R"({"id":null,"name":"a"})"})
    EXPECT_FALSE(parsed(text)) << text;
}

TEST(Entry, TakesAValueOfAnotherTypeAsAbsent) {
  const auto entry = parsed(R"({"id":"7","name":"a","parent_id":1,"size":"12","key":[],"download_url":{},
    "thumb_url":3,"path":true,"mtime":5,"version":"2","trashed":1,"deleted":"true","role":7,"shared":"yes",
    "owner_name":null,"is_folder":"true"})",
                            "docs", "owner");
  Entry expected;
  expected.id = "7";
  expected.parentID = "root";
  expected.name = "a";
  expected.path = "docs/a";
  expected.role = "owner";
  expected.fetchedAt = NOW;
  expected.hasThumb = true;
  EXPECT_THAT(entry, Eq(expected));
}

TEST(Entry, TellsFoldersFromFilesBySeveralKeys) {
  const struct {
    const char* text;
    bool isFolder;
  } cases[] = {
      {R"({"id":"7","name":"d","prefix":"d/"})", true},
      {R"({"id":"7","name":"d","prefix":null})", true},
      {R"({"id":"7","name":"d","prefix":"d/","filename":"x"})", false},
      {R"({"id":"7","name":"d","prefix":"d/","filename":null})", false},
      {R"({"id":"7","name":"d","is_folder":false,"prefix":"d/"})", false},
      {R"({"id":"7","name":"d","is_folder":true,"filename":"x"})", true},
      {R"({"id":"7","name":"d","is_folder":1,"filename":"x"})", false},
      {R"({"id":"7","name":"d"})", false},
  };
  for (const auto& c : cases) EXPECT_EQ(parsed(c.text)->isFolder, c.isFolder) << c.text;
}

TEST(Entry, BuildsThePathFromTheParentUnlessTheServerGivesIt) {
  EXPECT_EQ(parsed(R"({"id":"7","name":"a"})", "")->path, "a");
  EXPECT_EQ(parsed(R"({"id":"7","name":"a"})", "x/y")->path, "x/y/a");
  EXPECT_EQ(parsed(R"({"id":"7","name":"a","path":"z"})", "x/y")->path, "z");
  EXPECT_EQ(parsed(R"({"id":"7","name":"a","path":""})", "x/y")->path, "");
}

TEST(Entry, IsDeletedWhenEitherKeySaysSo) {
  const struct {
    const char* text;
    bool deleted;
  } cases[] = {
      {R"({"id":"7","name":"a","trashed":false,"deleted":true})", true},
      {R"({"id":"7","name":"a","trashed":true,"deleted":false})", true},
      {R"({"id":"7","name":"a","trashed":false,"deleted":false})", false},
      {R"({"id":"7","name":"a","trashed":"true"})", false},
      {R"({"id":"7","name":"a","deleted":1})", false},
  };
  for (const auto& c : cases) EXPECT_EQ(parsed(c.text)->deleted, c.deleted) << c.text;
}

TEST(Entry, HasAThumbnailWhenTheServerSaysSoOrNamesOne) {
  const auto named = parsed(R"({"id":"7","name":"a","thumb_url":null})");
  EXPECT_TRUE(named->hasThumb);
  EXPECT_FALSE(named->thumbURL);
  const auto denied = parsed(R"({"id":"7","name":"a","has_thumb":false,"thumb_url":"https://t"})");
  EXPECT_FALSE(denied->hasThumb);
  EXPECT_EQ(denied->thumbURL, "https://t");
  EXPECT_TRUE(parsed(R"({"id":"7","name":"a","has_thumb":true})")->hasThumb);
  EXPECT_TRUE(parsed(R"({"id":"7","name":"a","has_thumb":0,"thumb_url":"x"})")->hasThumb);
  EXPECT_FALSE(parsed(R"({"id":"7","name":"a","has_thumb":1})")->hasThumb);
}

TEST(Entry, TakesTheFirstModificationTimeThatIsText) {
  const double may = 1714558830;
  const struct {
    const char* text;
    double modified;
  } cases[] = {
      {R"({"id":"7","name":"a","mtime":"2024-05-01T10:20:30Z","last_modified":"2020-01-01T00:00:00Z"})", may},
      {R"({"id":"7","name":"a","mtime":null,"last_modified":"2024-05-01T10:20:30Z"})", may},
      {R"({"id":"7","name":"a","last_modified":"2024-05-01T10:20:30Z"})", may},
      {R"({"id":"7","name":"a","mtime":"","last_modified":"2024-05-01T10:20:30Z"})", 0},
      {R"({"id":"7","name":"a","mtime":"yesterday","last_modified":"2024-05-01T10:20:30Z"})", 0},
      {R"({"id":"7","name":"a"})", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(parsed(c.text)->modified.secondsSince1970, c.modified) << c.text;
}

TEST(Entry, CutsFractionsOfNumbers) {
  const auto entry = parsed(R"({"id":"7","name":"a","size":12.9,"version":3.2})");
  EXPECT_EQ(entry->size, 12);
  EXPECT_EQ(entry->version, 3);
  EXPECT_EQ(parsed(R"({"id":"7","name":"a","version":0})")->version, 0);
  EXPECT_EQ(parsed(R"({"id":"7","name":"a","size":1e30})")->size, 0);
}

TEST(Entry, IsReadOnlyForTwoRolesAndItsOwnRoleWins) {
  EXPECT_TRUE(parsed(R"({"id":"7","name":"a","role":"container"})")->isReadOnly());
  EXPECT_TRUE(parsed(R"({"id":"7","name":"a","role":"read"})")->isReadOnly());
  EXPECT_FALSE(parsed(R"({"id":"7","name":"a","role":"owner"})")->isReadOnly());
  EXPECT_FALSE(parsed(R"({"id":"7","name":"a"})")->isReadOnly());
  EXPECT_TRUE(parsed(R"({"id":"7","name":"a"})", "", "read")->isReadOnly());
  EXPECT_FALSE(parsed(R"({"id":"7","name":"a","role":"owner"})", "", "read")->isReadOnly());
  EXPECT_TRUE(parsed(R"({"id":"7","name":"a","role":"container"})", "", "owner")->isReadOnly());
}

TEST(Entry, ShowsSharedOnlyForFolders) {
  const auto file = parsed(R"({"id":"7","name":"a","parent_id":"shared","shared":true})");
  EXPECT_TRUE(file->isSharedTop());
  EXPECT_FALSE(file->showsShared());
  const auto folder = parsed(R"({"id":"7","name":"a","parent_id":"shared","is_folder":true})");
  EXPECT_TRUE(folder->isSharedTop());
  EXPECT_TRUE(folder->showsShared());
  const auto sharedFolder = parsed(R"({"id":"7","name":"a","parent_id":"3","is_folder":true,"shared":true})");
  EXPECT_FALSE(sharedFolder->isSharedTop());
  EXPECT_TRUE(sharedFolder->showsShared());
  EXPECT_FALSE(parsed(R"({"id":"7","name":"a","is_folder":true})")->showsShared());
}

TEST(Entry, KeepsAHostileNameAsItIs) {
  EXPECT_EQ(parsed(R"({"id":"7","name":"../../etc/passwd"})")->name, "../../etc/passwd");
  EXPECT_EQ(parsed(R"({"id":"7","name":"a\u0000b"})")->name, std::string("a\0b", 3));
  EXPECT_EQ(parsed(R"({"id":"7","name":""})", "d")->path, "d/");
}

TEST(Entry, TakesOverridesBeforeWhatTheObjectSays) {
  const auto object =
      json::parseObject(R"({"id":"7","name":"a","is_folder":true,"deleted":false,"path":"p","restore_path":"r"})");
  const auto entry = Entry::parse(*object, "", std::nullopt, NOW,
                                  {.isFolder = false, .name = "b", .deleted = true, .pathKey = "restore_path"});
  EXPECT_EQ(entry->name, "b");
  EXPECT_EQ(entry->path, "r");
  EXPECT_FALSE(entry->isFolder);
  EXPECT_TRUE(entry->deleted);
}

TEST(ParseDate, ReadsBothFormsAndGivesTheEpochForAllElse) {
  const struct {
    std::optional<std::string_view> text;
    double seconds;
  } cases[] = {
      {std::nullopt, 0},
      {"", 0},
      {"2024-05-01T10:20:30Z", 1714558830},
      {"2024-05-01T10:20:30.5Z", 1714558830.5},
      {"2024-05-01T12:20:30+02:00", 1714558830},
      {"2024-05-01", 0},
      {"2024-05-01T10:20:30", 0},
      {"2024-13-01T10:20:30Z", 0},
  };
  for (const auto& c : cases)
    EXPECT_DOUBLE_EQ(parseDate(c.text).secondsSince1970, c.seconds) << c.text.value_or("(none)");
}

}  // namespace
}  // namespace vondle
