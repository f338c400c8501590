#include "provider/create_item.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "api/content_target.h"
#include "provider/vondle_file_provider.h"
#include "testing/edit_rig.h"
#include "transfer/transfer_error.h"
#include "upload/multipart_resume.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* TARGET = R"({"urls":[{"key":"k9","upload_url":"https://store.example/put"}]})";

struct CreateItemTest : testing::Test, EditRig {
  CreateItemTest() {
    serveFolder("3", "docs");
    machine.files.put(CONTENTS, "hello");
    take("notify-upload");
  }
  // A server that takes the new file and lists it afterwards.
  void takeFile(const std::string& folderID = "3", const std::string& path = "docs/new.txt") {
    take("upload-urls", TARGET);
    store("put", 200, [this, folderID, path] {
      const auto slash = path.rfind('/');
      list(folderID, slash == std::string::npos ? "" : path.substr(0, slash),
           {{.id = "8", .path = path, .parentID = folderID, .key = "k9", .size = 5}});
    });
  }
};

// Folders.

TEST_F(CreateItemTest, MakesAFolderThatTheReplyTells) {
  take("folders", record({.id = "8", .path = "docs/work", .parentID = "3", .isFolder = true}));
  const auto saved = create(folder("work"));
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.itemIdentifier, ItemIdentifier{"8"});
  EXPECT_EQ(saved->item.filename, "work");
  EXPECT_TRUE(saved->item.isFolder());
  EXPECT_EQ(saved->item.parentItemIdentifier, ItemIdentifier{"3"});
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_FALSE(saved->shouldFetchContent);
  EXPECT_FALSE(saved->hasGivenContents);
  EXPECT_THAT(calls(), ElementsAre("GET item?id=3", R"(folders {"name":"work","path":"docs"})"));
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("createItem folder work"));

  // It is known from now on.
  const auto before = calls().size();
  see("8");
  EXPECT_EQ(calls().size(), before);
}

TEST_F(CreateItemTest, MakesAFolderAtTheRootWithoutAskingForItsPath) {
  take("folders", record({.id = "8", .path = "work", .parentID = "root", .isFolder = true}));
  const auto saved = create(folder("work", ROOT_CONTAINER.text));
  EXPECT_EQ(saved.value().item.parentItemIdentifier, ROOT_CONTAINER);
  EXPECT_THAT(calls(), ElementsAre(R"(folders {"name":"work","path":""})"));
}

TEST_F(CreateItemTest, LooksForTheFolderWhenTheReplyDoesNotTellIt) {
  listings["3"] = R"({"subpath":"docs","folders":[{"id":"6","name":"Work","parent_id":"3"},
                      {"id":"8","name":"work","parent_id":"3"}],"files":[]})";
  for (const std::string told : {"{}", R"({"id":"8"})", R"({"id":"8","name":"work","parent_id":"3"})",
                                 R"({"id":"8","name":"work","is_folder":true})", R"({"ok":true})"}) {
    take("folders", told);
    const auto saved = create(folder("work"));
    ASSERT_TRUE(saved) << told;
    EXPECT_EQ(saved->item.itemIdentifier, ItemIdentifier{"8"}) << told;
    EXPECT_EQ(calls().back(), "GET browse?id=3&lite=1") << told;
  }
}

TEST_F(CreateItemTest, AFolderThatIsNotFoundAfterwardsIsNoSuchItem) {
  take("folders");
  listings["3"] = R"({"folders":[],"files":[]})";
  EXPECT_EQ(create(folder("work")).error(), noSuchItem());
  browseFailure = networkFailure();
  EXPECT_EQ(create(folder("work")).error(), noSuchItem());
}

