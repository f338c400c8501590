#include "upload/multipart_upload.h"

#include <cerrno>
#include <limits>
#include <random>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/upload_rig.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char* FILE_PATH = "/home/tester/film.mov";
constexpr const char* ID = "new|/film.mov|22|0";
constexpr const char* KEY = "ann/0a1b.mov";
constexpr const char* THUMB = "https://store.example/thumb";
const Error USER_CANCEL(COCOA_ERROR_DOMAIN, USER_CANCELLED);

struct MultipartUploadTest : testing::Test, UploadRig {
  MultipartUploadTest() {
    files.put(FILE_PATH, "aaaabbbbccccddddeeeeff");
    servePartsUploads();
  }

  static MultipartUpload::Job job(std::int64_t size = 22, std::int64_t partSize = 4) {
    return {.file = FILE_PATH, .key = KEY, .uploadID = "u1", .size = size, .partSize = partSize, .resumeID = ID};
  }
  void begin(MultipartUpload::Job job) {
    std::make_shared<MultipartUpload>(services(), std::move(job), progress, [this](Result<std::string> key) {
      outcomes.push_back(std::move(key));
    })->start();
  }
  void run(MultipartUpload::Job job) {
    begin(std::move(job));
    EXPECT_TRUE(scheduler.runUntil([&] { return !outcomes.empty(); }));
  }
  [[nodiscard]] const Result<std::string>& outcome() const { return outcomes.at(0); }
  [[nodiscard]] Error error() const { return outcome().error(); }

  // The numbers of the parts for which addresses were asked, in order.
  [[nodiscard]] std::vector<std::int64_t> partsAskedFor() const {
    std::vector<std::int64_t> numbers;
    for (const auto& body : bodies("upload-parts")) {
      EXPECT_EQ(body.at("key"), KEY);
      EXPECT_EQ(body.at("upload_id"), "u1");
      EXPECT_EQ(body.at("parts").as_array().size(), 1u);
      numbers.push_back(body.at("parts").at(0).as_int64());
    }
    return numbers;
  }
  // The bytes that went to each address of the store, in order.
  [[nodiscard]] std::vector<std::string> partsSent() const {
    std::vector<std::string> sent;
    for (const auto& task : machine.urlLoading.tasks())
      if (task->isStarted() && task->url().starts_with(std::string(STORE) + "part/")) sent.push_back(task->sentBody());
    return sent;
  }
  // The answer to the question for the address of this part, or to the part itself.
  void answerAddress(std::int64_t number, ScriptedReply made) {
    machine.urlLoading.onRequest(std::string(API) + "upload-parts",
                                 [number, made](const URLRequest& request) -> std::optional<ScriptedReply> {
                                   const auto asked = json::parseObject(request.body.value())->at("parts").at(0);
                                   return asked == number ? std::optional(made) : std::nullopt;
                                 });
  }
  void answerPart(std::int64_t number, ScriptedReply made) {
    answerStore("part/" + std::to_string(number), std::move(made));
  }
  void save(const std::vector<int>& parts, const std::string& uploadID = "u1") {
    resume.begin(ID, KEY, uploadID, 22, 4);
    for (const int part : parts) resume.record(ID, uploadID, part, "saved-" + std::to_string(part));
  }
  [[nodiscard]] std::vector<std::string> savedParts() {
    const auto saved = resume.load(ID).value();
    std::vector<std::string> parts;
    for (const auto& [part, tag] : saved.etags) parts.push_back(part);
    return parts;
  }
  // When addresses of this part were asked for, in seconds since the start.
  std::vector<double>& watchTries(std::int64_t number) {
    machine.urlLoading.onRequest(std::string(API) + "upload-parts",
                                 [this, number](const URLRequest& request) -> std::optional<ScriptedReply> {
                                   const auto asked = json::parseObject(request.body.value())->at("parts").at(0);
                                   if (asked == number) tries.push_back(inSeconds(scheduler.monotonic().sinceStart));
                                   return std::nullopt;
                                 });
    return tries;
  }

  std::shared_ptr<Progress> progress = Progress::make();
  std::vector<Result<std::string>> outcomes;
  std::vector<double> tries;
};

// The parts.

TEST_F(MultipartUploadTest, SendsEveryPartToItsOwnAddressAndHasThemJoined) {
  run(job());
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(partsSent(), ElementsAre("aaaa", "bbbb", "cccc", "dddd", "eeee", "ff"));
  EXPECT_THAT(bodies("upload-complete"), ElementsAre(json::parse(R"({"key":"ann/0a1b.mov","upload_id":"u1","parts":[
                  {"part":1,"etag":"tag-1"},{"part":2,"etag":"tag-2"},{"part":3,"etag":"tag-3"},
                  {"part":4,"etag":"tag-4"},{"part":5,"etag":"tag-5"},{"part":6,"etag":"tag-6"}]})")
                                                         .value()));
  EXPECT_THAT(bodies("notify-upload"), ElementsAre(json::parse(R"({"keys":["ann/0a1b.mov"]})").value()));
  EXPECT_THAT(requests().back(), StartsWith("notify-upload"));
  EXPECT_THAT(log.messages(LogLevel::standard),
              ElementsAre("multipart upload of ann/0a1b.mov: 6 parts of 0 MB",
                          "bandwidth limits: down unlimited, up unlimited", "multipart upload of ann/0a1b.mov done"));
}

