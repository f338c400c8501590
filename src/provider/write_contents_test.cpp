#include "provider/write_contents.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "provider/vondle_file_provider.h"
#include "testing/edit_rig.h"
#include "upload/multipart_resume.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* THUMB_TARGET =
    R"({"key":"k9","upload_url":"https://store.example/put","content_type":"text/plain",
                                         "thumb_upload_url":"https://store.example/thumb"})";

TEST(BaseVersionNumberTest, IsTheFirstPieceOfTheContentVersion) {
  const struct {
    const char* version;
    std::int64_t number;
  } cases[] = {
      {"7-1024", 7},
      {"7", 7},
      {"+7-1024", 7},
      {"0-0", 0},
      {"007-1", 7},
      {"-7-1024", 7},
      {"--7--1024", 7},
      {"9223372036854775807-1", 9'223'372'036'854'775'807},
      {"9223372036854775808-1", 0},
      {"", 0},
      {"-", 0},
      {"+", 0},
      {"++7-1", 0},
      {"seven-1", 0},
      {"7x-1", 0},
      {" 7-1", 0},
      {"7 -1", 0},
      {"7.5-1", 0},
      {"x-7", 0},
      {"7-\xFF", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(baseVersionNumber(c.version), c.number) << c.version;
}

struct WriteContentsTest : testing::Test, EditRig {
  WriteContentsTest() {
    serve({});
    machine.files.put(CONTENTS, "my edit");
    take("content-url", R"({"key":"k9","upload_url":"https://store.example/put"})");
    store("put");
    take("content-commit", "{}", [this] { serve({.key = "k9", .version = 5, .size = 7}); });
  }
  Result<SavedItem> write(const std::string& baseVersion = "4-10") {
    return modify(wanted("7", "a.txt"), FIELD_CONTENTS, CONTENTS, baseVersion);
  }
  std::vector<std::string> commits() const {
    auto lines = writes();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("content-commit "); });
    return lines;
  }
};

TEST_F(WriteContentsTest, UploadsCommitsAndReadsTheItemAnew) {
  Answer answer;
  const auto progress =
      extension().modifyItem(wanted("7", "a.txt"), {"4-10", "m"}, FIELD_CONTENTS, CONTENTS, 0, {}, answer.completion());
  EXPECT_EQ(progress->kind(), ProgressKind::file);
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::uploading);
  EXPECT_TRUE(progress->isCancellable());
  EXPECT_TRUE(progress->isPausable());
  scheduler.runUntilIdle();
  const auto& saved = answer.value();
  ASSERT_TRUE(saved) << saved.error().localizedDescription();
  EXPECT_EQ(saved->item.itemIdentifier, ItemIdentifier{"7"});
  EXPECT_EQ(saved->item.itemVersion.contentVersion, "5-7");
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_FALSE(saved->shouldFetchContent);
  EXPECT_TRUE(saved->hasGivenContents);
  EXPECT_THAT(calls(),
              ElementsAre("GET item?id=7", R"(content-url {"id":"7","base_version":4,"thumb":true})", "PUT put",
                          R"(content-commit {"id":"7","base_version":4,"key":"k9"})", "GET item?id=7"));
  const auto& upload = machine.urlLoading.task("/put");
  EXPECT_EQ(upload.sentBody(), "my edit");
  EXPECT_EQ(upload.originalRequest().timeout, seconds(60));
  EXPECT_EQ(upload.originalRequest().headers, (std::vector<URLHeader>{{"Content-Type", "application/octet-stream"}}));
  EXPECT_EQ(progress->completedUnitCount(), 7);
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("writeContents 7 (base version 4)"));
}

TEST_F(WriteContentsTest, TheFreshRecordTakesTheOldOnesPlace) {
  see("7");
  ASSERT_TRUE(write());
  const auto before = calls().size();
  Captured<Result<Item>> item;
  extension().itemForIdentifier({"7"}, {}, item.completion());
  EXPECT_EQ(item.value()->itemVersion.contentVersion, "5-7");
  EXPECT_EQ(calls().size(), before);
}

