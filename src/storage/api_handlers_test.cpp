#include "storage/api_handlers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class ApiHandlersTest : public testing::Test {
 protected:
  std::string idOf(const std::string& path) { return rig_.at(path).text("id"); }
  std::string keyOf(const std::string& path) { return rig_.at(path).text("key"); }
  int move(const std::string& path, const std::string& to) {
    return rig_.post("move", {{"source_key", keyOf(path)}, {"dest_key", to}}).status;
  }
  int moveFolder(const std::string& path, const std::string& to) {
    return rig_.post("move-folder", {{"source_prefix", path + "/"}, {"dest_prefix", to + "/"}}).status;
  }
  int trashFile(const std::string& path) { return rig_.post("delete-files", {{"keys", {keyOf(path)}}}).status; }
  int trashFolder(const std::string& path) { return rig_.post("delete-folder", {{"prefix", path + "/"}}).status; }
  int share(const std::string& path, const std::string& role, const std::string& with = "bob") {
    return rig_.post("share", {{"id", idOf(path)}, {"account", with}, {"role", role}}).status;
  }
  // Restore paths of what lies in the trash, the latest first.
  std::vector<std::string> trash() {
    std::vector<std::string> paths;
    for (const auto& entry : rig_.get("trash").list("items")) paths.push_back(entry.text("restore_path"));
    return paths;
  }

  StorageRig rig_;
};

TEST_F(ApiHandlersTest, ARequestNeedsAKnownKey) {
  for (const auto& key : {std::optional<std::string>(), std::optional<std::string>(""),
                          std::optional<std::string>("key-of-nobody-0123456789")})
    for (const char* endpoint : {"browse", "no-such-endpoint"}) {
      const auto reply = rig_.api().handle(
          {.method = "GET", .endpoint = endpoint, .query = {{"id", "root"}}, .body = "", .key = key, .base = ""});
      EXPECT_EQ(reply.status, 401);
    }
}

TEST_F(ApiHandlersTest, EndpointsThatAreNotThereAndWrongMethodsAreRefused) {
  EXPECT_EQ(rig_.get("no-such-endpoint").status, 404);
  EXPECT_EQ(rig_.get("").status, 404);
  for (const char* endpoint : {"move", "folders", "upload-urls", "content-commit", "share"})
    EXPECT_EQ(rig_.get(endpoint).status, 405) << endpoint;
  for (const char* endpoint : {"browse", "item", "changes", "trash"})
    EXPECT_EQ(rig_.post(endpoint, json::Object()).status, 405) << endpoint;
  const auto reply = rig_.api().handle(
      {.method = "PUT", .endpoint = "browse", .query = {}, .body = "", .key = rig_.keyOf("ann"), .base = ""});
  EXPECT_EQ(reply.status, 405);
  EXPECT_EQ(reply.allow, "GET");
}

TEST_F(ApiHandlersTest, ABodyThatIsNotAnObjectOrLacksAMemberIsRefused) {
  for (const char* body : {"", "[]", "{", "null", "{\"a\":1}trailing", "\xff"})
    EXPECT_EQ(rig_.request("POST", "folders", {}, body).status, 400) << body;
  const std::pair<const char*, json::Value> cases[] = {
      {"move", {{"source_key", "k"}}},
      {"move", {{"dest_key", "k"}}},
      {"move-folder", {{"source_prefix", "a/"}}},
      {"folders", {{"name", "a"}}},
      {"folders", {{"name", 1}, {"path", ""}}},
      {"register", {{"key", "k"}}},
      {"delete-files", json::Object()},
      {"delete-files", {{"keys", json::Array()}}},
      {"delete-files", {{"keys", {1}}}},
      {"delete-folder", {{"prefix", nullptr}}},
      {"restore", {{"id", 5}}},
      {"purge", json::Object()},
      {"share", {{"id", "1"}, {"account", "bob"}}},
      {"upload-urls", {{"path", ""}}},
      {"upload-urls", {{"path", ""}, {"files", json::Array()}}},
      {"upload-urls", {{"path", ""}, {"files", {{{"filename", "a"}}}}}},
      {"upload-urls", {{"path", ""}, {"files", {{{"filename", "a"}, {"size", "1"}}}}}},
      {"upload-urls", {{"path", ""}, {"files", {{{"filename", "a"}, {"size", -1}}}}}},
      {"upload-status", {{"key", "k"}}},
      {"content-url", {{"id", "1"}}},
      {"content-commit", {{"id", "1"}, {"base_version", 1}}},
      {"notify-upload", json::Object()},
      {"thumb-urls", json::Object()},
  };
  for (const auto& [endpoint, body] : cases)
    EXPECT_EQ(rig_.post(endpoint, body).status, 400) << endpoint << json::serialize(body);
}

