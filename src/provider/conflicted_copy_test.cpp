#include "provider/conflicted_copy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/edit_rig.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

TEST(ConflictedNameTest, StandsBeforeTheExtension) {
  const struct {
    const char* name;
    const char* expected;
  } cases[] = {
      {"report.txt", "report (conflicted copy).txt"},
      {"notes", "notes (conflicted copy)"},
      {"x", "x (conflicted copy)"},
      {"a.b.c", "a.b (conflicted copy).c"},
      {"archive.tar.gz", "archive.tar (conflicted copy).gz"},
      {".profile", ".profile (conflicted copy)"},
      {".profile.old", ".profile (conflicted copy).old"},
      {"ends with a dot.", "ends with a dot. (conflicted copy)"},
      {"Übung.ödt", "Übung (conflicted copy).ödt"},
      {"report (conflicted copy).txt", "report (conflicted copy) (conflicted copy).txt"},
      {"", " (conflicted copy)"},
  };
  for (const auto& c : cases) EXPECT_EQ(conflictedName(c.name), c.expected);
}

TEST(ConflictedNameTest, FurtherCopiesAreCounted) {
  EXPECT_EQ(conflictedName("report.txt", 2), "report (conflicted copy 2).txt");
  EXPECT_EQ(conflictedName("notes", 13), "notes (conflicted copy 13)");
}

TEST(ConflictedPathTest, StandsInTheSameFolder) {
  const struct {
    const char* path;
    const char* name;
    const char* expected;
  } cases[] = {
      {"x", "x", "x (conflicted copy)"},
      {"report.txt", "report.txt", "report (conflicted copy).txt"},
      {"docs/report.txt", "report.txt", "docs/report (conflicted copy).txt"},
      {"docs.old/notes", "notes", "docs.old/notes (conflicted copy)"},
      {"a/b/c.d", "c.d", "a/b/c (conflicted copy).d"},
      {"/x", "x", "x (conflicted copy)"},
      {"docs/old name.txt", "new name.txt", "docs/new name (conflicted copy).txt"},
      {"", "x", "x (conflicted copy)"},
  };
  for (const auto& c : cases) EXPECT_EQ(conflictedPath(c.path, c.name), c.expected) << c.path;
  EXPECT_EQ(conflictedPath("docs/a.txt", "a.txt", 3), "docs/a (conflicted copy 3).txt");
}

// A file whose edit goes up and is not taken.
struct ConflictedCopyTest : testing::Test, EditRig {
  ConflictedCopyTest() {
    serve({});
    machine.files.put(CONTENTS, "my edit");
    take("content-url", R"({"key":"k9","upload_url":"https://store.example/put"})");
    store("put");
    refuse("content-commit", 409);
    take("register");
    take("notify-upload");
  }
  Result<SavedItem> write() { return modify(wanted("7", "a.txt"), FIELD_CONTENTS, CONTENTS); }
  std::vector<std::string> registrations() const { return writesTo("register "); }
  std::vector<std::string> writesTo(const std::string& endpoint) const {
    auto lines = writes();
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(endpoint); });
    return lines;
  }
};

TEST_F(ConflictedCopyTest, KeepsTheUploadedBytesAsAFileAndReturnsTheServersItem) {
  take("register", "{}", [this] { serve({.key = "theirs", .version = 5, .size = 12}); });
  const auto saved = write();
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.itemIdentifier, ItemIdentifier{"7"});
  EXPECT_EQ(saved->item.itemVersion.contentVersion, "5-12");
  EXPECT_FALSE(saved->hasGivenContents);
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_FALSE(saved->shouldFetchContent);
  EXPECT_THAT(registrations(), ElementsAre(R"(register {"key":"k9","path":"docs/a (conflicted copy).txt"})"));
  EXPECT_EQ(calls().back(), "GET item?id=7");
  EXPECT_THAT(log.messages(LogLevel::standard),
              Contains("conflict on docs/a.txt — keeping the edit as docs/a (conflicted copy).txt"));
}

TEST_F(ConflictedCopyTest, AtTheRootThePathHasNoLeadingSlash) {
  serve({.path = "x", .parentID = "root"});
  ASSERT_TRUE(write());
  EXPECT_THAT(registrations(), ElementsAre(R"json(register {"key":"k9","path":"x (conflicted copy)"})json"));
}

TEST_F(ConflictedCopyTest, WhateverTheReasonOfTheRefusalTheEditIsKept) {
  for (const int status : {401, 403, 404, 409, 410, 413, 429, 500, 507, 204}) {
    refuse("content-commit", status);
    const auto saved = write();
    ASSERT_TRUE(saved) << status;
    EXPECT_FALSE(saved->hasGivenContents);
  }
  refuse("content-commit", 200, "garbage");
  ASSERT_TRUE(write());
  refuse("content-commit", networkFailure());
  ASSERT_TRUE(write());
  EXPECT_THAT(registrations(), SizeIs(12));
  EXPECT_THAT(registrations(), Each(R"(register {"key":"k9","path":"docs/a (conflicted copy).txt"})"));
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("could not preserve"))));
}

TEST_F(ConflictedCopyTest, ANameThatIsTakenGivesWayToTheNext) {
  int taken = 2;
  machine.urlLoading.onRequest(std::string(API) + "register",
                               [&](const URLRequest&) { return taken-- > 0 ? reply("{}", 409) : reply("{}"); });
  ASSERT_TRUE(write());
  EXPECT_THAT(registrations(), ElementsAre(R"(register {"key":"k9","path":"docs/a (conflicted copy).txt"})",
                                           R"(register {"key":"k9","path":"docs/a (conflicted copy 2).txt"})",
                                           R"(register {"key":"k9","path":"docs/a (conflicted copy 3).txt"})"));
  EXPECT_THAT(log.messages(), Contains("conflict on docs/a.txt — keeping the edit as docs/a (conflicted copy 3).txt"));
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("could not preserve"))));
}