TEST_F(MultipartUploadTest, SendsNothingWithAPartButItsBytes) {
  run(job());
  const auto& request = machine.urlLoading.task("part/6").originalRequest();
  EXPECT_EQ(request.method, "PUT");
  EXPECT_THAT(request.headers, IsEmpty());
  EXPECT_EQ(request.timeout, seconds(60));
}

TEST_F(MultipartUploadTest, LetsOnlyTheLastPartBeShorter) {
  const struct {
    std::int64_t size;
    std::vector<std::string> parts;
  } cases[] = {{8, {"aaaa", "bbbb"}}, {9, {"aaaa", "bbbb", "c"}}, {7, {"aaaa", "bbb"}}, {4, {"aaaa"}}, {1, {"a"}}};
  for (const auto& test : cases) {
    const auto before = partsSent().size();
    outcomes.clear();
    run(job(test.size));
    EXPECT_EQ(outcome(), KEY);
    auto sent = partsSent();
    sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ(sent, test.parts) << test.size;
  }
}

TEST_F(MultipartUploadTest, JoinsAnEmptyFileOfNoParts) {
  run(job(0));
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(partsAskedFor(), IsEmpty());
  EXPECT_EQ(bodies("upload-complete").at(0).at("parts"), json::Array());
}

TEST_F(MultipartUploadTest, TellsThePartSizeInWholeMebibytes) {
  progress->cancel();
  run(job(104'857'600, 8'388'608 + 1'048'575));
  EXPECT_EQ(log.messages().at(0), "multipart upload of ann/0a1b.mov: 12 parts of 8 MB");
}

TEST_F(MultipartUploadTest, SendsThreePartsAtATime) {
  machine.urlLoading.onRequest(std::string(STORE), [](const URLRequest& request) {
    auto made = tagged("tag");
    made.delay = seconds(request.url.ends_with("/2") ? 1 : 10);
    return made;
  });
  begin(job());
  scheduler.advance(seconds(0.5));
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 2, 3));
  EXPECT_THAT(machine.urlLoading.running(), SizeIs(3));
  EXPECT_THAT(slices(), SizeIs(3));
  scheduler.advance(seconds(1));
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(slices(), SizeIs(3));
  scheduler.advance(seconds(60));
  EXPECT_EQ(outcome(), KEY);
}

TEST_F(MultipartUploadTest, ClearsEverySliceAwayWhenItsTransferEnds) {
  answerPart(2, reply("", 500));
  begin(job());
  scheduler.advance(seconds(1));
  EXPECT_THAT(slices(), IsEmpty());
  scheduler.advance(seconds(3600));
  EXPECT_THAT(slices(), IsEmpty());
  ASSERT_THAT(outcomes, SizeIs(1));
}

TEST_F(MultipartUploadTest, NamesSlicesAsPartsOfItsOwn) {
  machine.urlLoading.hold();
  begin(job());
  machine.urlLoading.release();
  scheduler.runUntil([&] { return !slices().empty(); });
  EXPECT_THAT(slices(), Each(StartsWith("vondle-part-")));
  EXPECT_EQ(slices().at(0).size(), std::strlen("vondle-part-") + 36);
  scheduler.advance(seconds(60));
}

TEST_F(MultipartUploadTest, CountsItsProgressInBytes) {
  machine.urlLoading.onRequest(std::string(STORE), [](const URLRequest& request) {
    auto made = tagged("tag");
    made.delay = seconds(request.url.back() - '0');
    return made;
  });
  begin(job());
  scheduler.advance(seconds(0.5));
  EXPECT_EQ(progress->totalUnitCount(), 22);
  EXPECT_EQ(progress->completedUnitCount(), 0);
  scheduler.advance(seconds(1));
  EXPECT_EQ(progress->completedUnitCount(), 4);
  scheduler.advance(seconds(1));
  EXPECT_EQ(progress->completedUnitCount(), 8);
  scheduler.advance(seconds(60));
  EXPECT_EQ(progress->completedUnitCount(), 22);
  EXPECT_EQ(progress->fractionCompleted(), 1);
}

TEST_F(MultipartUploadTest, AnnouncesWhatIsLeftToSendAsALargeUpload) {
  progress->cancel();
  resume.begin(ID, KEY, "u1", LargeUpload::threshold, 1);
  resume.record(ID, "u1", 1, "saved-1");
  begin(job(LargeUpload::threshold, 1));
  EXPECT_FALSE(largeUpload.isActive());
  auto another = job(1, 1);
  another.resumeID.reset();
  begin(another);
  EXPECT_TRUE(largeUpload.isActive());
  scheduler.runUntilIdle();
  EXPECT_THAT(outcomes, SizeIs(2));
}