TEST_F(ApiHandlersTest, ANewAccountHasAnEmptyTop) {
  const auto listing = rig_.get("browse", {{"id", "root"}, {"lite", "1"}});
  EXPECT_EQ(listing.status, 200);
  EXPECT_EQ(listing.text("subpath"), "");
  EXPECT_EQ(listing.text("role"), "owner");
  EXPECT_TRUE(json::list(listing.body, "folders")->empty());
  EXPECT_TRUE(json::list(listing.body, "files")->empty());
  EXPECT_EQ(rig_.item("root").text("id"), "root");
}

TEST_F(ApiHandlersTest, AListingNamesFoldersAndFiles) {
  rig_.makeFolder("docs");
  rig_.makeFolder("docs/sub");
  rig_.makeFile("docs/b.txt", "hello");
  rig_.makeFile("docs/a.txt", "");
  const auto listing = rig_.get("browse", {{"path", "docs"}});
  EXPECT_EQ(listing.text("subpath"), "docs");
  ASSERT_EQ(listing.list("folders").size(), 1U);
  EXPECT_EQ(listing.first("folders").text("name"), "sub");
  EXPECT_TRUE(listing.first("folders").flag("is_folder"));
  const auto files = listing.list("files");
  ASSERT_EQ(files.size(), 2U);
  EXPECT_EQ(files[0].text("name"), "a.txt");
  EXPECT_EQ(files[1].text("path"), "docs/b.txt");
  EXPECT_EQ(files[1].number("size"), 5);
  EXPECT_EQ(files[1].number("version"), 1);
  EXPECT_EQ(files[1].text("parent_id"), idOf("docs"));
  EXPECT_EQ(files[1].text("mtime"), "2023-11-14T22:13:20.000Z");
  EXPECT_EQ(files[1].text("role"), "owner");
  EXPECT_THAT(files[1].text("download_url"), StartsWith("http://127.0.0.1:1/vondle/contents/"));

  const auto byId = rig_.get("browse", {{"id", idOf("docs")}});
  EXPECT_EQ(json::serialize(byId.body), json::serialize(listing.body));
}

TEST_F(ApiHandlersTest, ALiteListingLeavesOutPathsAndAddresses) {
  rig_.makeFolder("docs");
  rig_.makeFile("docs/a.txt", "hello");
  const auto file = rig_.get("browse", {{"id", idOf("docs")}, {"lite", "1"}}).first("files");
  EXPECT_EQ(file.text("filename"), "a.txt");
  EXPECT_EQ(file.text("parent_id"), idOf("docs"));
  EXPECT_EQ(file.number("size"), 5);
  EXPECT_EQ(file.text("key"), keyOf("docs/a.txt"));
  for (const char* key : {"path", "download_url", "role"}) EXPECT_FALSE(json::find(file.body, key)) << key;
}

TEST_F(ApiHandlersTest, WhatIsNotThereIsNotFound) {
  rig_.makeFile("a.txt", "");
  for (const char* id : {"99", "0", "-1", "01", "1x", "", "shared", "rooty", "99999999999999999999"})
    EXPECT_EQ(rig_.item(id).status, 404) << id;
  EXPECT_EQ(rig_.item("1").status, 404) << "the number of the top folder is not an id";
  EXPECT_EQ(rig_.get("browse", {{"path", "nowhere"}}).status, 404);
  EXPECT_EQ(rig_.get("browse", {{"path", "a.txt/b"}}).status, 404);
  EXPECT_EQ(rig_.get("browse", {{"path", "a.txt"}}).status, 400);
  EXPECT_EQ(rig_.get("browse").status, 400);
  EXPECT_EQ(rig_.get("browse", {{"path", ""}, {"id", "root"}}).status, 400);
  EXPECT_EQ(rig_.get("browse", {{"path", "a"}, {"path", "b"}}).status, 400);
  EXPECT_EQ(rig_.get("item").status, 400);
}

TEST_F(ApiHandlersTest, TwoItemsOfAFolderNeverHaveOneName) {
  rig_.makeFolder("a");
  rig_.makeFile("b", "");
  EXPECT_EQ(rig_.makeFolder("a").status, 409);
  EXPECT_EQ(rig_.makeFolder("b").status, 409);
  EXPECT_EQ(rig_.target("", "a", 1).status, 409);
  EXPECT_EQ(rig_.target("", "b", 1).status, 409);
  EXPECT_EQ(move("b", "a"), 409);
  EXPECT_EQ(moveFolder("a", "b"), 409);
  EXPECT_EQ(rig_.makeFolder("A").status, 200) << "case counts";
}