TEST_F(ConflictedCopyTest, NamesAreNotTriedForEver) {
  refuse("register", 409);
  EXPECT_EQ(*write().error().underlying, Error(APIError::badResponse(409)));
  EXPECT_THAT(registrations(), SizeIs(MAX_CONFLICTED_COPIES));
}

TEST_F(ConflictedCopyTest, WhenTheCopyCannotBeKeptItsErrorIsTheAnswer) {
  for (const int status : {401, 403, 404, 500}) {
    log.clear();
    refuse("register", status);
    const auto saved = write();
    ASSERT_FALSE(saved) << status;
    EXPECT_TRUE(saved.error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE)) << status;
    EXPECT_EQ(*saved.error().underlying, Error(APIError::badResponse(status)));
    EXPECT_THAT(log.messages(LogLevel::standard),
                Contains("could not preserve the conflicting edit: " +
                         Error(APIError::badResponse(status)).localizedDescription()));
  }
  refuse("register", 507);
  EXPECT_TRUE(write().error().is(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA));
  refuse("register", networkFailure());
  EXPECT_TRUE(write().error().underlying->is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
  EXPECT_THAT(registrations(), SizeIs(6));
}

TEST_F(ConflictedCopyTest, ACommitThatWasDoneAfterAllIsNoConflict) {
  machine.urlLoading.onRequest(std::string(API) + "content-commit", [this](const URLRequest&) {
    serve({.key = "k9", .version = 5, .size = 7});
    return networkFailure();
  });
  refuse("register", 409);  // these bytes are a file already
  const auto saved = write();
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_TRUE(saved->hasGivenContents);
  EXPECT_EQ(saved->item.itemVersion.contentVersion, "5-7");
  EXPECT_THAT(registrations(), SizeIs(1));
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("could not preserve"))));
}

TEST_F(ConflictedCopyTest, WhenTheItemCannotBeReadAnewItsErrorIsTheAnswer) {
  take("register", "{}", [this] { items.clear(); });
  EXPECT_EQ(write().error(), Error(APIError::badResponse(404)));
}

// A server that sees the clash before it takes the bytes.
struct EarlyConflictTest : ConflictedCopyTest {
  EarlyConflictTest() {
    refuse("content-url", 409);
    take("upload-urls", R"({"urls":[{"key":"k10","upload_url":"https://store.example/copy"}]})");
    store("copy");
  }
};

TEST_F(EarlyConflictTest, UploadsTheEditAsAFileOfItsOwn) {
  const auto saved = write();
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.itemVersion.contentVersion, "4-10");
  EXPECT_FALSE(saved->hasGivenContents);
  EXPECT_THAT(
      calls(),
      ElementsAre(
          "GET item?id=7", StartsWith("content-url "),
          R"(upload-urls {"path":"docs","files":[{"filename":"a (conflicted copy).txt","size":7,"thumb":true}]})",
          "PUT copy", R"(notify-upload {"keys":["k10"]})", "GET item?id=7"));
  EXPECT_EQ(machine.urlLoading.task("/copy").sentBody(), "my edit");
  EXPECT_THAT(log.messages(LogLevel::standard),
              Contains("conflict on docs/a.txt — keeping the edit as docs/a (conflicted copy).txt"));
}

TEST_F(EarlyConflictTest, TriesTheNextNameWhenOneIsTaken) {
  int asked = 0;
  machine.urlLoading.onRequest(std::string(API) + "upload-urls",
                               [&](const URLRequest&) -> std::optional<ScriptedReply> {
                                 return ++asked == 1 ? std::optional(reply("{}", 409)) : std::nullopt;
                               });
  ASSERT_TRUE(write());
  EXPECT_THAT(writesTo("upload-urls ").back(), HasSubstr("a (conflicted copy 2).txt"));
}

TEST_F(EarlyConflictTest, WhenItCannotBeUploadedItsErrorIsTheAnswer) {
  store("copy", 503);
  EXPECT_EQ(write().error(),
            Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 503 for “a.txt”."));
  refuse("upload-urls", 507);
  EXPECT_TRUE(write().error().is(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA));
  EXPECT_THAT(log.messages(), Contains("could not preserve the conflicting edit: HTTP 503"));
}

TEST_F(EarlyConflictTest, AFileThatHasGoneMeanwhileFailsWithItsError) {
  machine.urlLoading.onRequest(std::string(API) + "content-url", [this](const URLRequest&) {
    EXPECT_TRUE(machine.files.remove(CONTENTS));
    return reply("{}", 409);
  });
  const auto saved = write();
  ASSERT_FALSE(saved);
  EXPECT_TRUE(saved.error().underlying->is(POSIX_ERROR_DOMAIN, ENOENT));
  EXPECT_THAT(writesTo("upload-urls "), IsEmpty());
}

TEST_F(EarlyConflictTest, ALargeEditIsOfferedInParts) {
  machine.files.put(CONTENTS, std::string(104'857'600, 'x'));
  refuse("upload-urls", 500);
  EXPECT_FALSE(write());
  EXPECT_THAT(writesTo("upload-urls "), ElementsAre(HasSubstr(R"("size":104857600,"thumb":true,"multipart":true)")));
}

}  // namespace
}  // namespace vondle
