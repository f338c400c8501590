#include "upload/multipart_resume.h"

#include <cerrno>
#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/upload_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

const std::string PATH = SimulatedFiles::containerPath(APPLICATION_GROUP) + "/multipart-resume.json";
constexpr const char* ID = "new|films/report.mov|734003200|1700000000";
constexpr double REFERENCE = 978'307'200;  // 2001-01-01T00:00:00Z

struct MultipartResumeTest : testing::Test, UploadRig {
  using Saved = MultipartResume::Saved;
  enum class Decision { resume, fresh, failed };

  void begin(const std::string& id = ID, const std::string& uploadID = "u1") {
    resume.begin(id, "k/1", uploadID, 30, 10);
  }
  [[nodiscard]] json::Object stored() const { return json::parseObject(files.contents(PATH).value()).value(); }
  std::map<std::string, std::string> tags() { return resume.load(ID).value().etags; }

  Decision check(std::int64_t size = 30) {
    Captured<Result<std::optional<Saved>>> answer;
    resume.check(ID, size, api, answer.completion());
    scheduler.runUntilIdle();
    decided = answer.value();
    if (!decided) return Decision::failed;
    return *decided ? Decision::resume : Decision::fresh;
  }
  [[nodiscard]] int questions() const { return static_cast<int>(requests("upload-status").size()); }

  Result<std::optional<Saved>> decided;
};

TEST_F(MultipartResumeTest, StandsInTheContainerOfTheGroup) {
  EXPECT_EQ(resume.fileURL(), PATH);
}