TEST_F(ApiHandlersTest, NamesAndPathsThatAreNotValidAreRefusedEverywhere) {
  rig_.makeFolder("d");
  rig_.makeFile("f", "");
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("a\0b", 3), std::string(256, 'x')}) {
    EXPECT_EQ(rig_.post("folders", {{"name", name}, {"path", ""}}).status, 400) << name;
    EXPECT_EQ(rig_.target("", name, 1).status, 400) << name;
  }
  for (const char* path : {"", "/f", "d//f", "../f", "d/..", "d/"}) {
    EXPECT_EQ(move("f", path), 400) << path;
    EXPECT_EQ(rig_.post("register", {{"key", "k"}, {"path", path}}).status, 400) << path;
  }
  EXPECT_EQ(rig_.post("move-folder", {{"source_prefix", "d"}, {"dest_prefix", "e/"}}).status, 400);
  EXPECT_EQ(rig_.post("move-folder", {{"source_prefix", "/"}, {"dest_prefix", "e/"}}).status, 400);
  EXPECT_EQ(rig_.post("delete-folder", {{"prefix", "/"}}).status, 400);
  EXPECT_EQ(rig_.post("delete-folder", {{"prefix", "d"}}).status, 400);
}

TEST_F(ApiHandlersTest, ATextThatIsNotUtf8IsRefused) {
  EXPECT_EQ(rig_.request("POST", "folders", {}, "{\"name\":\"a\xff\",\"path\":\"\"}").status, 400);
  EXPECT_EQ(rig_.get("browse", {{"path", "\xff"}}).status, 400);
}

TEST_F(ApiHandlersTest, NothingIsMadeBelowAFileOrNowhere) {
  rig_.makeFile("f", "");
  EXPECT_EQ(rig_.makeFolder("f/d").status, 409);
  EXPECT_EQ(rig_.makeFolder("nowhere/d").status, 404);
  EXPECT_EQ(rig_.target("nowhere", "x", 1).status, 404);
  EXPECT_EQ(move("f", "nowhere/f"), 404);
}

TEST_F(ApiHandlersTest, NamesComeBackAsTheyWereGiven) {
  for (const char* name : {"quote\" back\\slash", "line\nbreak\ttab", "ü€😀", " blanks ", "},{\"id\":\"1\""}) {
    const auto made = rig_.makeFolder(name);
    EXPECT_EQ(made.text("name"), name);
    EXPECT_EQ(rig_.item(made.text("id")).text("path"), name);
  }
}

TEST_F(ApiHandlersTest, AFileMovesAndKeepsItsIdVersionAndContents) {
  rig_.makeFolder("d");
  const auto before = rig_.makeFile("a.txt", "hello");
  const auto moved = rig_.post("move", {{"source_key", before.text("key")}, {"dest_key", "d/b.txt"}});
  EXPECT_EQ(moved.text("path"), "d/b.txt");
  EXPECT_THAT(rig_.tree(), ElementsAre("d/", "d/b.txt"));
  const auto after = rig_.item(before.text("id"));
  EXPECT_EQ(after.number("version"), 1);
  EXPECT_EQ(after.text("key"), before.text("key"));
  EXPECT_EQ(after.text("mtime"), before.text("mtime"));
  EXPECT_EQ(rig_.download(after.text("download_url")), "hello");
  EXPECT_EQ(move("d/b.txt", "d/b.txt"), 200) << "to where it is";
  EXPECT_EQ(rig_.post("move", {{"source_key", "no such key"}, {"dest_key", "c"}}).status, 404);
  EXPECT_EQ(rig_.post("move", {{"source_key", ""}, {"dest_key", "c"}}).status, 404);
}

TEST_F(ApiHandlersTest, AFolderMovesWithWhatItHoldsButNotIntoItself) {
  for (const char* path : {"a", "a/b", "c"}) rig_.makeFolder(path);
  rig_.makeFile("a/b/f", "x");
  EXPECT_EQ(moveFolder("a", "a/b/a"), 409);
  EXPECT_EQ(moveFolder("a", "a/x"), 409);
  EXPECT_EQ(moveFolder("nowhere", "x"), 404);
  EXPECT_EQ(moveFolder("a/b/f", "x"), 404) << "a file is no folder";
  EXPECT_EQ(moveFolder("a", "c/z"), 200);
  EXPECT_THAT(rig_.tree(), ElementsAre("c/", "c/z/", "c/z/b/", "c/z/b/f"));
}

