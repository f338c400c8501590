#include "provider/fetch_contents.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/captured.h"
#include "testing/provider_rig.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr Request FINDER{.isFileViewerRequest = true, .isSystemRequest = false};
constexpr Request SYNC{.isFileViewerRequest = false, .isSystemRequest = true};
constexpr Request BOTH{.isFileViewerRequest = true, .isSystemRequest = true};
constexpr Request OTHER{.isFileViewerRequest = false, .isSystemRequest = false};

struct FetchContentsTest : testing::Test, ProviderRig {
  using Answer = Captured<Result<FetchedContents>>;

  // A file of the server's: its record, and where its contents are.
  void serve(const std::string& id, const std::string& contents) {
    answerAPI("item?id=" + id, record(id, static_cast<std::int64_t>(contents.size()), "https://store.example/" + id));
    answer("https://store.example/" + id, contents);
  }
  static std::string record(const std::string& id, std::int64_t size, const std::string& url) {
    return json::serialize(
        json::Object{{"id", id}, {"name", id + ".txt"}, {"size", size}, {"version", 3}, {"download_url", url}});
  }
  std::shared_ptr<Progress> start(const std::string& id, Request request, Answer& answer) {
    return extension().fetchContents({id}, std::nullopt, request, answer.completion());
  }
  Result<FetchedContents> fetch(const std::string& id, Request request = FINDER) {
    Answer answer;
    start(id, request, answer);
    scheduler.runUntilIdle();
    return answer.value();
  }
  void expectNothingPending() {
    log.clear();
    scheduler.advance(seconds(120));
    EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("still waiting"))));
  }
};

TEST_F(FetchContentsTest, GivesTheFileAndTheItemAsTheServerHasItNow) {
  serve("7", "hello");
  const auto fetched = fetch("7");
  ASSERT_TRUE(fetched) << fetched.error().localizedDescription();
  EXPECT_EQ(machine.files.contents(fetched->path), "hello");
  EXPECT_EQ(fetched->item.itemIdentifier, ItemIdentifier{"7"});
  EXPECT_EQ(fetched->item.filename, "7.txt");
  EXPECT_EQ(fetched->item.itemVersion.contentVersion, "3-5");
  EXPECT_THAT(requests(), ElementsAre("item?id=7", "https://store.example/7"));
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("fetchContents 7.txt (5 bytes) [finder]"));
  EXPECT_THAT(log.messages(LogLevel::info), Contains("materialised 7.txt"));
  expectNothingPending();
}

TEST_F(FetchContentsTest, RefreshesTheCache) {
  serve("7", "hello");
  ASSERT_TRUE(fetch("7"));
  Captured<Result<Item>> item;
  extension().itemForIdentifier({"7"}, {}, item.completion());
  ASSERT_TRUE(item.hasValue());
  EXPECT_EQ(item.value()->documentSize, 5);
}

TEST_F(FetchContentsTest, AsksAfreshEachTime) {
  serve("7", "hello");
  ASSERT_TRUE(fetch("7"));
  serve("7", "hello again");
  EXPECT_EQ(machine.files.contents(fetch("7")->path), "hello again");
}

TEST_F(FetchContentsTest, SendsTheKeyToTheAPIOnly) {
  serve("7", "hello");
  ASSERT_TRUE(fetch("7"));
  for (const auto& task : machine.urlLoading.tasks()) {
    const bool isAPI = task->url().starts_with(API);
    EXPECT_EQ(findHeader(task->originalRequest().headers, "X-API-Key").has_value(), isAPI) << task->url();
  }
}

TEST_F(FetchContentsTest, ShowsAProgressThatCanCancelAndPause) {
  serve("7", "hello");
  Answer answer;
  const auto progress = start("7", FINDER, answer);
  EXPECT_EQ(progress->kind(), ProgressKind::file);
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::downloading);
  EXPECT_TRUE(progress->isCancellable());
  EXPECT_TRUE(progress->isPausable());
  scheduler.runUntilIdle();
  EXPECT_EQ(progress->totalUnitCount(), 5);
  EXPECT_EQ(progress->completedUnitCount(), 5);
}