TEST_F(MultipartUploadTest, CopesWithPartSizesThatNoServerShouldChoose) {
  constexpr std::int64_t LARGEST = std::numeric_limits<std::int64_t>::max();
  const struct {
    std::int64_t size;
    std::int64_t partSize;
    const char* line;
  } cases[] = {
      {1 << 30, 1, "multipart upload of ann/0a1b.mov: 1073741824 parts of 0 MB"},
      {22, std::int64_t{1} << 62, "multipart upload of ann/0a1b.mov: 1 parts of 4398046511104 MB"},
      {LARGEST, std::int64_t{1} << 62, "multipart upload of ann/0a1b.mov: 2 parts of 4398046511104 MB"},
      {LARGEST, LARGEST, "multipart upload of ann/0a1b.mov: 1 parts of 8796093022207 MB"},
      {LARGEST, 1, "multipart upload of ann/0a1b.mov: 9223372036854775807 parts of 0 MB"},
  };
  machine.urlLoading.onRequest(std::string(STORE), [](const URLRequest&) {
    auto made = tagged("tag");
    made.delay = seconds(3600);
    return made;
  });
  for (const auto& test : cases) {
    outcomes.clear();
    log.clear();
    progress = Progress::make();
    begin(job(test.size, test.partSize));
    scheduler.advance(seconds(1));
    EXPECT_EQ(log.messages().at(0), test.line);
    progress->cancel();
    scheduler.advance(LargeUpload::quietGap * 2);  // or the sum of all sizes would overflow
    EXPECT_THAT(outcomes, SizeIs(1)) << test.line;
  }
}

TEST_F(MultipartUploadTest, SendsAFileOfOnePartThatCouldBeMuchLarger) {
  run(job(22, std::int64_t{1} << 62));
  EXPECT_THAT(partsSent(), ElementsAre("aaaabbbbccccddddeeeeff"));
}

// Resuming.

TEST_F(MultipartUploadTest, SendsOnlyThePartsThatAreMissing) {
  save({1, 2, 5});
  begin(job());
  EXPECT_EQ(log.messages().at(0), "multipart upload of ann/0a1b.mov: resuming, 3 of 6 parts already sent");
  EXPECT_EQ(progress->totalUnitCount(), 22);
  EXPECT_EQ(progress->completedUnitCount(), 12);
  scheduler.advance(seconds(60));
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(partsAskedFor(), ElementsAre(3, 4, 6));
  EXPECT_THAT(partsSent(), ElementsAre("cccc", "dddd", "ff"));
  EXPECT_EQ(json::serialize(bodies("upload-complete").at(0).at("parts")),
            R"([{"part":1,"etag":"saved-1"},{"part":2,"etag":"saved-2"},{"part":3,"etag":"tag-3"},)"
            R"({"part":4,"etag":"tag-4"},{"part":5,"etag":"saved-5"},{"part":6,"etag":"tag-6"}])");
  EXPECT_EQ(progress->completedUnitCount(), 22);
}

TEST_F(MultipartUploadTest, CountsAShorterLastPartThatWasAlreadySent) {
  save({6});
  begin(job());
  EXPECT_EQ(progress->completedUnitCount(), 2);
  scheduler.advance(seconds(60));
}

TEST_F(MultipartUploadTest, JoinsAtOnceWhenEveryPartIsThere) {
  save({1, 2, 3, 4, 5, 6});
  run(job());
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(partsAskedFor(), IsEmpty());
  EXPECT_THAT(bodies("upload-complete"), SizeIs(1));
}

TEST_F(MultipartUploadTest, AdoptsOnlyNumbersOfItsParts) {
  resume.begin(ID, KEY, "u1", 22, 4);
  for (const char* name : {"0", "-3", "abc", "7", "99999999999999999999", "", "+", "-", "+-1", "++1", " 1", "1 ", "1.0",
                           "0x1", "+2", "03"})
    files.put(*resume.fileURL(), [&] {
      auto table = json::parseObject(files.contents(*resume.fileURL()).value()).value();
      table.at(ID).at("etags").as_object()[name] = std::string("saved ") + name;
      return json::serialize(table);
    }());
  begin(job());
  EXPECT_EQ(log.messages().at(0), "multipart upload of ann/0a1b.mov: resuming, 2 of 6 parts already sent");
  scheduler.advance(seconds(60));
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 4, 5, 6));
  EXPECT_EQ(bodies("upload-complete").at(0).at("parts").at(1).at("etag"), "saved +2");
}

TEST_F(MultipartUploadTest, BeginsANewRecordWhenAnotherUploadIsSaved) {
  save({1, 2}, "u0");
  machine.urlLoading.hold();
  begin(job());
  EXPECT_EQ(resume.load(ID)->uploadID, "u1");
  EXPECT_THAT(savedParts(), IsEmpty());
  machine.urlLoading.release();
  scheduler.advance(seconds(60));
  EXPECT_THAT(partsAskedFor(), SizeIs(6));
}

TEST_F(MultipartUploadTest, SavesEveryPartAsItIsTaken) {
  answerPart(3, reply("", 500));
  begin(job());
  EXPECT_THAT(savedParts(), IsEmpty());
  scheduler.advance(seconds(1));
  EXPECT_THAT(savedParts(), ElementsAre("1", "2", "4", "5", "6"));
  EXPECT_EQ(resume.load(ID)->etags.at("4"), "tag-4");
  progress->cancel();
  scheduler.runUntilIdle();
}

TEST_F(MultipartUploadTest, ForgetsWhatIsSavedWhenItIsDone) {
  run(job());
  EXPECT_FALSE(resume.load(ID));
}