TEST_F(ApiHandlersTest, TrashedItemsLeaveTheirFolderAndStandInTheTrash) {
  for (const char* path : {"a", "a/b"}) rig_.makeFolder(path);
  const auto file = rig_.makeFile("a/f", "x");
  rig_.makeFile("a/b/g", "y");
  EXPECT_EQ(trashFile("a/f"), 200);
  rig_.clock().advance(1);
  EXPECT_EQ(trashFolder("a/b"), 200);
  EXPECT_THAT(rig_.tree(), ElementsAre("a/"));
  EXPECT_THAT(trash(), ElementsAre("a/b", "a/f"));
  const auto seen = rig_.item(file.text("id"));
  EXPECT_TRUE(seen.flag("trashed"));
  EXPECT_EQ(rig_.download(seen.text("download_url")), "x");
  EXPECT_EQ(rig_.makeFolder("a/f").status, 200) << "the name is free";
  EXPECT_EQ(rig_.post("delete-files", {{"keys", {file.text("key")}}}).status, 404) << "it is in the trash already";
  EXPECT_EQ(trashFolder("nowhere"), 404);
}

TEST_F(ApiHandlersTest, DeletingSeveralFilesIsDoneForAllOrNone) {
  rig_.makeFile("a", "");
  rig_.makeFile("b", "");
  EXPECT_EQ(rig_.post("delete-files", {{"keys", {keyOf("a"), "no such key"}}}).status, 404);
  EXPECT_THAT(rig_.tree(), ElementsAre("a", "b"));
  EXPECT_EQ(rig_.post("delete-files", {{"keys", {keyOf("a"), keyOf("b")}}}).status, 200);
  EXPECT_THAT(rig_.tree(), IsEmpty());
}

TEST_F(ApiHandlersTest, RestoringPutsAnItemBackWhereItWas) {
  for (const char* path : {"a", "a/b"}) rig_.makeFolder(path);
  const auto file = rig_.makeFile("a/b/f", "x");
  const auto folderId = idOf("a/b");
  trashFolder("a/b");
  EXPECT_TRUE(rig_.item(file.text("id")).flag("trashed"));
  EXPECT_EQ(rig_.get("browse", {{"id", folderId}}).status, 404);
  EXPECT_EQ(rig_.post("restore", {{"id", folderId}}).text("path"), "a/b");
  EXPECT_THAT(rig_.tree(), ElementsAre("a/", "a/b/", "a/b/f"));
  EXPECT_FALSE(rig_.item(file.text("id")).flag("trashed"));
  EXPECT_THAT(trash(), IsEmpty());
  EXPECT_EQ(rig_.post("restore", {{"id", folderId}}).status, 409) << "it is not in the trash";
}

TEST_F(ApiHandlersTest, RestoringFollowsAFolderThatMovedAndRemakesOneThatIsGone) {
  rig_.makeFolder("a");
  rig_.makeFile("a/f", "x");
  const auto f = idOf("a/f");
  trashFile("a/f");
  moveFolder("a", "b");
  EXPECT_THAT(trash(), ElementsAre("b/f"));
  EXPECT_EQ(rig_.post("restore", {{"id", f}}).text("path"), "b/f");

  trashFile("b/f");
  const auto b = idOf("b");
  trashFolder("b");
  rig_.post("purge", {{"id", b}});
  EXPECT_THAT(trash(), ElementsAre("b/f"));
  EXPECT_EQ(rig_.post("restore", {{"id", f}}).text("path"), "b/f");
  EXPECT_THAT(rig_.tree(), ElementsAre("b/", "b/f"));
  EXPECT_NE(idOf("b"), b);
}

TEST_F(ApiHandlersTest, SomethingInsideATrashedFolderCanBeRestoredAlone) {
  rig_.makeFolder("a");
  rig_.makeFile("a/f", "x");
  rig_.makeFile("a/g", "y");
  const auto f = idOf("a/f");
  const auto a = idOf("a");
  trashFolder("a");
  EXPECT_EQ(rig_.post("restore", {{"id", f}}).text("path"), "a/f");
  EXPECT_THAT(rig_.tree(), ElementsAre("a/", "a/f"));
  EXPECT_EQ(rig_.post("restore", {{"id", a}}).status, 409) << "its name is taken now";
  EXPECT_THAT(trash(), ElementsAre("a"));
}