TEST_F(CreateItemTest, ARefusedFolderReachesTheCompletionAsItIs) {
  for (const int status : {401, 403, 404, 409, 413, 429, 500, 507}) {
    refuse("folders", status);
    EXPECT_EQ(create(folder("work")).error(), Error(APIError::badResponse(status)));
  }
  refuse("folders", 200, "[]");
  EXPECT_EQ(create(folder("work")).error(), Error(APIError::badResponse(200)));
  refuse("folders", networkFailure());
  EXPECT_TRUE(create(folder("work")).error().is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
}

TEST_F(CreateItemTest, AFolderNeedsNoContentsAndSendsNone) {
  take("folders", record({.id = "8", .path = "docs/work", .parentID = "3", .isFolder = true}));
  EXPECT_TRUE(create(folder("work"), CONTENTS));
  EXPECT_THAT(writes(), ElementsAre(HasSubstr("folders ")));
}

// The parent.

TEST_F(CreateItemTest, AnUnknownParentIsNoSuchItem) {
  for (const auto& item : {folder("work", "99"), file("new.txt", "99")}) {
    EXPECT_EQ(create(item, CONTENTS).error(), noSuchItem());
    itemFailure = networkFailure();
    EXPECT_EQ(create(item, CONTENTS).error(), noSuchItem());
    itemFailure.reset();
  }
  EXPECT_EQ(create(file("new.txt", "99")).error(), noSuchItem());  // before it is noticed that there are no contents
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(CreateItemTest, TheParentsPathIsAskedForAfresh) {
  see("3");
  serveFolder("3", "papers");
  take("folders", record({.id = "8", .path = "papers/work", .parentID = "3", .isFolder = true}));
  ASSERT_TRUE(create(folder("work")));
  EXPECT_THAT(writes(), ElementsAre(R"(folders {"name":"work","path":"papers"})"));

  // As last known, when the server fails.
  itemFailure = networkFailure();
  ASSERT_TRUE(create(folder("work")));
  EXPECT_EQ(writes().back(), R"(folders {"name":"work","path":"papers"})");
}

// Files.

TEST_F(CreateItemTest, AFileWithoutContentsCannotBeWritten) {
  EXPECT_EQ(create(file("new.txt")).error(), VondleFileProvider::noWrites());
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(CreateItemTest, UploadsAFileAndFindsItInItsFolder) {
  takeFile();
  Answer answer;
  const auto progress = extension().createItem(file("new.txt"), 0, CONTENTS, 0, {}, answer.completion());
  scheduler.runUntilIdle();
  const auto& saved = answer.value();
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.itemIdentifier, ItemIdentifier{"8"});
  EXPECT_EQ(saved->item.filename, "new.txt");
  EXPECT_EQ(saved->item.documentSize, 5);
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_FALSE(saved->shouldFetchContent);
  EXPECT_TRUE(saved->hasGivenContents);
  EXPECT_THAT(calls(),
              ElementsAre("GET item?id=3",
                          R"(upload-urls {"path":"docs","files":[{"filename":"new.txt","size":5,"thumb":true}]})",
                          "PUT put", R"(notify-upload {"keys":["k9"]})", "GET browse?id=3&lite=1"));
  EXPECT_EQ(machine.urlLoading.task("/put").sentBody(), "hello");
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::uploading);
  EXPECT_EQ(progress->completedUnitCount(), 5);
}

TEST_F(CreateItemTest, UploadsAnEmptyFile) {
  machine.files.put(CONTENTS, "");
  takeFile();
  ASSERT_TRUE(create(file("new.txt"), CONTENTS));
  EXPECT_EQ(machine.urlLoading.task("/put").sentBody(), "");
}

TEST_F(CreateItemTest, AFileAtTheRootHasNoFolderInItsPath) {
  takeFile("root", "new.txt");
  EXPECT_EQ(create(file("new.txt", ROOT_CONTAINER.text), CONTENTS).value().item.itemIdentifier, ItemIdentifier{"8"});
  EXPECT_THAT(writes(), Contains(HasSubstr(R"(upload-urls {"path":"",)")));
}

TEST_F(CreateItemTest, ItsContentsAreTheGivenOnesOnlyIfNobodyWroteSince) {
  take("upload-urls", TARGET);
  store("put");
  list("3", "docs", {{.id = "8", .path = "docs/new.txt", .parentID = "3", .key = "another"}});
  const auto saved = create(file("new.txt"), CONTENTS);
  ASSERT_TRUE(saved);
  EXPECT_FALSE(saved->hasGivenContents);
}

TEST_F(CreateItemTest, TheFirstOfSeveralOfOneNameIsTaken) {
  take("upload-urls", TARGET);
  store("put");
  list("3", "docs",
       {{.id = "6", .path = "docs/New.txt", .key = "x"},
        {.id = "8", .path = "docs/new.txt", .key = "k9"},
        {.id = "9", .path = "docs/new.txt", .key = "y"}});
  EXPECT_EQ(create(file("new.txt"), CONTENTS).value().item.itemIdentifier, ItemIdentifier{"8"});
}

TEST_F(CreateItemTest, AFileThatIsNotFoundAfterwardsIsNoSuchItem) {
  take("upload-urls", TARGET);
  store("put");
  EXPECT_EQ(create(file("new.txt"), CONTENTS).error(), noSuchItem());
}

TEST_F(CreateItemTest, AFileThatCannotBeReadFailsWithItsError) {
  EXPECT_TRUE(create(file("new.txt"), "/home/tester/missing").error().is(POSIX_ERROR_DOMAIN, ENOENT));
  machine.files.fail(FileOperation::attributes, CONTENTS, EIO);
  EXPECT_TRUE(create(file("new.txt"), CONTENTS).error().is(POSIX_ERROR_DOMAIN, EIO));
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(CreateItemTest, ARefusedUploadIsPutIntoTheUsersWords) {
  const auto expectUnreachable = [&](int status) {
    const auto saved = create(file("new.txt"), CONTENTS);
    ASSERT_FALSE(saved) << status;
    EXPECT_TRUE(saved.error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE)) << status;
    EXPECT_THAT(saved.error().description, HasSubstr("Vondle couldn't download “new.txt”: ")) << status;
    EXPECT_EQ(*saved.error().underlying, Error(APIError::badResponse(status)));
  };
  for (const int status : {401, 403, 404, 409, 413, 429, 500}) {
    log.clear();
    refuse("upload-urls", status);
    expectUnreachable(status);
    EXPECT_THAT(log.messages(LogLevel::standard),
                Contains("upload of new.txt failed: " + Error(APIError::badResponse(status)).localizedDescription()));
  }
  refuse("upload-urls", 200, "garbage");
  expectUnreachable(200);
  for (const char* unusable : {"{}", R"({"urls":[]})", R"({"urls":[{"key":"k9"}]})"}) {
    take("upload-urls", unusable);
    EXPECT_EQ(*create(file("new.txt"), CONTENTS).error().underlying, Error(APIError::malformed())) << unusable;
  }
  refuse("upload-urls", networkFailure());
  EXPECT_EQ(
      create(file("new.txt"), CONTENTS).error(),
      Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle couldn't reach its server to download “new.txt”."));
  EXPECT_THAT(calls(), Not(Contains(HasSubstr("browse"))));
}

TEST_F(CreateItemTest, AFullAccountIsSaidToBeFull) {
  refuse("upload-urls", 507);
  EXPECT_EQ(create(file("new.txt"), CONTENTS).error(),
            Error(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA,
                  "Vondle is full. “new.txt” will upload once there is room; open the Vondle menu to get more space."));
}

TEST_F(CreateItemTest, BytesThatTheStoreRefusesFailAsTransfers) {
  take("upload-urls", TARGET);
  const struct {
    int status;
    Error expected;
  } cases[] = {
      {401,
       {FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED, "Vondle needs to be signed in again to download “new.txt”."}},
      {403,
       {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE,
        "“new.txt” couldn't be downloaded from Vondle storage (HTTP 403): the file is missing there, or access to it "
        "was refused."}},
      {413, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 413 for “new.txt”."}},
      {507, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 507 for “new.txt”."}},
  };
  for (const auto& c : cases) {
    store("put", c.status);
    EXPECT_EQ(create(file("new.txt"), CONTENTS).error(), c.expected);
    EXPECT_THAT(log.messages(LogLevel::standard),
                Contains("upload of new.txt failed: HTTP " + std::to_string(c.status)));
  }
  EXPECT_THAT(writes(), Not(Contains(HasSubstr("notify-upload"))));
}

TEST_F(CreateItemTest, AFileThatShrinksWhileItGoesUpFails) {
  take("upload-urls", TARGET);
  machine.urlLoading.onRequest(std::string(STORE) + "put", [](const URLRequest&) {
    auto shrank = networkFailure();
    shrank.error = Error(URL_ERROR_DOMAIN, URL_REQUEST_BODY_STREAM_EXHAUSTED, "the file to upload is too short");
    return shrank;
  });
  EXPECT_TRUE(create(file("new.txt"), CONTENTS).error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
}

TEST_F(CreateItemTest, TheUserCanCancelAnUpload) {
  take("upload-urls", TARGET);
  Answer answer;
  const auto progress = extension().createItem(file("new.txt"), 0, CONTENTS, 0, {}, answer.completion());
  scheduler.advance(seconds(5));
  EXPECT_FALSE(answer.hasValue());
  progress->cancel();
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value().error(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_THAT(writes(), Not(Contains(HasSubstr("notify-upload"))));
}

// Large files.

struct CreateLargeItemTest : CreateItemTest {
  CreateLargeItemTest() {
    machine.files.put(CONTENTS, std::string(static_cast<std::size_t>(multipartThreshold), 'x'));
    machine.files.setModificationTime(CONTENTS, {1'700'000'000.75});
    refuse("upload-parts", networkFailure());
  }
  void cancelSoon(const Item& item) {
    Answer answer;
    const auto progress = extension().createItem(item, 0, CONTENTS, 0, {}, answer.completion());
    scheduler.advance(seconds(1));
    progress->cancel();
    scheduler.runUntilIdle();
    EXPECT_EQ(answer.value().error(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  }
  MultipartResume saved{machine.files, scheduler};
};

TEST_F(CreateLargeItemTest, IsSavedUnderItsPlaceAndResumedAfterACheck) {
  take("upload-urls", R"({"urls":[{"key":"k9","upload_id":"u9","part_size":52428800}]})");
  const std::string id = "new|docs/new.txt|104857600|1700000000";
  cancelSoon(file("new.txt"));
  ASSERT_TRUE(saved.load(id));
  EXPECT_EQ(saved.load(id)->uploadID, "u9");
  EXPECT_THAT(
      writes(),
      Contains(
          R"(upload-urls {"path":"docs","files":[{"filename":"new.txt","size":104857600,"thumb":true,"multipart":true}]})"));

  const auto before = writes().size();
  take("upload-status", R"({"part_size":52428800})");
  cancelSoon(file("new.txt"));
  EXPECT_EQ(writes().at(before), R"(upload-status {"key":"k9","upload_id":"u9"})");
  EXPECT_THAT(writes().at(before + 1), testing::StartsWith("upload-parts "));
}

TEST_F(CreateLargeItemTest, AtTheRootTheSavedPlaceBeginsWithASlash) {
  take("upload-urls", R"({"urls":[{"key":"k9","upload_id":"u9","part_size":52428800}]})");
  cancelSoon(file("new.txt", ROOT_CONTAINER.text));
  EXPECT_TRUE(saved.load("new|/new.txt|104857600|1700000000"));
}

}  // namespace
}  // namespace vondle