TEST_F(MultipartUploadTest, SavesNothingWithoutAResumeID) {
  auto plain = job();
  plain.resumeID.reset();
  run(plain);
  EXPECT_EQ(outcome(), KEY);
  EXPECT_FALSE(files.exists(*resume.fileURL()));
}

TEST_F(MultipartUploadTest, UploadsAlsoWhenNothingCanBeSaved) {
  files.setContainerAvailable(false);
  run(job());
  EXPECT_EQ(outcome(), KEY);
}

// Trying again.

TEST_F(MultipartUploadTest, TriesAPartNineTimesWithGrowingPauses) {
  watchTries(1);
  answerPart(1, failing(networkError()));
  run(job(4));
  EXPECT_THAT(tries, ElementsAre(0, 5, 20, 50, 110, 230, 350, 650, 950));
  EXPECT_EQ(error(), networkError());
  std::vector<std::string> expected;
  for (const char* delay : {"5", "15", "30", "60", "120", "120", "300", "300"})
    expected.push_back("multipart ann/0a1b.mov: part 1 failed (the connection was lost), retrying in " +
                       std::string(delay) + " s");
  expected.insert(expected.begin(), {"multipart upload of ann/0a1b.mov: 1 parts of 0 MB",
                                     "bandwidth limits: down unlimited, up unlimited"});
  EXPECT_EQ(log.messages(LogLevel::standard), expected);
  EXPECT_THAT(log.messages(LogLevel::error),
              ElementsAre("multipart upload of ann/0a1b.mov stopped with 0 of 1 parts sent, kept to resume: "
                          "the connection was lost"));
  EXPECT_TRUE(resume.load(ID));
  scheduler.advance(seconds(3600));
  EXPECT_THAT(tries, SizeIs(9));
  EXPECT_THAT(outcomes, SizeIs(1));
}

TEST_F(MultipartUploadTest, AsksForAFreshAddressForEveryTry) {
  answerPart(1, reply("expired", 403));
  answerAddress(1, reply(R"({"parts":[{"url":"https://store.example/part/1"}]})"));
  begin(job(4));
  scheduler.advance(seconds(1));
  answerAddress(1, reply(R"({"parts":[{"url":"https://store.example/part/fresh"}]})"));
  scheduler.advance(seconds(5));
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(requests("PUT part/"), ElementsAre("PUT part/1", "PUT part/fresh"));
  EXPECT_THAT(log.messages(LogLevel::standard),
              Contains("multipart ann/0a1b.mov: part 1 failed (HTTP 403), retrying in 5 s"));
}

TEST_F(MultipartUploadTest, SendsTheOtherPartsWhileOneWaits) {
  answerPart(2, failing(networkError()));
  begin(job());
  scheduler.advance(seconds(4));
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 2, 3, 4, 5, 6));
  answerPart(2, tagged("late"));
  scheduler.advance(seconds(1));
  EXPECT_EQ(outcome(), KEY);
  EXPECT_EQ(bodies("upload-complete").at(0).at("parts").at(1).at("etag"), "late");
}

TEST_F(MultipartUploadTest, KeepsThePlaceOfAPartThatWaits) {
  for (const int part : {1, 2, 3}) answerPart(part, failing(networkError()));
  begin(job());
  scheduler.advance(seconds(4));
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 2, 3));
  progress->cancel();
  scheduler.runUntilIdle();
}

TEST_F(MultipartUploadTest, TakesBackTheProgressOfAFailedPart) {
  answerPart(1, reply("", 500));
  begin(job(8));
  scheduler.advance(seconds(1));
  EXPECT_EQ(progress->completedUnitCount(), 4);
  answerPart(1, tagged("tag"));
  scheduler.advance(seconds(5));
  EXPECT_EQ(progress->completedUnitCount(), 8);
}

TEST_F(MultipartUploadTest, StopsAtOnceWhenTheAPIRefusesForGood) {
  for (const int status : {401, 403, 507}) {
    outcomes.clear();
    log.clear();
    save({1});
    answerAddress(2, reply("{}", status));
    run(job());
    EXPECT_EQ(error(), Error(APIError::badResponse(status)));
    EXPECT_THAT(log.messages(LogLevel::error),
                ElementsAre("upload-parts -> HTTP " + std::to_string(status),
                            AllOf(StartsWith("multipart upload of ann/0a1b.mov stopped with "),
                                  HasSubstr(" of 6 parts sent, kept to resume: "))));
    EXPECT_TRUE(resume.load(ID));
    EXPECT_THAT(bodies("upload-abort"), IsEmpty());
    scheduler.runUntilIdle();
  }
}