TEST_F(ApiHandlersTest, PurgingRemovesForGood) {
  rig_.makeFolder("a");
  const auto inside = rig_.makeFile("a/f", "x");
  const auto a = idOf("a");
  EXPECT_EQ(rig_.post("purge", {{"id", a}}).status, 409) << "it is not in the trash";
  trashFolder("a");
  EXPECT_EQ(rig_.storedFiles(), 1U);
  EXPECT_EQ(rig_.post("purge", {{"id", a}}).status, 200);
  EXPECT_EQ(rig_.storedFiles(), 0U);
  EXPECT_THAT(trash(), IsEmpty());
  for (const auto& id : {a, inside.text("id")}) EXPECT_EQ(rig_.item(id).status, 404);
  EXPECT_EQ(rig_.post("purge", {{"id", a}}).status, 404);
  EXPECT_EQ(rig_.download(inside.text("download_url")).error().status, 404);
}

TEST_F(ApiHandlersTest, APurgedFolderLeavesWhatWasTrashedFromItBefore) {
  rig_.makeFolder("a");
  rig_.makeFile("a/f", "x");
  trashFile("a/f");
  const auto a = idOf("a");
  trashFolder("a");
  rig_.post("purge", {{"id", a}});
  EXPECT_THAT(trash(), ElementsAre("a/f"));
}

TEST_F(ApiHandlersTest, ChangesComeInOrderAndOncePerItem) {
  const auto a = rig_.makeFolder("a").text("id");
  const auto b = rig_.makeFolder("b").text("id");
  EXPECT_THAT(rig_.changesSince(0), ElementsAre(a, b));
  const auto head = rig_.head();
  moveFolder("a", "c");
  moveFolder("c", "d");
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(a));
  EXPECT_THAT(rig_.changesSince(0), ElementsAre(b, a));
  EXPECT_THAT(rig_.changesSince(rig_.head()), IsEmpty());
  const auto entry = rig_.get("changes", {{"since", std::to_string(head)}, {"limit", "10"}}).first("changes");
  EXPECT_EQ(entry.text("path"), "d");
  EXPECT_EQ(entry.text("name"), "d");
}

TEST_F(ApiHandlersTest, TheFeedComesInPages) {
  for (int i = 0; i < 5; ++i) rig_.makeFolder("d" + std::to_string(i));
  const auto page = [&](std::int64_t since, int limit) {
    return rig_.get("changes", {{"since", std::to_string(since)}, {"limit", std::to_string(limit)}});
  };
  const auto first = page(0, 2);
  EXPECT_EQ(first.list("changes").size(), 2U);
  EXPECT_TRUE(first.flag("more"));
  EXPECT_EQ(first.number("seq"), 2);
  EXPECT_EQ(first.number("head"), 5);
  const auto last = page(first.number("seq"), 3);
  EXPECT_EQ(last.list("changes").size(), 3U);
  EXPECT_FALSE(last.flag("more"));
  EXPECT_EQ(last.number("seq"), 5);
}

TEST_F(ApiHandlersTest, ALimitOfZeroTellsOnlyTheHead) {
  rig_.makeFolder("a");
  const auto page = rig_.get("changes", {{"since", "0"}, {"limit", "0"}});
  EXPECT_EQ(page.status, 200);
  EXPECT_TRUE(json::list(page.body, "changes")->empty());
  EXPECT_EQ(page.number("head"), 1);
  EXPECT_EQ(page.number("seq"), 0);
  EXPECT_FALSE(page.flag("more"));
}

TEST_F(ApiHandlersTest, APositionThatIsNotACountIsRefusedAndOneBeyondTheHeadIsBroughtBack) {
  for (const char* text : {"", "-1", "x", "1.5", "99999999999999999999"}) {
    EXPECT_EQ(rig_.get("changes", {{"since", text}, {"limit", "1"}}).status, 400) << text;
    EXPECT_EQ(rig_.get("changes", {{"since", "0"}, {"limit", text}}).status, 400) << text;
  }
  EXPECT_EQ(rig_.get("changes", {{"since", "0"}}).status, 400);
  rig_.makeFolder("a");
  EXPECT_EQ(rig_.get("changes", {{"since", "1000"}, {"limit", "10"}}).number("seq"), 1);
}

TEST_F(ApiHandlersTest, TheFeedTellsOfTrashAsEntriesAndOfPurgesAsDeletions) {
  rig_.makeFile("f", "x");
  const auto f = idOf("f");
  auto head = rig_.head();
  trashFile("f");
  const auto trashed = rig_.get("changes", {{"since", std::to_string(head)}, {"limit", "10"}}).first("changes");
  EXPECT_EQ(trashed.text("id"), f);
  EXPECT_TRUE(trashed.flag("trashed"));
  EXPECT_FALSE(trashed.flag("deleted"));
  head = rig_.head();
  rig_.post("purge", {{"id", f}});
  EXPECT_THAT(rig_.changesSince(head), ElementsAre("-" + f));
  EXPECT_THAT(rig_.changesSince(0), ElementsAre("-" + f));
}