TEST_F(WriteContentsTest, WritesAnEmptyFile) {
  machine.files.put(CONTENTS, "");
  ASSERT_TRUE(write());
  EXPECT_EQ(machine.urlLoading.task("/put").sentBody(), "");
}

TEST_F(WriteContentsTest, TheBaseVersionIsTheOneThatTheEditWasMadeOn) {
  serve({.version = 9});
  for (const auto& [version, number] : {std::pair("3-1", "3"), std::pair("nonsense", "0")}) {
    ASSERT_TRUE(write(version));
    const std::string quoted = "\"base_version\":" + std::string(number);
    EXPECT_THAT(commits().back(), HasSubstr(quoted));
    EXPECT_THAT(writes(), Contains(testing::AllOf(StartsWith("content-url "), HasSubstr(quoted))));
    EXPECT_THAT(log.messages(), Contains("writeContents 7 (base version " + std::string(number) + ")"));
  }
}

TEST_F(WriteContentsTest, OtherFieldsOfTheSameCallAreLeftAlone) {
  const auto saved = modify(wanted("7", "b.txt", TRASH_CONTAINER),
                            FIELD_CONTENTS | FIELD_FILENAME | FIELD_PARENT_ITEM_IDENTIFIER, CONTENTS);
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->item.filename, "a.txt");
  EXPECT_EQ(saved->stillPendingFields, 0U);
  EXPECT_THAT(writes(), ElementsAre(StartsWith("content-url "), "PUT put", StartsWith("content-commit ")));
}

TEST_F(WriteContentsTest, WithoutContentsNothingCanBeWritten) {
  EXPECT_EQ(modify(wanted("7"), FIELD_CONTENTS).error(), VondleFileProvider::noWrites());
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("writeContents"))));
}

TEST_F(WriteContentsTest, AFileThatCannotBeReadFailsWithItsError) {
  machine.files.fail(FileOperation::attributes, CONTENTS, EACCES);
  EXPECT_TRUE(write().error().is(POSIX_ERROR_DOMAIN, EACCES));
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(WriteContentsTest, SomebodyElsesVersionAfterTheCommitIsNotTheGivenContents) {
  take("content-commit", "{}", [this] { serve({.key = "theirs", .version = 6, .size = 12}); });
  const auto saved = write();
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->item.itemVersion.contentVersion, "6-12");
  EXPECT_FALSE(saved->hasGivenContents);
}

TEST_F(WriteContentsTest, WhenTheItemCannotBeReadAnewItsErrorIsTheAnswer) {
  take("content-commit", "{}", [this] { itemFailure = reply("", 503); });
  EXPECT_EQ(write().error(), Error(APIError::badResponse(503)));
}

// The preview.

TEST_F(WriteContentsTest, SendsAPreviewBesideAndSaysSo) {
  take("content-url", THUMB_TARGET);
  store("thumb");
  ASSERT_TRUE(write());
  EXPECT_THAT(writes(), Contains("PUT thumb"));
  EXPECT_EQ(commits().back(), R"(content-commit {"id":"7","base_version":4,"key":"k9","thumb":true})");
  EXPECT_EQ(machine.previews.calls().at(0).path, CONTENTS);
  EXPECT_EQ(findHeader(machine.urlLoading.task("/put").originalRequest().headers, "Content-Type"), "text/plain");
  EXPECT_THAT(log.messages(LogLevel::info), Contains(HasSubstr("preview of a.txt: ")));
}

TEST_F(WriteContentsTest, APreviewThatFailsFailsNothing) {
  take("content-url", THUMB_TARGET);
  store("thumb", 500);
  Answer answer;
  extension().modifyItem(wanted("7", "a.txt"), {"4-10", ""}, FIELD_CONTENTS, CONTENTS, 0, {}, answer.completion());
  scheduler.advance(seconds(10));
  ASSERT_TRUE(answer.value());
  EXPECT_EQ(commits().back(), R"(content-commit {"id":"7","base_version":4,"key":"k9"})");

  machine.previews.setAnswer(std::nullopt);
  ASSERT_TRUE(write());
  EXPECT_EQ(commits().back(), R"(content-commit {"id":"7","base_version":4,"key":"k9"})");
}