TEST_F(MultipartUploadTest, TriesAgainAfterAnyOtherAnswerOfTheAPI) {
  for (const auto& made : {reply("{}", 402),
                           reply("{}", 409),
                           reply("{}", 413),
                           reply("{}", 429),
                           reply("{}", 500),
                           reply("{}", 503),
                           reply(""),
                           reply("[]"),
                           reply("<html>"),
                           reply("{}"),
                           reply(R"({"parts":[]})"),
                           reply(R"({"parts":{}})"),
                           reply(R"({"parts":["https://store.example/part/1"]})"),
                           reply(R"({"parts":[{}]})"),
                           reply(R"({"parts":[{"url":7}]})"),
                           reply(R"({"parts":[{"url":""}]})"),
                           reply(R"({"parts":[{"url":"x"}]})"),
                           reply(R"({"parts":[{"url":"ftp://store.example/part/1"}]})"),
                           reply(R"({"parts":[{"url":"file:///etc/passwd"}]})"),
                           failing(networkError())}) {
    outcomes.clear();
    tries.clear();
    answerAddress(1, made);
    const auto before = tries.size();
    watchTries(1);
    begin(job(4));
    scheduler.advance(seconds(1));
    EXPECT_THAT(outcomes, IsEmpty()) << made.body;
    EXPECT_THAT(tries, SizeIs(before + 1));
    answerAddress(1, reply(R"({"parts":[{"url":"https://store.example/part/1"}]})"));
    scheduler.advance(seconds(5));
    ASSERT_THAT(outcomes, SizeIs(1)) << made.body;
    EXPECT_EQ(outcome(), KEY);
  }
}

TEST_F(MultipartUploadTest, TriesAgainAfterAnyAnswerOfTheStoreButATaggedSuccess) {
  auto cutShort = reply("", 200);
  cutShort.error = networkError();
  for (const auto& made :
       {reply("", 200), reply("", 302), reply("", 400), reply("", 401), reply("", 403), reply("", 404), reply("", 409),
        reply("", 413), reply("", 429), reply("", 500), reply("", 507), failing(networkError()), cutShort}) {
    outcomes.clear();
    answerPart(1, made);
    begin(job(4));
    scheduler.advance(seconds(1));
    EXPECT_THAT(outcomes, IsEmpty()) << made.status;
    EXPECT_TRUE(resume.load(ID)->etags.empty());
    answerPart(1, tagged("tag"));
    scheduler.advance(seconds(5));
    ASSERT_THAT(outcomes, SizeIs(1)) << made.status;
    EXPECT_EQ(outcome(), KEY);
  }
}

TEST_F(MultipartUploadTest, KeepsWhatIsSavedWhenOnlyTheStoreSaysNotFound) {
  answerPart(2, reply("", 404));
  run(job());
  EXPECT_EQ(error(), Error(TransferError::http(404)));
  EXPECT_THAT(log.messages(LogLevel::error),
              Contains("multipart upload of ann/0a1b.mov stopped with 5 of 6 parts sent, kept to resume: HTTP 404"));
  EXPECT_THAT(savedParts(), SizeIs(5));
}

TEST_F(MultipartUploadTest, SendsAPartOnlyToAnAddress) {
  for (const char* text : {"", "x", "/part/1", "https://"}) {
    log.clear();
    answerAddress(1, reply(json::serialize(json::Object{{"parts", json::Array{json::Object{{"url", text}}}}})));
    begin(job(4));
    scheduler.advance(seconds(1));
    EXPECT_THAT(log.messages(LogLevel::standard),
                Contains("multipart ann/0a1b.mov: part 1 failed (" +
                         Error(APIError::malformed()).localizedDescription() + "), retrying in 5 s"))
        << text;
    EXPECT_THAT(slices(), IsEmpty());
    answerAddress(1, reply(R"({"parts":[{"url":"https://store.example/part/a b"}]})"));
    scheduler.advance(seconds(5));
  }
  EXPECT_THAT(outcomes, SizeIs(4));
  EXPECT_THAT(requests("PUT"), Each("PUT part/a%20b"));
}

TEST_F(MultipartUploadTest, FailsWithTheErrorOfTheAPIWhenNothingIsConfigured) {
  begin(job());
  ASSERT_TRUE(files.remove(Paths(machine.users).config()));
  scheduler.runUntilIdle();
  EXPECT_EQ(error(), Error(APIError::notConfigured()));
  EXPECT_TRUE(resume.load(ID));
}

TEST_F(MultipartUploadTest, ForgetsAnUploadThatTheServerNoLongerHas) {
  answerAddress(5, reply("{}", 404));
  run(job());
  EXPECT_EQ(error(), Error(APIError::badResponse(404)));
  EXPECT_THAT(log.messages(LogLevel::error),
              ElementsAre("upload-parts -> HTTP 404", "multipart upload of ann/0a1b.mov: the server no longer has it"));
  EXPECT_FALSE(resume.load(ID));
  EXPECT_THAT(bodies("upload-abort"), IsEmpty());
  scheduler.advance(seconds(60));
  EXPECT_FALSE(resume.load(ID));
  EXPECT_THAT(bodies("upload-complete"), IsEmpty());
  EXPECT_THAT(outcomes, SizeIs(1));
}

TEST_F(MultipartUploadTest, StillSavesThePartsUnderWayWhenAnotherEndsIt) {
  for (const int part : {1, 3}) {
    auto slow = tagged("late");
    slow.delay = seconds(10);
    answerPart(part, slow);
  }
  auto refused = reply("{}", 507);
  refused.delay = seconds(1);
  answerAddress(2, refused);
  begin(job());
  scheduler.advance(seconds(2));
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_THAT(savedParts(), IsEmpty());
  scheduler.advance(seconds(60));
  EXPECT_THAT(savedParts(), ElementsAre("1", "3"));
  EXPECT_THAT(partsAskedFor(), ElementsAre(1, 2, 3));
  EXPECT_THAT(slices(), IsEmpty());
  EXPECT_THAT(outcomes, SizeIs(1));
}

// Pausing.

TEST_F(MultipartUploadTest, WaitsInStepsOfTenSecondsWhileTransfersArePaused) {
  configure({{"transfers_paused", true}});
  answerAddress(1, reply("{}", 500));
  watchTries(1);
  begin(job(4));
  scheduler.advance(seconds(3605));
  EXPECT_THAT(tries, ElementsAre(0));
  EXPECT_THAT(log.messages(LogLevel::standard), Not(Contains(HasSubstr("retrying"))));
  configure({});
  scheduler.advance(seconds(4.9));
  EXPECT_THAT(log.messages(LogLevel::standard), Not(Contains(HasSubstr("retrying"))));
  scheduler.advance(seconds(0.2));
  EXPECT_THAT(log.messages(LogLevel::standard), Contains(HasSubstr("retrying in 5 s")));
  scheduler.advance(seconds(5));
  EXPECT_THAT(tries, ElementsAre(0, 3615));
  progress->cancel();
  scheduler.runUntilIdle();
}

TEST_F(MultipartUploadTest, IsCancelledAtOnceWhileTransfersArePaused) {
  configure({{"transfers_paused", true}});
  answerAddress(1, reply("{}", 500));
  begin(job(4));
  scheduler.advance(seconds(15));
  progress->cancel();
  scheduler.runUntilIdle();
  EXPECT_EQ(error(), USER_CANCEL);
  scheduler.advance(seconds(60));
  EXPECT_THAT(outcomes, SizeIs(1));
}

// Cancelling.

TEST_F(MultipartUploadTest, SendsNothingWhenItIsCancelledBefore) {
  progress->cancel();
  run(job());
  EXPECT_EQ(error(), USER_CANCEL);
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::error),
              ElementsAre("multipart upload of ann/0a1b.mov stopped with 0 of 6 parts sent, kept to resume: " +
                          USER_CANCEL.localizedDescription()));
  EXPECT_TRUE(resume.load(ID));
}

TEST_F(MultipartUploadTest, EndsOnceWhenItIsCancelledWhilePartsWait) {
  for (const int part : {2, 3}) answerPart(part, failing(networkError()));
  begin(job());
  scheduler.advance(seconds(30));
  const auto asked = partsAskedFor().size();
  progress->cancel();
  scheduler.runUntilIdle();
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_EQ(error(), USER_CANCEL);
  scheduler.advance(seconds(3600));
  EXPECT_THAT(outcomes, SizeIs(1));
  EXPECT_THAT(partsAskedFor(), SizeIs(asked));
  EXPECT_THAT(savedParts(), ElementsAre("1", "4", "5", "6"));
  EXPECT_THAT(bodies("upload-abort"), IsEmpty());
}

TEST_F(MultipartUploadTest, EndsAtOnceWhenItIsCancelledWhileAddressesAreAskedFor) {
  machine.urlLoading.hold();
  begin(job());
  scheduler.runUntilIdle();
  progress->cancel();
  scheduler.runUntilIdle();
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_EQ(error(), USER_CANCEL);
  machine.urlLoading.release();
  scheduler.advance(seconds(60));
  EXPECT_THAT(outcomes, SizeIs(1));
  EXPECT_THAT(partsSent(), IsEmpty());
}

TEST_F(MultipartUploadTest, CancelsThePartsUnderWay) {
  machine.urlLoading.onRequest(std::string(STORE), [](const URLRequest&) {
    auto made = tagged("tag");
    made.delay = seconds(100);
    return made;
  });
  begin(job());
  scheduler.advance(seconds(1));
  EXPECT_THAT(machine.urlLoading.running(), SizeIs(3));
  progress->cancel();
  scheduler.runUntilIdle();
  EXPECT_THAT(machine.urlLoading.running(), IsEmpty());
  EXPECT_THAT(slices(), IsEmpty());
  EXPECT_EQ(error(), USER_CANCEL);
  EXPECT_THAT(outcomes, SizeIs(1));
  EXPECT_TRUE(resume.load(ID));
}

// Whoever looks first, the part that has failed or the pump, says why; neither begins anything.
TEST_F(MultipartUploadTest, FailsWithTheErrorOfAPartThatFindsItCancelled) {
  std::set<std::string> reasons;
  for (int steps = 0; steps < 30; ++steps) {
    outcomes.clear();
    progress = Progress::make();
    answerPart(1, failing(networkError()));
    begin(job(4));
    for (int step = 0; step < steps; ++step) scheduler.runNext();
    progress->cancel();
    scheduler.runUntilIdle();
    ASSERT_THAT(outcomes, SizeIs(1)) << steps;
    reasons.insert(error().localizedDescription());
    scheduler.advance(seconds(60));
  }
  EXPECT_THAT(reasons, Contains(networkError().localizedDescription()));
  EXPECT_THAT(reasons, Contains(USER_CANCEL.localizedDescription()));
}

TEST_F(MultipartUploadTest, EndsOnceWhicheverComesFirst) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    outcomes.clear();
    progress = Progress::make();
    answerPart(2, seed % 2 == 0 ? reply("", 500) : failing(networkError()));
    begin(job());
    for (std::uint64_t step = 0; step < seed / 2; ++step) scheduler.runNext();
    progress->cancel();
    scheduler.advance(seconds(3600));
    ASSERT_THAT(outcomes, SizeIs(1)) << seed;
    EXPECT_TRUE(!outcome()) << seed;
    EXPECT_THAT(slices(), IsEmpty()) << seed;
    resume.forget(ID);
  }
}

// A file that can't be read.

TEST_F(MultipartUploadTest, IsAbandonedWhenTheFileBecomesShorter) {
  auto slow = tagged("tag");
  slow.delay = seconds(1);
  for (const int part : {1, 2, 3}) answerPart(part, slow);
  begin(job());
  scheduler.advance(seconds(0.5));
  files.put(FILE_PATH, "aaaabbbbccccddd");
  scheduler.advance(seconds(60));
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_TRUE(error().is(COCOA_ERROR_DOMAIN, FILE_READ_UNKNOWN));
  EXPECT_THAT(log.messages(LogLevel::error),
              ElementsAre("multipart upload of ann/0a1b.mov abandoned: the file is shorter than it was"));
  EXPECT_THAT(bodies("upload-abort"), ElementsAre(json::parse(R"({"key":"ann/0a1b.mov","upload_id":"u1"})").value()));
  EXPECT_FALSE(resume.load(ID));
  EXPECT_THAT(bodies("upload-complete"), IsEmpty());
  EXPECT_THAT(slices(), IsEmpty());
}

TEST_F(MultipartUploadTest, IsAbandonedWhenTheFileIsGone) {
  ASSERT_TRUE(files.remove(FILE_PATH));
  run(job());
  EXPECT_TRUE(error().is(POSIX_ERROR_DOMAIN, ENOENT));
  EXPECT_THAT(bodies("upload-abort"), SizeIs(1));
  EXPECT_FALSE(resume.load(ID));
  scheduler.runUntilIdle();
  EXPECT_THAT(outcomes, SizeIs(1));
}

TEST_F(MultipartUploadTest, EndsWhateverTheServerSaysToAnAbort) {
  answer("upload-abort", failing(networkError()));
  ASSERT_TRUE(files.remove(FILE_PATH));
  run(job());
  EXPECT_TRUE(error().is(POSIX_ERROR_DOMAIN, ENOENT));
  scheduler.runUntilIdle();
}

// Joining.

TEST_F(MultipartUploadTest, AbortsWhatTheServerRefusesToJoin) {
  for (const int status : {204, 400, 403, 404, 409, 413, 429, 500, 507}) {
    outcomes.clear();
    log.clear();
    const auto before = bodies("upload-abort").size();
    answer("upload-complete", "{}", status);
    run(job());
    scheduler.runUntilIdle();
    EXPECT_EQ(error(), Error(APIError::badResponse(status)));
    EXPECT_THAT(log.messages(LogLevel::error),
                ElementsAre("upload-complete -> HTTP " + std::to_string(status),
                            "multipart ann/0a1b.mov: complete failed: " + error().localizedDescription()));
    EXPECT_THAT(bodies("upload-abort"), SizeIs(before + 1));
    EXPECT_FALSE(resume.load(ID));
    EXPECT_THAT(bodies("notify-upload"), IsEmpty());
  }
}

TEST_F(MultipartUploadTest, KeepsWhatIsSavedWhenTheServerCannotBeAskedToJoin) {
  answer("upload-complete", failing(networkError()));
  run(job());
  EXPECT_EQ(error(), networkError());
  EXPECT_THAT(log.messages(LogLevel::error),
              ElementsAre("multipart ann/0a1b.mov: complete failed: the connection was lost"));
  EXPECT_THAT(savedParts(), SizeIs(6));
  EXPECT_THAT(bodies("upload-abort"), IsEmpty());

  outcomes.clear();
  answer("upload-complete", "{}");
  run(job());
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(partsAskedFor(), SizeIs(6));
}

TEST_F(MultipartUploadTest, KeepsWhatIsSavedWhenThereWasNoHTTPAnswerToJoining) {
  silent = "upload-complete";
  begin(job());
  scheduler.advance(seconds(1));
  auto& joining = machine.urlLoading.task("upload-complete");
  joining.respond(0);
  joining.finish();
  scheduler.runUntilIdle();
  EXPECT_EQ(error(), Error(APIError::badResponse(0)));
  EXPECT_THAT(savedParts(), SizeIs(6));
  EXPECT_THAT(bodies("upload-abort"), IsEmpty());
}

TEST_F(MultipartUploadTest, IsNotCancelledAnyMoreWhileItIsJoined) {
  auto slow = reply("{}");
  slow.delay = seconds(10);
  answer("upload-complete", slow);
  begin(job());
  scheduler.advance(seconds(1));
  progress->cancel();
  scheduler.advance(seconds(60));
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_EQ(outcome(), KEY);
}

// Preview and notification.

TEST_F(MultipartUploadTest, SendsThePreviewBeforeItNotifies) {
  answerStore("thumb", reply(""));
  auto withPreview = job();
  withPreview.thumb = THUMB;
  run(withPreview);
  EXPECT_EQ(outcome(), KEY);
  const auto all = requests();
  ASSERT_THAT(all, SizeIs(Ge(3u)));
  EXPECT_THAT(all[all.size() - 3], StartsWith("upload-complete"));
  EXPECT_EQ(all[all.size() - 2], "PUT thumb");
  EXPECT_EQ(all[all.size() - 1], R"(notify-upload {"keys":["ann/0a1b.mov"],"thumbs":["ann/0a1b.mov"]})");
  EXPECT_THAT(log.messages(LogLevel::info), Contains(HasSubstr("preview of 0a1b.mov: ")));
  EXPECT_THAT(machine.previews.calls(), SizeIs(1));
}

TEST_F(MultipartUploadTest, NotifiesWithoutAPreviewThatFailed) {
  answerStore("thumb", reply("", 500));
  auto withPreview = job();
  withPreview.thumb = THUMB;
  run(withPreview);
  EXPECT_EQ(outcome(), KEY);
  EXPECT_EQ(requests().back(), R"(notify-upload {"keys":["ann/0a1b.mov"]})");
}

TEST_F(MultipartUploadTest, NotifiesAtOnceWithoutAUsableAddressForThePreview) {
  for (const char* address : {"", "no address"}) {
    outcomes.clear();
    auto withPreview = job();
    withPreview.thumb = address;
    run(withPreview);
    EXPECT_EQ(outcome(), KEY);
    EXPECT_EQ(requests().back(), R"(notify-upload {"keys":["ann/0a1b.mov"]})");
  }
  EXPECT_THAT(machine.previews.calls(), IsEmpty());
}

TEST_F(MultipartUploadTest, SucceedsWhateverBecomesOfTheNotification) {
  answer("notify-upload", failing(networkError()));
  run(job());
  EXPECT_EQ(outcome(), KEY);
  EXPECT_EQ(log.messages(LogLevel::standard).back(), "multipart upload of ann/0a1b.mov done");
}

TEST_F(MultipartUploadTest, NotifiesNobodyWhenItIsNotTo) {
  auto unnoticed = job();
  unnoticed.notify = false;
  unnoticed.thumb = THUMB;
  run(unnoticed);
  EXPECT_EQ(outcome(), KEY);
  EXPECT_THAT(bodies("notify-upload"), IsEmpty());
  EXPECT_THAT(machine.previews.calls(), IsEmpty());
  EXPECT_EQ(log.messages(LogLevel::standard).back(), "multipart upload of ann/0a1b.mov done");
}

// Many orders of events, with a server that fails now and then, parts that are saved already, and a user who cancels
// some of the uploads: each ends once, leaves nothing behind, and joins every part under its own tag.
TEST(MultipartUploadInAnyOrder, EndsOnceAndJoinsAllOfItsParts) {
  int joined = 0;
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    std::mt19937_64 random(seed);
    const auto oneIn = [&](std::uint64_t n) { return random() % n == 0; };
    UploadRig rig(seed);
    rig.files.put(FILE_PATH, "aaaabbbbccccddddeeeeff");
    rig.servePartsUploads();
    rig.machine.urlLoading.onRequest([&](const URLRequest& request) -> std::optional<ScriptedReply> {
      if (!oneIn(4) || (!request.url.contains("upload-parts") && !request.url.contains("/part/"))) return std::nullopt;
      auto failed = oneIn(2) ? UploadRig::reply("", 503) : UploadRig::failing(UploadRig::networkError());
      failed.delay = seconds(static_cast<double>(random() % 3));
      return failed;
    });
    rig.resume.begin(ID, KEY, "u1", 22, 4);
    for (int part = 1; part <= 6; ++part)
      if (oneIn(3)) rig.resume.record(ID, "u1", part, "tag-" + std::to_string(part));

    const auto progress = Progress::make();
    std::vector<Result<std::string>> outcomes;
    std::make_shared<MultipartUpload>(
        rig.services(),
        MultipartUpload::Job{
            .file = FILE_PATH, .key = KEY, .uploadID = "u1", .size = 22, .partSize = 4, .resumeID = ID},
        progress, [&](Result<std::string> key) { outcomes.push_back(std::move(key)); })
        ->start();
    if (oneIn(2)) {
      for (auto steps = random() % 150; steps > 0; --steps) rig.scheduler.step();
      progress->cancel();
    }
    rig.scheduler.advance(seconds(7200));

    ASSERT_THAT(outcomes, SizeIs(1)) << seed;
    EXPECT_THAT(rig.slices(), IsEmpty()) << seed;
    const auto completions = rig.bodies("upload-complete");
    EXPECT_EQ(completions.size(), outcomes[0] ? 1u : 0u) << seed;
    EXPECT_EQ(rig.resume.load(ID).has_value(), !outcomes[0]) << seed;
    for (const auto& completion : completions) {
      ++joined;
      const auto& parts = completion.at("parts").as_array();
      ASSERT_THAT(parts, SizeIs(6)) << seed;
      for (std::size_t i = 0; i < parts.size(); ++i) {
        EXPECT_EQ(parts[i].at("part"), i + 1) << seed;
        EXPECT_EQ(parts[i].at("etag").as_string(), "tag-" + std::to_string(i + 1)) << seed;
      }
    }
  }
  EXPECT_GT(joined, 100);
  EXPECT_LT(joined, 300);
}

}  // namespace
}  // namespace vondle