TEST_F(ApiHandlersTest, AnAccountSeesNothingOfAnother) {
  rig_.makeFolder("a");
  const auto file = rig_.makeFile("a/f", "x");
  const auto a = idOf("a");
  rig_.as("bob");
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_THAT(rig_.changesSince(0), IsEmpty());
  EXPECT_THAT(trash(), IsEmpty());
  for (const auto& id : {a, file.text("id")}) {
    EXPECT_EQ(rig_.item(id).status, 404);
    EXPECT_EQ(rig_.get("browse", {{"id", id}}).status, id == a ? 404 : 404);
    EXPECT_EQ(rig_.post("restore", {{"id", id}}).status, 404);
    EXPECT_EQ(rig_.post("purge", {{"id", id}}).status, 404);
    EXPECT_EQ(rig_.post("share", {{"id", id}, {"account", "ann"}, {"role", "read"}}).status, 404);
    EXPECT_EQ(rig_.post("content-url", {{"id", id}, {"base_version", 1}}).status, 404);
  }
  const auto key = file.text("key");
  EXPECT_EQ(rig_.post("move", {{"source_key", key}, {"dest_key", "f"}}).status, 404);
  EXPECT_EQ(rig_.post("delete-files", {{"keys", {key}}}).status, 404);
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "f"}}).status, 404);
  EXPECT_EQ(rig_.post("notify-upload", {{"keys", {key}}}).status, 404);
  EXPECT_TRUE(json::object(rig_.post("thumb-urls", {{"ids", {file.text("id")}}}).body, "urls")->empty());
}

TEST_F(ApiHandlersTest, ASharedFolderStandsInTheOthersContainer) {
  rig_.makeFolder("photos");
  rig_.makeFile("photos/p.jpg", "x");
  const auto photos = idOf("photos");
  EXPECT_EQ(share("photos", "read"), 200);
  EXPECT_TRUE(rig_.at("photos").flag("shared"));

  rig_.as("bob");
  EXPECT_THAT(rig_.tree(), ElementsAre("Shared with me/", "Shared with me/photos/", "Shared with me/photos/p.jpg"));
  const auto container = rig_.item("shared");
  EXPECT_EQ(container.text("role"), "container");
  EXPECT_EQ(container.text("parent_id"), "root");
  const auto listing = rig_.get("browse", {{"id", "shared"}, {"lite", "1"}});
  EXPECT_EQ(listing.text("role"), "container");
  EXPECT_EQ(listing.first("folders").text("role"), "read");
  const auto top = rig_.item(photos);
  EXPECT_EQ(top.text("parent_id"), "shared");
  EXPECT_EQ(top.text("owner_name"), "ann");
  EXPECT_FALSE(top.flag("shared")) << "bob does not share it";
  const auto inside = rig_.at("Shared with me/photos/p.jpg");
  EXPECT_EQ(inside.text("parent_id"), photos);
  EXPECT_EQ(inside.text("role"), "read");
  EXPECT_EQ(rig_.download(inside.text("download_url")), "x");
  EXPECT_THAT(rig_.changesSince(0), ElementsAre("shared", photos));
}

TEST_F(ApiHandlersTest, AReaderOfASharedFolderChangesNothing) {
  rig_.makeFolder("d");
  rig_.makeFolder("d/e");
  rig_.makeFile("d/f", "x");
  share("d", "read");
  rig_.as("bob");
  const std::string d = "Shared with me/d";
  EXPECT_EQ(rig_.makeFolder(d + "/new").status, 403);
  EXPECT_EQ(rig_.target(d, "new", 1).status, 403);
  EXPECT_EQ(move(d + "/f", d + "/g"), 403);
  EXPECT_EQ(moveFolder(d + "/e", d + "/x"), 403);
  EXPECT_EQ(trashFile(d + "/f"), 403);
  EXPECT_EQ(trashFolder(d + "/e"), 403);
  EXPECT_EQ(trashFolder(d), 403);
  EXPECT_EQ(rig_.post("content-url", {{"id", idOf(d + "/f")}, {"base_version", 1}}).status, 403);
  EXPECT_EQ(share(d, "write", "ann"), 403);
  EXPECT_EQ(rig_.makeFolder("Shared with me/x").status, 403) << "nothing is put in the container";
  EXPECT_EQ(trashFolder("Shared with me"), 403);
}