TEST_F(WriteContentsTest, CommitsWhenBothHaveFinished) {
  take("content-url", THUMB_TARGET);
  store("thumb");
  machine.previews.hold();
  Answer answer;
  extension().modifyItem(wanted("7", "a.txt"), {"4-10", ""}, FIELD_CONTENTS, CONTENTS, 0, {}, answer.completion());
  scheduler.runUntilIdle();
  EXPECT_TRUE(machine.urlLoading.task("/put").isCompleted());
  EXPECT_THAT(commits(), IsEmpty());
  machine.previews.answerNext("jpeg");
  scheduler.runUntilIdle();
  EXPECT_TRUE(answer.value());
}

// Failures before the commit.

TEST_F(WriteContentsTest, AFileThatTheServerDoesNotKnowIsNoSuchItem) {
  items.clear();
  EXPECT_EQ(write().error(), noSuchItem());
  itemFailure = reply("", 410);
  EXPECT_EQ(write().error(), noSuchItem());
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(WriteContentsTest, AFileThatTheServerCouldNotBeAskedAboutIsNotSaidToBeMissing) {
  itemFailure = networkFailure();
  EXPECT_EQ(write().error(), Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE,
                                   "Vondle couldn't reach its server to download “a.txt”."));
  itemFailure = reply("", 500);
  EXPECT_EQ(*write().error().underlying, Error(APIError::badResponse(500)));
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(WriteContentsTest, WhatWasLookedUpIsKnownAlsoWhenTheEditFails) {
  refuse("content-url", 500);
  ASSERT_FALSE(write());
  const auto before = calls().size();
  see("7");
  EXPECT_EQ(calls().size(), before);
}

TEST_F(WriteContentsTest, GoesByWhatIsKnownWhenTheServerFails) {
  see("7");
  itemFailure = networkFailure();
  take("content-commit", "{}", [this] {
    itemFailure.reset();
    serve({.key = "k9", .version = 5, .size = 7});
  });
  EXPECT_TRUE(write());
}

TEST_F(WriteContentsTest, ARefusedTargetIsPutIntoTheUsersWords) {
  for (const int status : {401, 403, 404, 413, 429, 500, 204}) {
    refuse("content-url", status);
    const auto saved = write();
    ASSERT_FALSE(saved) << status;
    EXPECT_TRUE(saved.error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE)) << status;
    EXPECT_THAT(saved.error().description, HasSubstr("Vondle couldn't download “a.txt”: ")) << status;
    EXPECT_EQ(*saved.error().underlying, Error(APIError::badResponse(status)));
  }
  refuse("content-url", 200, "garbage");
  EXPECT_EQ(*write().error().underlying, Error(APIError::badResponse(200)));
  for (const char* unusable : {"{}", R"({"key":"k9"})", R"({"upload_url":"https://store.example/put"})"}) {
    take("content-url", unusable);
    EXPECT_EQ(*write().error().underlying, Error(APIError::malformed())) << unusable;
  }
  refuse("content-url", networkFailure());
  EXPECT_TRUE(write().error().underlying->is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
  EXPECT_THAT(commits(), IsEmpty());
  EXPECT_THAT(writes(), Not(Contains(HasSubstr("PUT"))));
}

TEST_F(WriteContentsTest, AFullAccountIsSaidToBeFull) {
  refuse("content-url", 507);
  EXPECT_EQ(write().error(),
            Error(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA,
                  "Vondle is full. “a.txt” will upload once there is room; open the Vondle menu to get more space."));
}

TEST_F(WriteContentsTest, BytesThatTheStoreRefusesAreNotCommitted) {
  const struct {
    int status;
    Error expected;
  } cases[] = {
      {401, {FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED, "Vondle needs to be signed in again to download “a.txt”."}},
      {404,
       {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE,
        "“a.txt” couldn't be downloaded from Vondle storage (HTTP 404): the file is missing there, or access to it was "
        "refused."}},
      {409, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 409 for “a.txt”."}},
      {507, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 507 for “a.txt”."}},
  };
  for (const auto& c : cases) {
    store("put", c.status);
    EXPECT_EQ(write().error(), c.expected);
  }
  EXPECT_THAT(commits(), IsEmpty());
}

TEST_F(WriteContentsTest, AFileThatShrinksWhileItGoesUpIsNotCommitted) {
  machine.urlLoading.onRequest(std::string(STORE) + "put", [](const URLRequest&) {
    auto shrank = networkFailure();
    shrank.error = Error(URL_ERROR_DOMAIN, URL_REQUEST_BODY_STREAM_EXHAUSTED, "the file to upload is too short");
    return shrank;
  });
  EXPECT_TRUE(write().error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  EXPECT_THAT(commits(), IsEmpty());
}

TEST_F(WriteContentsTest, TheUserCanCancel) {
  machine.urlLoading.onRequest(std::string(STORE) + "put", [](const URLRequest&) {
    auto slow = reply("");
    slow.delay = seconds(30);
    return slow;
  });
  Answer answer;
  const auto progress =
      extension().modifyItem(wanted("7", "a.txt"), {"4-10", ""}, FIELD_CONTENTS, CONTENTS, 0, {}, answer.completion());
  scheduler.advance(seconds(5));
  EXPECT_FALSE(answer.hasValue());
  progress->cancel();
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value().error(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_THAT(commits(), IsEmpty());
}

// What still asks the API when the process ends.

TEST_F(WriteContentsTest, EndsWhenTheProcessEnds) {
  for (const std::string unanswered : {"item", "content-url", "content-commit"}) {
    SimulatedPlatform otherMachine;
    otherMachine.files.put(Paths(otherMachine.users).config(), R"({"server":"https://api.example","api_key":"k"})");
    otherMachine.files.put(CONTENTS, "my edit");
    otherMachine.urlLoading.onRequest([&](const URLRequest& request) -> std::optional<ScriptedReply> {
      if (request.url.starts_with(API + unanswered)) return std::nullopt;
      if (request.url.starts_with(STORE)) return reply("");
      if (request.url.ends_with("content-url"))
        return reply(R"({"key":"k9","upload_url":"https://store.example/put"})");
      return reply(record({}));
    });
    Answer answer;
    {
      Process other(otherMachine.platform());
      const auto otherExtension = other.makeExtension({"domain", "Vondle"}, [](const Domain&) { return nullptr; });
      otherExtension->modifyItem(wanted("7", "a.txt"), {"4-10", ""}, FIELD_CONTENTS, CONTENTS, 0, {},
                                 answer.completion());
      otherMachine.scheduler.runUntilIdle();
      EXPECT_FALSE(answer.hasValue()) << unanswered;
    }
    ASSERT_TRUE(answer.hasValue()) << unanswered;
    EXPECT_FALSE(answer.value()) << unanswered;
  }
}

// Large files.

struct WriteLargeContentsTest : WriteContentsTest {
  static constexpr const char* ID = "edit|7|4|104857600|1700000000";
  static constexpr const char* IN_PARTS = R"({"key":"k9","upload_id":"u9","part_size":52428800})";

  WriteLargeContentsTest() {
    take("content-url", IN_PARTS);
    machine.urlLoading.onRequest(std::string(API) + "upload-parts", [](const URLRequest& request) {
      const auto number = json::parseObject(request.body.value())->at("parts").at(0).as_int64();
      const auto url = STORE + ("part" + std::to_string(number));
      return reply(json::serialize(json::Object{{"parts", json::Array{json::Object{{"part", number}, {"url", url}}}}}));
    });
    machine.urlLoading.onRequest(std::string(STORE) + "part", [](const URLRequest& request) {
      auto taken = reply("");
      taken.headers = {{"ETag", "tag of " + request.url.substr(request.url.rfind('/') + 1)}};
      return taken;
    });
    take("upload-complete");
  }
  void putContents(std::int64_t size) {
    machine.files.put(CONTENTS, std::string(static_cast<std::size_t>(size), 'x'));
    machine.files.setModificationTime(CONTENTS, {1'700'000'000.75});
  }
  // Contents of two parts that have another size when the first has arrived.
  void resizeAfterTheFirstPart(std::int64_t size) {
    putContents(7);
    take("content-url", R"({"key":"k9","upload_id":"u9","part_size":4})");
    machine.urlLoading.onRequest(std::string(STORE) + "part1", [this, size](const URLRequest&) {
      putContents(size);
      auto taken = reply("");
      taken.headers = {{"ETag", "tag"}};
      return taken;
    });
    machine.urlLoading.onRequest(std::string(API) + "upload-parts", [](const URLRequest& request) {
      const auto number = json::parseObject(request.body.value())->at("parts").at(0).as_int64();
      auto later = reply(json::serialize(
          json::Object{{"parts", json::Array{json::Object{{"url", STORE + ("part" + std::to_string(number))}}}}}));
      if (number == 2) later.delay = seconds(5);
      return later;
    });
  }
  MultipartResume saved{machine.files, scheduler};
};

TEST_F(WriteLargeContentsTest, GoInPartsFromTheThresholdUpwards) {
  putContents(multipartThreshold);
  const auto result = write();
  ASSERT_TRUE(result) << result.error().localizedDescription();
  EXPECT_TRUE(result->hasGivenContents);
  EXPECT_THAT(writes(),
              ElementsAre(R"(content-url {"id":"7","base_version":4,"thumb":true,"size":104857600,"multipart":true})",
                          R"(upload-parts {"key":"k9","upload_id":"u9","parts":[1]})",
                          R"(upload-parts {"key":"k9","upload_id":"u9","parts":[2]})", "PUT part1", "PUT part2",
                          StartsWith("upload-complete "), R"(content-commit {"id":"7","base_version":4,"key":"k9"})"));
  EXPECT_FALSE(saved.load(ID));
}

TEST_F(WriteLargeContentsTest, OneByteLessGoesInOneRequest) {
  putContents(multipartThreshold - 1);
  take("content-url", R"({"key":"k9","upload_url":"https://store.example/put"})");
  ASSERT_TRUE(write());
  EXPECT_THAT(writes(), ElementsAre(R"(content-url {"id":"7","base_version":4,"thumb":true})", "PUT put",
                                    StartsWith("content-commit ")));
}

TEST_F(WriteLargeContentsTest, TheServerDecidesTheForm) {
  putContents(multipartThreshold);
  take("content-url", R"({"key":"k9","upload_url":"https://store.example/put"})");
  ASSERT_TRUE(write());
  EXPECT_THAT(writes(), Contains("PUT put"));

  putContents(7);
  take("content-url", R"({"key":"k9","upload_id":"u9","part_size":4})");
  ASSERT_TRUE(write());
  EXPECT_THAT(writes(), Contains("PUT part2"));
}

TEST_F(WriteLargeContentsTest, APreviewGoesUpBeforeTheCommit) {
  putContents(7);
  take("content-url",
       R"({"key":"k9","upload_id":"u9","part_size":4,"thumb_upload_url":"https://store.example/thumb"})");
  store("thumb");
  ASSERT_TRUE(write());
  const auto lines = writes();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[lines.size() - 2], "PUT thumb");
  EXPECT_EQ(lines.back(), R"(content-commit {"id":"7","base_version":4,"key":"k9","thumb":true})");
  EXPECT_THAT(writes(), Not(Contains(HasSubstr("notify-upload"))));

  machine.previews.setAnswer(std::nullopt);
  ASSERT_TRUE(write());
  EXPECT_EQ(commits().back(), R"(content-commit {"id":"7","base_version":4,"key":"k9"})");
}

TEST_F(WriteLargeContentsTest, AnInterruptedUploadIsSavedAndContinued) {
  putContents(multipartThreshold);
  refuse("upload-parts", 403);
  EXPECT_FALSE(write());
  ASSERT_TRUE(saved.load(ID));
  EXPECT_EQ(saved.load(ID)->key, "k9");
  saved.record(ID, "u9", 1, "tag of part1");

  machine.urlLoading.onRequest(std::string(API) + "upload-parts", [](const URLRequest&) {
    return reply(R"({"parts":[{"part":2,"url":"https://store.example/part2"}]})");
  });
  take("upload-status", R"({"part_size":52428800})");
  const auto before = writes().size();
  const auto result = write();
  ASSERT_TRUE(result) << result.error().localizedDescription();
  auto later = writes();
  later.erase(later.begin(), later.begin() + static_cast<std::ptrdiff_t>(before));
  EXPECT_THAT(later, ElementsAre(R"(upload-status {"key":"k9","upload_id":"u9"})",
                                 R"(upload-parts {"key":"k9","upload_id":"u9","parts":[2]})", "PUT part2",
                                 StartsWith("upload-complete "), StartsWith("content-commit ")));
  EXPECT_FALSE(saved.load(ID));
}

TEST_F(WriteLargeContentsTest, AnEditOfAnotherVersionNeverContinuesAnOlderEditsUpload) {
  putContents(multipartThreshold);
  refuse("upload-parts", 403);
  EXPECT_FALSE(write("4-10"));
  EXPECT_FALSE(write("5-10"));
  EXPECT_THAT(writes(), Not(Contains(HasSubstr("upload-status"))));
  EXPECT_TRUE(saved.load(ID));
  EXPECT_TRUE(saved.load("edit|7|5|104857600|1700000000"));
}

TEST_F(WriteLargeContentsTest, ASavedUploadThatTheServerLostBeginsAnew) {
  saved.begin(ID, "lost", "u0", multipartThreshold, 52428800);
  putContents(multipartThreshold);
  refuse("upload-status", 404);
  refuse("content-url", 500);
  EXPECT_FALSE(write());
  EXPECT_THAT(writes(), ElementsAre(StartsWith("upload-status "), StartsWith("content-url ")));
  EXPECT_FALSE(saved.load(ID));
}

TEST_F(WriteLargeContentsTest, ASavedUploadThatCannotBeCheckedIsKept) {
  saved.begin(ID, "k8", "u8", multipartThreshold, 52428800);
  putContents(multipartThreshold);
  refuse("upload-status", 500);
  const auto result = write();
  ASSERT_FALSE(result);
  EXPECT_TRUE(result.error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  EXPECT_TRUE(saved.load(ID));
  EXPECT_THAT(writes(), Not(Contains(StartsWith("content-url "))));
}

TEST_F(WriteLargeContentsTest, ARefusedCommitKeepsTheJoinedParts) {
  putContents(7);
  take("content-url", R"({"key":"k9","upload_id":"u9","part_size":4})");
  refuse("content-commit", 409);
  take("register");
  ASSERT_TRUE(write());
  EXPECT_THAT(writes().back(), R"(register {"key":"k9","path":"docs/a (conflicted copy).txt"})");
}

TEST_F(WriteLargeContentsTest, AFileThatShrinksMeanwhileIsAbandoned) {
  take("upload-abort");
  resizeAfterTheFirstPart(5);
  Answer answer;
  extension().modifyItem(wanted("7", "a.txt"), {"4-10", ""}, FIELD_CONTENTS, CONTENTS, 0, {}, answer.completion());
  scheduler.advance(seconds(10));
  ASSERT_FALSE(answer.value());
  EXPECT_TRUE(answer.value().error().is(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE));
  EXPECT_TRUE(answer.value().error().underlying->is(COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN));
  EXPECT_THAT(writes(), Contains(StartsWith("upload-abort ")));
  EXPECT_THAT(commits(), IsEmpty());
}

TEST_F(WriteLargeContentsTest, AFileThatGrowsMeanwhileGoesUpAsLongAsItWas) {
  resizeAfterTheFirstPart(12);
  Answer answer;
  extension().modifyItem(wanted("7", "a.txt"), {"4-10", ""}, FIELD_CONTENTS, CONTENTS, 0, {}, answer.completion());
  scheduler.advance(seconds(10));
  EXPECT_TRUE(answer.value());
  EXPECT_EQ(machine.urlLoading.task("/part1").sentBody(), "xxxx");
  EXPECT_EQ(machine.urlLoading.task("/part2").sentBody(), "xxx");
  EXPECT_THAT(commits(), ElementsAre(StartsWith("content-commit ")));
}

}  // namespace
}  // namespace vondle