TEST_F(FetchContentsTest, DownloadsAnEmptyFile) {
  serve("7", "");
  Answer answer;
  const auto progress = start("7", FINDER, answer);
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.value()) << answer.value().error().localizedDescription();
  EXPECT_EQ(machine.files.contents(answer.value()->path), "");
  EXPECT_EQ(progress->totalUnitCount(), 0);
  EXPECT_THAT(requests(), Contains("https://store.example/7"));
}

TEST_F(FetchContentsTest, RegistersWhatItDoesAndForWhom) {
  const struct {
    Request request;
    const char* kind;
  } cases[] = {{FINDER, "finder"}, {SYNC, "sync"}, {BOTH, "finder"}, {OTHER, "other"}};
  for (const auto& c : cases) {
    log.clear();
    Answer answer;
    start("4711", c.request, answer);
    scheduler.advance(seconds(46));
    EXPECT_THAT(log.messages(LogLevel::standard), Contains("still waiting after 45s: fetch 4711 [" +
                                                           std::string(c.kind) + "] (0 of 1 done, 1 in flight)"));
    machine.urlLoading.running().back()->reply(reply("", 404));
    scheduler.runUntilIdle();
    expectNothingPending();
  }
}

TEST_F(FetchContentsTest, AnswersAFailedLookupWithNoSuchItemWithoutDownloading) {
  answer("https://", "any contents");
  const auto expectNoSuchItem = [&] {
    const auto fetched = fetch("7");
    ASSERT_FALSE(fetched);
    EXPECT_EQ(fetched.error(), Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
  };
  for (const int status : {401, 404, 500}) {
    answerAPI("item", "", status);
    expectNoSuchItem();
  }
  answerAPI("item", R"({"id":"7","name":"a"})");
  expectNoSuchItem();
  for (const char* url : {"", "no address", "/relative", "https://"}) {
    answerAPI("item", record("7", 5, url));
    expectNoSuchItem();
  }
  ASSERT_TRUE(machine.files.remove(Paths(machine.users).config()));
  expectNoSuchItem();
  EXPECT_THAT(requests(), Not(Contains(Not(testing::StartsWith("item?id=7")))));
  EXPECT_THAT(machine.files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
  expectNothingPending();
}

TEST_F(FetchContentsTest, EncodesADownloadAddressThatIsNoneAsItStands) {
  answerAPI("item", record("7", 5, "https://store.example/a b"));
  answer("https://store.example/a%20b", "hello");
  EXPECT_TRUE(fetch("7"));
}

TEST_F(FetchContentsTest, TranslatesAFailedDownload) {
  serve("7", "hello");
  const struct {
    int status;
    Error expected;
  } cases[] = {
      {401, {FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED, "Vondle needs to be signed in again to download “7.txt”."}},
      {404,
       {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE,
        "“7.txt” couldn't be downloaded from Vondle storage (HTTP 404): the file is missing there, or access to "
        "it was refused."}},
      {503, {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 503 for “7.txt”."}},
  };
  for (const auto& c : cases) {
    log.clear();
    answer("https://store.example/7", "", c.status);
    const auto fetched = fetch("7");
    ASSERT_FALSE(fetched);
    EXPECT_EQ(fetched.error(), c.expected) << fetched.error().localizedDescription();
    EXPECT_THAT(log.messages(LogLevel::error), Contains("fetch failed: HTTP " + std::to_string(c.status)));
  }
  EXPECT_THAT(machine.files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
  expectNothingPending();
}

TEST_F(FetchContentsTest, RefusesContentsThatAreTooShort) {
  serve("7", "hello");
  machine.urlLoading.onRequest("https://store.example/7", [](const URLRequest&) {
    ScriptedReply tooShort = reply("hell");
    tooShort.announcedLength = 5;
    return tooShort;
  });
  const auto fetched = fetch("7");
  ASSERT_FALSE(fetched);
  EXPECT_EQ(fetched.error(),
            Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle couldn't download “7.txt”: no response"));
  EXPECT_THAT(machine.files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
}

TEST_F(FetchContentsTest, EndsWithTheUsersCancellation) {
  serve("7", "hello");
  machine.urlLoading.onRequest("https://store.example/7", [](const URLRequest&) {
    ScriptedReply slow = reply("hello");
    slow.delay = seconds(20);
    return slow;
  });
  Answer answer;
  const auto progress = start("7", FINDER, answer);
  scheduler.advance(seconds(5));
  EXPECT_FALSE(answer.hasValue());
  progress->cancel();
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.hasValue());
  EXPECT_EQ(answer.value().error(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_THAT(machine.files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
  expectNothingPending();
}

TEST_F(FetchContentsTest, CancelledDuringTheLookupItDownloadsNothing) {
  serve("7", "hello");
  machine.urlLoading.hold();
  Answer answer;
  const auto progress = start("7", FINDER, answer);
  scheduler.runUntilIdle();
  progress->cancel();
  machine.urlLoading.release();
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.hasValue());
  EXPECT_EQ(answer.value().error(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_THAT(requests(), ElementsAre("item?id=7"));
}

TEST_F(FetchContentsTest, OnlyTheSystemsOwnRequestsWaitForASlot) {
  const Request requesters[] = {SYNC, SYNC, SYNC, SYNC, SYNC, SYNC, OTHER, FINDER};
  std::vector<std::unique_ptr<Answer>> answers;
  for (const Request& requester : requesters) {
    const std::string id = std::to_string(answers.size());
    answerAPI("item?id=" + id, record(id, 5, "https://store.example/" + id));
    answers.push_back(std::make_unique<Answer>());
    start(id, requester, *answers.back());
    scheduler.runUntilIdle();
  }
  EXPECT_THAT(requests(), Not(Contains("https://store.example/5")));
  EXPECT_THAT(requests(), Contains("https://store.example/6"));
  EXPECT_THAT(requests(), Contains("https://store.example/7"));

  answer("https://store.example/5", "bytes");
  for (const char* id : {"0", "1", "2", "3", "4", "6", "7"})
    machine.urlLoading.task("https://store.example/" + std::string(id)).reply(reply("bytes"));
  scheduler.runUntilIdle();
  for (const auto& each : answers) EXPECT_TRUE(each->hasValue() && each->value());
}

TEST_F(FetchContentsTest, ASystemRequestWaitsForASlotAndAViewersSuspendsTheOthers) {
  machine.files.put("/tmp/upload", "some bytes");
  std::vector<std::unique_ptr<Captured<Result<std::string>>>> uploads;
  for (int i = 0; i < 5; ++i) {
    URLRequest request;
    request.url = "https://store.example/upload" + std::to_string(i);
    request.method = "PUT";
    uploads.push_back(std::make_unique<Captured<Result<std::string>>>());
    process.transfers().upload(request, "/tmp/upload", Progress::make(), uploads.back()->completion());
  }
  serve("1", "background");
  answerAPI("item?id=2", record("2", 6, "https://store.example/2"));
  const auto uploadTask = [&](int i) -> ScriptedTask& { return machine.urlLoading.task("upload" + std::to_string(i)); };

  Answer background;
  start("1", SYNC, background);
  Answer viewed;
  start("2", BOTH, viewed);
  scheduler.runUntilIdle();
  EXPECT_THAT(requests(), Not(Contains("https://store.example/1")));
  EXPECT_THAT(requests(), Contains("https://store.example/2"));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(uploadTask(i).isSuspended()) << i;

  machine.urlLoading.task("store.example/2").reply(reply("viewed"));
  scheduler.runUntilIdle();
  ASSERT_TRUE(viewed.hasValue());
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(uploadTask(i).isSuspended()) << i;
  EXPECT_FALSE(background.hasValue());

  uploadTask(3).reply(reply(""));
  scheduler.runUntilIdle();
  ASSERT_TRUE(background.hasValue());
  EXPECT_EQ(machine.files.contents(background.value()->path), "background");
  for (int i : {0, 1, 2, 4}) uploadTask(i).reply(reply(""));
  scheduler.runUntilIdle();
}

}  // namespace
}  // namespace vondle