TEST_F(ApiHandlersTest, AWriterOfASharedFolderWorksInsideItOnly) {
  rig_.makeFolder("d");
  rig_.makeFile("d/f", "x");
  share("d", "write");
  rig_.as("bob");
  const std::string d = "Shared with me/d";
  rig_.makeFolder("own");
  EXPECT_EQ(rig_.makeFolder(d + "/new").status, 200);
  EXPECT_EQ(rig_.makeFile(d + "/by-bob", "y").text("owner_name"), "ann");
  EXPECT_EQ(move(d + "/f", d + "/new/g"), 200);
  EXPECT_EQ(moveFolder(d, "own/d"), 403) << "the top of a share stays where it is";
  EXPECT_EQ(trashFolder(d), 403);
  EXPECT_EQ(move(d + "/new/g", "own/g"), 403) << "nothing leaves the shared folder";
  EXPECT_EQ(moveFolder("own", d + "/own"), 403) << "and nothing comes in by moving";
  EXPECT_EQ(trashFile(d + "/by-bob"), 200);
  EXPECT_THAT(trash(), IsEmpty()) << "it lies in the owner's trash";
  rig_.as("ann");
  EXPECT_THAT(rig_.tree(), ElementsAre("d/", "d/new/", "d/new/g"));
  EXPECT_THAT(trash(), ElementsAre("d/by-bob"));
}

TEST_F(ApiHandlersTest, EverybodyWhoSeesAnItemIsToldOfItsChanges) {
  rig_.makeFolder("d");
  rig_.makeFile("d/f", "x");
  rig_.makeFile("other", "x");
  const auto f = idOf("d/f");
  share("d", "write");
  rig_.as("bob");
  auto head = rig_.head();
  rig_.as("ann");
  move("d/f", "d/g");
  move("other", "another");
  rig_.as("bob");
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(f));
  head = rig_.head();
  rig_.as("ann");
  move("d/g", "g");
  rig_.as("bob");
  EXPECT_THAT(rig_.changesSince(head), ElementsAre("-" + f)) << "it left the shared folder";
  head = rig_.head();
  rig_.as("ann");
  move("g", "d/g");
  rig_.as("bob");
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(f));
  head = rig_.head();
  rig_.as("ann");
  trashFile("d/g");
  rig_.as("bob");
  EXPECT_THAT(rig_.changesSince(head), ElementsAre("-" + f)) << "trash is the owner's alone";
}

TEST_F(ApiHandlersTest, WhenSharingEndsTheItemAndTheEmptyContainerGo) {
  rig_.makeFolder("d");
  const auto d = idOf("d");
  share("d", "read");
  rig_.as("bob");
  const auto head = rig_.head();
  rig_.as("ann");
  EXPECT_EQ(rig_.post("unshare", {{"id", d}, {"account", "bob"}}).status, 200);
  EXPECT_FALSE(rig_.at("d").flag("shared"));
  EXPECT_EQ(rig_.post("unshare", {{"id", d}, {"account", "bob"}}).status, 404);
  rig_.as("bob");
  EXPECT_EQ(rig_.item(d).status, 404);
  EXPECT_EQ(rig_.item("shared").status, 404);
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_THAT(rig_.changesSince(head), ElementsAre("-" + d, "-shared"));
}

TEST_F(ApiHandlersTest, SharingIsForTheOwnerAndForOtherAccounts) {
  rig_.makeFolder("d");
  const auto d = idOf("d");
  EXPECT_EQ(share("d", "owner"), 400);
  EXPECT_EQ(share("d", "read", "nobody"), 404);
  EXPECT_EQ(share("d", "read", "ann"), 409);
  EXPECT_EQ(rig_.post("share", {{"id", "root"}, {"account", "bob"}, {"role", "read"}}).status, 403);
  EXPECT_EQ(rig_.post("unshare", {{"id", d}, {"account", "nobody"}}).status, 404);
  trashFolder("d");
  EXPECT_EQ(rig_.post("share", {{"id", d}, {"account", "bob"}, {"role", "read"}}).status, 403);
}

TEST_F(ApiHandlersTest, SharingAgainChangesTheRole) {
  rig_.makeFolder("d");
  share("d", "read");
  EXPECT_EQ(share("d", "write"), 200);
  rig_.as("bob");
  EXPECT_EQ(rig_.at("Shared with me/d").text("role"), "write");
}