TEST(MultipartResumeIdentity, NamesAFileBySizeAndWholeSeconds) {
  using Resume = MultipartResume;
  EXPECT_EQ(Resume::identity("report.mov", 734'003'200, Timestamp{1'700'000'000.75}),
            "report.mov|734003200|1700000000");
  EXPECT_EQ(Resume::identity("report.mov", 734'003'200, std::nullopt), "report.mov|734003200|0");
  EXPECT_EQ(Resume::identity("", 0, Timestamp{0.9}), "|0|0");
  EXPECT_EQ(Resume::identity("a|b/“c”", 1, Timestamp{-0.9}), "a|b/“c”|1|0");
  EXPECT_EQ(Resume::identity("a", 1, Timestamp{-1.9}), "a|1|-1");
  for (const double never : {1e300, -1e300, std::numeric_limits<double>::infinity(), std::nan("")})
    EXPECT_EQ(Resume::identity("a", 1, Timestamp{never}), "a|1|0");
}

TEST_F(MultipartResumeTest, WritesWhatWasBegun) {
  begin();
  const auto saved = stored();
  ASSERT_THAT(saved, SizeIs(1));
  const auto& record = saved.at(ID).as_object();
  EXPECT_EQ(record.size(), 6u);
  EXPECT_EQ(record.at("key"), "k/1");
  EXPECT_EQ(record.at("uploadID"), "u1");
  EXPECT_EQ(record.at("size"), 30);
  EXPECT_EQ(record.at("partSize"), 10);
  EXPECT_EQ(record.at("etags"), json::Object());
  EXPECT_TRUE(record.at("started").is_double());
  EXPECT_EQ(record.at("started").to_number<double>(), VirtualScheduler::START.secondsSince1970 - REFERENCE);
}

TEST_F(MultipartResumeTest, LoadsWhatWasBegun) {
  EXPECT_EQ(resume.load(ID), std::nullopt);
  begin();
  EXPECT_EQ(resume.load(ID), (Saved{.key = "k/1",
                                    .uploadID = "u1",
                                    .size = 30,
                                    .partSize = 10,
                                    .etags = {},
                                    .started = VirtualScheduler::START}));
  EXPECT_EQ(resume.load("another"), std::nullopt);
}

TEST_F(MultipartResumeTest, RecordsThePartsThatTheServerTook) {
  begin();
  resume.record(ID, "u1", 2, "\"b\"");
  resume.record(ID, "u1", 10, "j");
  resume.record(ID, "u1", 2, "\"B\"");
  EXPECT_THAT(tags(), ElementsAre(Pair("10", "j"), Pair("2", "\"B\"")));
  EXPECT_EQ(stored().at(ID).at("etags").at("2"), "\"B\"");
}

TEST_F(MultipartResumeTest, LeavesARecordOfAnotherUploadAsItIsButRewritesTheFile) {
  begin();
  const auto before = files.contents(PATH);
  const int written = files.writeCount(PATH);
  resume.record(ID, "u2", 1, "a");
  resume.record("another", "u1", 1, "a");
  EXPECT_EQ(files.contents(PATH), before);
  EXPECT_EQ(files.writeCount(PATH), written + 2);
}

TEST_F(MultipartResumeTest, ReplacesWhatIsSavedWhenAnUploadBeginsAnew) {
  begin();
  resume.record(ID, "u1", 1, "a");
  scheduler.advance(seconds(60));
  resume.begin(ID, "k/2", "u2", 31, 11);
  EXPECT_EQ(resume.load(ID), (Saved{.key = "k/2",
                                    .uploadID = "u2",
                                    .size = 31,
                                    .partSize = 11,
                                    .etags = {},
                                    .started = {VirtualScheduler::START.secondsSince1970 + 60}}));
}

TEST_F(MultipartResumeTest, ForgetsOneAndKeepsTheOthers) {
  begin();
  begin("another", "u2");
  resume.forget(ID);
  EXPECT_EQ(resume.load(ID), std::nullopt);
  EXPECT_EQ(resume.load("another")->uploadID, "u2");
  resume.forget("another");
  EXPECT_EQ(files.contents(PATH), "{}");
  resume.forget("another");
  EXPECT_EQ(files.contents(PATH), "{}");
}

TEST_F(MultipartResumeTest, KeepsAnUploadForLessThanSixDays) {
  begin();
  scheduler.advance(seconds(518'399));
  EXPECT_TRUE(resume.load(ID));
  scheduler.advance(seconds(1));
  EXPECT_FALSE(resume.load(ID));
  EXPECT_THAT(stored(), SizeIs(1));
  begin("another");
  EXPECT_THAT(stored(), SizeIs(1));
  EXPECT_TRUE(stored().contains("another"));
}

TEST_F(MultipartResumeTest, KeepsAnUploadThatBeganInTheFuture) {
  begin();
  scheduler.setWallClock({VirtualScheduler::START.secondsSince1970 - 1e7});
  EXPECT_TRUE(resume.load(ID));
}

TEST_F(MultipartResumeTest, TakesAMissingFileAndAnEmptyTableAlike) {
  for (const bool there : {false, true}) {
    if (there) files.put(PATH, "{}");
    EXPECT_EQ(resume.load(ID), std::nullopt);
    EXPECT_EQ(check(), Decision::fresh);
    resume.record(ID, "u1", 1, "a");
    EXPECT_EQ(files.contents(PATH), "{}");
    static_cast<void>(files.remove(PATH));
  }
  EXPECT_EQ(questions(), 0);
}

TEST_F(MultipartResumeTest, IsEmptyWhenAnyRecordCannotBeUnderstood) {
  const std::string good =
      R"("good":{"key":"k","uploadID":"u","size":1,"partSize":1,"etags":{"1":"a"},"started":736243200})";
  files.put(PATH, "{" + good + "}");
  ASSERT_TRUE(resume.load("good"));
  for (const char* bad :
       {R"(7)", R"(null)", R"([])", R"({})", R"({"uploadID":"u","size":1,"partSize":1,"etags":{},"started":736243200})",
        R"({"key":7,"uploadID":"u","size":1,"partSize":1,"etags":{},"started":736243200})",
        R"({"key":"k","uploadID":null,"size":1,"partSize":1,"etags":{},"started":736243200})",
        R"({"key":"k","uploadID":"u","size":"1","partSize":1,"etags":{},"started":736243200})",
        R"({"key":"k","uploadID":"u","size":1,"etags":{},"started":736243200})",
        R"({"key":"k","uploadID":"u","size":1,"partSize":1,"etags":[],"started":736243200})",
        R"({"key":"k","uploadID":"u","size":1,"partSize":1,"etags":{"1":1},"started":736243200})",
        R"({"key":"k","uploadID":"u","size":1,"partSize":1,"etags":{},"started":"2024"})",
        R"({"key":"k","uploadID":"u","size":1,"partSize":1,"etags":{}})"}) {
    files.put(PATH, "{" + good + R"(,"bad":)" + bad + "}");
    EXPECT_FALSE(resume.load("good")) << bad;
  }
  for (const char* text : {"", "[]", "7", "{", "\xFF"}) {
    files.put(PATH, text);
    EXPECT_FALSE(resume.load("good")) << text;
  }
}

TEST_F(MultipartResumeTest, ReplacesABrokenFileAtTheNextWrite) {
  files.put(PATH, "{\"broken\":");
  begin();
  EXPECT_TRUE(resume.load(ID));
  EXPECT_THAT(stored(), SizeIs(1));
}

TEST_F(MultipartResumeTest, IsEmptyInAFileThatIsCutAnywhere) {
  begin();
  resume.record(ID, "u1", 1, "\"a\"");
  begin("another", "u2");
  const auto whole = *files.contents(PATH);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    files.put(PATH, whole.substr(0, length));
    EXPECT_FALSE(resume.load(ID)) << length;
    EXPECT_FALSE(resume.load("another")) << length;
    EXPECT_EQ(check(), Decision::fresh) << length;
    resume.begin("third", "k", "u3", 1, 1);
    EXPECT_THAT(stored(), SizeIs(1)) << length;
  }
  EXPECT_EQ(questions(), 0);
}

TEST_F(MultipartResumeTest, IgnoresWhatItDoesNotKnow) {
  files.put(PATH, R"({"a":{"key":"k","uploadID":"u","size":1,"partSize":1,"etags":{},"started":736243200.5,"x":[1]}})");
  EXPECT_EQ(resume.load("a")->started, Timestamp{736'243'200.5 + REFERENCE});
}

TEST_F(MultipartResumeTest, ReadsTheFileOnEveryCall) {
  begin();
  ASSERT_TRUE(files.remove(PATH));
  EXPECT_FALSE(resume.load(ID));
}

TEST_F(MultipartResumeTest, KeepsTheOldFileWhenAWriteFails) {
  begin();
  files.fail(FileOperation::write, PATH, ENOSPC, 3);
  resume.record(ID, "u1", 1, "a");
  begin("another");
  resume.forget(ID);
  EXPECT_THAT(tags(), IsEmpty());
  EXPECT_FALSE(resume.load("another"));
  resume.record(ID, "u1", 1, "a");
  EXPECT_THAT(tags(), ElementsAre(Pair("1", "a")));
}

TEST_F(MultipartResumeTest, RemembersNothingWithoutAContainer) {
  begin();
  files.setContainerAvailable(false);
  EXPECT_EQ(resume.fileURL(), std::nullopt);
  EXPECT_FALSE(resume.load(ID));
  begin("another");
  resume.record(ID, "u1", 1, "a");
  resume.forget(ID);
  EXPECT_EQ(check(), Decision::fresh);
  files.setContainerAvailable(true);
  EXPECT_THAT(stored(), SizeIs(1));
  EXPECT_THAT(tags(), IsEmpty());
}

// Whether a saved upload can go on.

TEST_F(MultipartResumeTest, AsksTheServerAboutWhatIsSaved) {
  begin();
  resume.record(ID, "u1", 1, "a");
  answer("upload-status", R"({"part_size":10})");
  EXPECT_EQ(check(), Decision::resume);
  EXPECT_EQ(*decided, resume.load(ID));
  EXPECT_THAT(bodies("upload-status"), ElementsAre(json::parse(R"({"key":"k/1","upload_id":"u1"})").value()));
}

TEST_F(MultipartResumeTest, ConsultsNothingButThePartSize) {
  begin();
  for (const char* status :
       {R"({"part_size":10,"key":"another","upload_id":"u9","size":1,"parts":[]})", R"({"part_size":10.0})"}) {
    answer("upload-status", status);
    EXPECT_EQ(check(), Decision::resume) << status;
  }
}

TEST_F(MultipartResumeTest, AsksNothingWhenNothingFits) {
  EXPECT_EQ(check(), Decision::fresh);
  begin();
  EXPECT_EQ(check(29), Decision::fresh);
  EXPECT_EQ(check(31), Decision::fresh);
  EXPECT_EQ(questions(), 0);
  EXPECT_TRUE(resume.load(ID));
}

TEST_F(MultipartResumeTest, BeginsAfreshWhenTheServerWantsOtherParts) {
  for (const char* status : {"{}", R"({"part_size":9})", R"({"part_size":"10"})", R"({"part_size":null})",
                             R"({"part_size":true})", R"({"upload_id":"u1"})"}) {
    begin();
    answer("upload-status", status);
    log.clear();
    EXPECT_EQ(check(), Decision::fresh) << status;
    EXPECT_FALSE(resume.load(ID)) << status;
    EXPECT_THAT(log.messages(LogLevel::standard),
                ElementsAre("saved multipart upload of k/1 can't be resumed, starting again"));
  }
}

TEST_F(MultipartResumeTest, BeginsAfreshWithPartsOfNoSize) {
  for (const int partSize : {0, -1}) {
    resume.begin(ID, "k/1", "u1", 30, partSize);
    answer("upload-status", json::serialize(json::Object{{"part_size", partSize}}));
    EXPECT_EQ(check(), Decision::fresh);
    EXPECT_FALSE(resume.load(ID));
  }
}

TEST_F(MultipartResumeTest, BeginsAfreshAfterAFinalAnswer) {
  for (const int status : {401, 403, 404, 507}) {
    begin();
    answer("upload-status", "{}", status);
    log.clear();
    EXPECT_EQ(check(), Decision::fresh) << status;
    EXPECT_FALSE(resume.load(ID)) << status;
    EXPECT_THAT(log.messages(LogLevel::standard),
                ElementsAre("saved multipart upload of k/1 can't be resumed, starting again"));
  }
  begin();
  answer("upload-status", failing({URL_ERROR_DOMAIN, URL_CANCELLED}));
  EXPECT_EQ(check(), Decision::fresh);
  EXPECT_FALSE(resume.load(ID));
  begin();
  ASSERT_TRUE(files.remove(Paths(machine.users).config()));
  EXPECT_EQ(check(), Decision::fresh);
  EXPECT_FALSE(resume.load(ID));
}

TEST_F(MultipartResumeTest, KeepsWhatIsSavedWhenTheServerCannotTell) {
  begin();
  for (const int status : {204, 302, 400, 402, 409, 410, 413, 429, 500, 503}) {
    answer("upload-status", "{}", status);
    EXPECT_EQ(check(), Decision::failed) << status;
    EXPECT_EQ(decided.error(), Error(APIError::badResponse(status)));
  }
  for (const char* garbage : {"", "[]", "<html>"}) {
    answer("upload-status", garbage);
    EXPECT_EQ(check(), Decision::failed) << garbage;
  }
  answer("upload-status", failing(networkError()));
  EXPECT_EQ(check(), Decision::failed);
  EXPECT_EQ(decided.error(), networkError());
  EXPECT_TRUE(resume.load(ID));
  EXPECT_THAT(log.messages(LogLevel::standard), IsEmpty());
}

}  // namespace
}  // namespace vondle