TEST_F(ApiHandlersTest, AnItemIsNeverSharedTwiceWithTheSameAccount) {
  for (const char* path : {"a", "a/b", "c", "c/d"}) rig_.makeFolder(path);
  share("a", "read");
  EXPECT_EQ(share("a/b", "write"), 409) << "a folder above is shared already";
  share("c/d", "read");
  EXPECT_EQ(share("c", "read"), 200);
  rig_.as("bob");
  EXPECT_THAT(rig_.tree(), ElementsAre("Shared with me/", "Shared with me/a/", "Shared with me/a/b/",
                                       "Shared with me/c/", "Shared with me/c/d/"))
      << "the inner share went into the outer one";
  rig_.as("ann");
  rig_.makeFolder("e");
  share("e", "read");
  moveFolder("e", "a/e");
  rig_.as("bob");
  EXPECT_THAT(rig_.tree(), ElementsAre("Shared with me/", "Shared with me/a/", "Shared with me/a/b/",
                                       "Shared with me/a/e/", "Shared with me/c/", "Shared with me/c/d/"));
}

TEST_F(ApiHandlersTest, SharedItemsOfOneNameAreToldApart) {
  rig_.makeFolder("d");
  rig_.makeFolder("x");
  rig_.makeFolder("x/d");
  rig_.makeFolder("y");
  rig_.makeFolder("y/d");
  for (const char* path : {"d", "x/d", "y/d"}) share(path, "write");
  rig_.as("bob");
  EXPECT_THAT(rig_.tree(), UnorderedElementsAre("Shared with me/", "Shared with me/d/", "Shared with me/d (ann)/",
                                                "Shared with me/d (ann 2)/"));
  EXPECT_EQ(rig_.makeFolder("Shared with me/d (ann)/new").status, 200);
  rig_.as("ann");
  EXPECT_EQ(rig_.at("x/d/new").text("name"), "new");
}

TEST_F(ApiHandlersTest, TheNameOfTheContainerIsKeptFree) {
  EXPECT_EQ(rig_.makeFolder("Shared with me").status, 409);
  EXPECT_EQ(rig_.target("", "Shared with me", 1).status, 409);
  rig_.makeFolder("d");
  EXPECT_EQ(rig_.makeFolder("d/Shared with me").status, 200);
}

TEST_F(ApiHandlersTest, APurgedOrTrashedSharedFolderGoesFromTheOthersTree) {
  rig_.makeFolder("d");
  const auto d = idOf("d");
  share("d", "read");
  trashFolder("d");
  rig_.as("bob");
  EXPECT_EQ(rig_.item(d).status, 404);
  rig_.as("ann");
  rig_.post("restore", {{"id", d}});
  rig_.as("bob");
  EXPECT_EQ(rig_.item(d).status, 200) << "and comes back with it";
  rig_.as("ann");
  trashFolder("d");
  rig_.post("purge", {{"id", d}});
  rig_.as("bob");
  EXPECT_EQ(rig_.item("shared").status, 404);
  EXPECT_THAT(rig_.changesSince(0), ElementsAre("-" + d, "-shared"));
}

TEST_F(ApiHandlersTest, WhatIsSharedGoesWithAFolderAboveItIntoTheTrash) {
  for (const char* path : {"a", "a/b"}) rig_.makeFolder(path);
  rig_.makeFile("a/b/f", "x");
  const auto b = idOf("a/b");
  const auto f = idOf("a/b/f");
  share("a/b", "write");
  rig_.as("bob");
  auto head = rig_.head();
  rig_.as("ann");
  const auto a = idOf("a");
  trashFolder("a");
  rig_.as("bob");
  EXPECT_EQ(rig_.item(b).status, 404);
  EXPECT_EQ(rig_.item(f).status, 404);
  EXPECT_THAT(rig_.tree(), ElementsAre("Shared with me/"));
  EXPECT_THAT(rig_.changesSince(head), ElementsAre("-" + b));
  head = rig_.head();
  rig_.as("ann");
  rig_.post("restore", {{"id", a}});
  rig_.as("bob");
  EXPECT_EQ(rig_.item(f).status, 200);
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(b));
}

TEST_F(ApiHandlersTest, EverythingIsThereAfterARestart) {
  rig_.makeFolder("d");
  rig_.makeFile("d/f", "hello");
  rig_.makeFile("g", "y");
  trashFile("g");
  share("d", "read");
  const auto before = json::serialize(rig_.get("changes", {{"since", "0"}, {"limit", "100"}}).body);
  rig_.start();
  EXPECT_EQ(json::serialize(rig_.get("changes", {{"since", "0"}, {"limit", "100"}}).body), before);
  EXPECT_THAT(rig_.tree(), ElementsAre("d/", "d/f"));
  EXPECT_THAT(trash(), ElementsAre("g"));
  EXPECT_EQ(rig_.download(rig_.at("d/f").text("download_url")), "hello");
}

}  // namespace
}  // namespace vondle::storage
