#include "upload/upload.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "api/content_target.h"
#include "testing/upload_rig.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char* FILE_PATH = "/home/tester/photo.HEIC";
constexpr const char* ID = "new|docs/photo.HEIC|104857600|0";

struct UploadTest : testing::Test, UploadRig {
  UploadTest() {
    files.put(FILE_PATH, "a picture");
    answer("notify-upload", "{}");
    answerStore("k", reply("stored"));
    answerStore("thumb", reply(""));
  }

  void begin(std::int64_t size = 9, std::optional<std::string> resumeID = std::nullopt) {
    upload(services(),
           {.file = FILE_PATH, .to = "docs", .filename = "photo.HEIC", .size = size, .resumeID = std::move(resumeID)},
           progress, [this](Result<std::string> key) { outcomes.push_back(std::move(key)); });
  }
  const Result<std::string>& run(std::int64_t size = 9, std::optional<std::string> resumeID = std::nullopt) {
    outcomes.clear();
    begin(size, std::move(resumeID));
    EXPECT_TRUE(scheduler.runUntil([&] { return !outcomes.empty(); }));
    return outcomes.at(0);
  }
  void answerTarget(const std::string& target) { answer("upload-urls", R"({"urls":[)" + target + "]}"); }
  void answerAddress(const std::string& more = "") {
    answerTarget(R"({"key":"ann/k","upload_url":"https://store.example/k")" + more + "}");
  }
  // A saved upload of this size with all of its parts, so that nothing but joining is left.
  void saveWhole(std::int64_t size) {
    resume.begin(ID, "ann/saved", "u1", size, size);
    resume.record(ID, "u1", 1, "tag");
  }

  std::shared_ptr<Progress> progress = Progress::make();
  std::vector<Result<std::string>> outcomes;
};

// One request.

TEST_F(UploadTest, SendsTheFileToTheAddressAndNotifiesTheServer) {
  answerAddress(R"(,"content_type":"image/heic")");
  EXPECT_EQ(run(), "ann/k");
  EXPECT_THAT(requests(), ElementsAre(StartsWith("upload-urls "), "PUT k", R"(notify-upload {"keys":["ann/k"]})"));
  EXPECT_EQ(bodies("upload-urls").at(0),
            json::parse(R"({"path":"docs","files":[{"filename":"photo.HEIC","size":9,"thumb":true}]})").value());
  const auto& put = machine.urlLoading.task("https://store.example/k");
  EXPECT_EQ(put.sentBody(), "a picture");
  EXPECT_EQ(put.uploadPath(), FILE_PATH);
  EXPECT_EQ(put.originalRequest().timeout, seconds(60));
  EXPECT_THAT(put.originalRequest().headers, ElementsAre(URLHeader{"Content-Type", "image/heic"}));
  EXPECT_EQ(machine.urlLoading.task("notify-upload").originalRequest().timeout, seconds(60));
  EXPECT_EQ(progress->completedUnitCount(), 9);
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::uploading);
  scheduler.advance(seconds(60));
  EXPECT_THAT(outcomes, SizeIs(1));
}

TEST_F(UploadTest, SendsBytesOfAnUnknownTypeAsSuch) {
  answerAddress();
  ASSERT_TRUE(run());
  EXPECT_THAT(machine.urlLoading.task("https://store.example/k").originalRequest().headers,
              ElementsAre(URLHeader{"Content-Type", "application/octet-stream"}));
}

TEST_F(UploadTest, OffersPartsFromOneHundredMebibytes) {
  answerAddress();
  run(multipartThreshold - 1);
  EXPECT_FALSE(bodies("upload-urls").at(0).at("files").at(0).as_object().contains("multipart"));
  run(multipartThreshold);
  EXPECT_EQ(bodies("upload-urls").at(1),
            json::parse(R"({"path":"docs","files":[{"filename":"photo.HEIC","size":104857600,"multipart":true,
                            "thumb":true}]})")
                .value());
}

TEST_F(UploadTest, UsesTheFirstOfSeveralTargets) {
  answerTarget(R"({"key":"ann/k","upload_url":"https://store.example/k"},{"key":"other","upload_url":"https://x/y"})");
  EXPECT_EQ(run(), "ann/k");
}

TEST_F(UploadTest, FallsBackToOneRequestWithoutAUsablePartSize) {
  answerAddress(R"(,"upload_id":"u1","part_size":0)");
  EXPECT_EQ(run(), "ann/k");
  answerTarget(R"({"key":"ann/k","upload_id":"u1","part_size":0})");
  EXPECT_EQ(run().error(), Error(APIError::malformed()));
}

TEST_F(UploadTest, FailsWithoutAUsableTarget) {
  for (const char* body :
       {"{}", R"({"urls":[]})", R"({"urls":{}})", R"({"urls":"x"})", R"({"urls":[7]})", R"({"urls":[{}]})",
        R"({"urls":[null,{"key":"ann/k","upload_url":"https://store.example/k"}]})",
        R"({"urls":[{"upload_url":"https://store.example/k"}]})", R"({"urls":[{"key":"ann/k"}]})",
        R"({"urls":[{"key":"ann/k","upload_url":"no address"}]})", R"({"urls":[{"key":"ann/k","upload_url":7}]})"}) {
    answer("upload-urls", body);
    EXPECT_EQ(run().error(), Error(APIError::malformed())) << body;
  }
  EXPECT_THAT(requests("PUT"), IsEmpty());
}

TEST_F(UploadTest, PassesARefusalOfTheAPIUnchanged) {
  for (const int status : {204, 401, 403, 404, 409, 413, 429, 500, 507}) {
    answer("upload-urls", "{}", status);
    EXPECT_EQ(run().error(), Error(APIError::badResponse(status)));
  }
  for (const char* garbage : {"", "[]", "<html>"}) {
    answer("upload-urls", garbage);
    EXPECT_EQ(run().error(), Error(APIError::badResponse(200))) << garbage;
  }
  answer("upload-urls", failing(networkError()));
  EXPECT_EQ(run().error(), networkError());
  ASSERT_TRUE(files.remove(Paths(machine.users).config()));
  EXPECT_EQ(run().error(), Error(APIError::notConfigured()));
  EXPECT_THAT(requests("PUT"), IsEmpty());
  EXPECT_THAT(requests("notify-upload"), IsEmpty());
}

TEST_F(UploadTest, PassesAFailedTransferUnchangedAndDoesNotNotify) {
  answerAddress();
  for (const int status : {302, 400, 401, 403, 404, 409, 413, 429, 500, 507}) {
    answerStore("k", reply("no room", status));
    EXPECT_EQ(run().error(), Error(TransferError::http(status)));
  }
  EXPECT_THAT(log.messages(LogLevel::error), Contains("upload rejected with HTTP 413 by store.example: no room"));
  auto cutShort = reply("st");
  cutShort.error = networkError();
  for (const auto& made : {failing(networkError()), cutShort}) {
    answerStore("k", made);
    EXPECT_EQ(run().error(), networkError());
  }
  EXPECT_THAT(requests("notify-upload"), IsEmpty());
}

TEST_F(UploadTest, NeverSpeaksAnythingButHTTP) {
  for (const char* address : {"ftp://store.example/k", "file:///etc/passwd", "javascript:alert(1)"}) {
    answerTarget(json::serialize(json::Object{{"key", "ann/k"}, {"upload_url", address}}));
    const auto& outcome = run();
    ASSERT_FALSE(outcome) << address;
    EXPECT_EQ(outcome.error().code, URL_UNSUPPORTED_URL) << address;
  }
  EXPECT_THAT(requests("notify-upload"), IsEmpty());
}

TEST_F(UploadTest, FailsWithAFileThatIsNotThere) {
  answerAddress();
  ASSERT_TRUE(files.remove(FILE_PATH));
  EXPECT_EQ(run().error().code, URL_FILE_DOES_NOT_EXIST);
}

TEST_F(UploadTest, CanBeCancelled) {
  answerAddress();
  auto slow = reply("");
  slow.delay = seconds(100);
  answerStore("k", slow);
  begin();
  scheduler.advance(seconds(1));
  progress->cancel();
  scheduler.runUntilIdle();
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_TRUE(outcomes[0].error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
}

TEST_F(UploadTest, SucceedsWhateverBecomesOfTheNotification) {
  answerAddress();
  for (const auto& made : {reply("", 500), reply("<html>"), failing(networkError())}) {
    answer("notify-upload", made);
    EXPECT_EQ(run(), "ann/k");
  }
}

// The preview.

TEST_F(UploadTest, SendsAPreviewBesideTheContentsAndTellsTheServer) {
  answerAddress(R"(,"thumb_upload_url":"https://store.example/thumb")");
  EXPECT_EQ(run(), "ann/k");
  EXPECT_THAT(bodies("notify-upload"), ElementsAre(json::parse(R"({"keys":["ann/k"],"thumbs":["ann/k"]})").value()));
  ASSERT_THAT(machine.previews.calls(), SizeIs(1));
  EXPECT_EQ(machine.previews.calls()[0].path, FILE_PATH);
  EXPECT_THAT(log.messages(LogLevel::info), Contains(StartsWith("preview of photo.HEIC: ")));
}

TEST_F(UploadTest, NotifiesWithoutAPreviewThatFailed) {
  answerAddress(R"(,"thumb_upload_url":"https://store.example/thumb")");
  answerStore("thumb", reply("", 500));
  EXPECT_EQ(run(), "ann/k");
  machine.previews.setAnswer(std::nullopt);
  EXPECT_EQ(run(), "ann/k");
  const auto plain = json::parse(R"({"keys":["ann/k"]})").value();
  EXPECT_THAT(bodies("notify-upload"), ElementsAre(plain, plain));
}

TEST_F(UploadTest, MakesNoPreviewWithoutAUsableAddress) {
  for (const char* more : {R"(,"thumb_upload_url":"no address")", R"(,"thumb_upload_url":"")",
                           R"(,"thumb_upload_url":7)", R"(,"thumb_upload_url":null)"}) {
    answerAddress(more);
    EXPECT_EQ(run(), "ann/k");
    EXPECT_EQ(requests().back(), R"(notify-upload {"keys":["ann/k"]})");
  }
  EXPECT_THAT(machine.previews.calls(), IsEmpty());
}

TEST_F(UploadTest, WaitsForASlowPreviewBeforeItNotifies) {
  answerAddress(R"(,"thumb_upload_url":"https://store.example/thumb")");
  machine.previews.hold();
  begin();
  scheduler.advance(seconds(10));
  EXPECT_THAT(requests("PUT k"), SizeIs(1));
  EXPECT_THAT(requests("notify-upload"), IsEmpty());
  EXPECT_THAT(outcomes, IsEmpty());
  machine.previews.answerNext("\xFF\xD8\xFF");
  scheduler.advance(seconds(1));
  ASSERT_THAT(outcomes, SizeIs(1));
  EXPECT_EQ(requests().back(), R"(notify-upload {"keys":["ann/k"],"thumbs":["ann/k"]})");
}

TEST_F(UploadTest, WaitsForSlowContentsBeforeItNotifies) {
  answerAddress(R"(,"thumb_upload_url":"https://store.example/thumb")");
  auto slow = reply("");
  slow.delay = seconds(10);
  answerStore("k", slow);
  begin();
  scheduler.advance(seconds(5));
  EXPECT_THAT(requests("PUT thumb"), SizeIs(1));
  EXPECT_THAT(requests("notify-upload"), IsEmpty());
  scheduler.advance(seconds(6));
  EXPECT_EQ(outcomes.at(0), "ann/k");
}

TEST_F(UploadTest, FailsWithTheContentsAlsoWhenThePreviewWasStored) {
  answerAddress(R"(,"thumb_upload_url":"https://store.example/thumb")");
  answerStore("k", reply("", 500));
  EXPECT_EQ(run().error(), Error(TransferError::http(500)));
  EXPECT_THAT(requests("PUT thumb"), SizeIs(1));
  EXPECT_THAT(requests("notify-upload"), IsEmpty());
}

// In parts.

TEST_F(UploadTest, GoesInPartsWhenTheServerWantsIt) {
  servePartsUploads();
  answerTarget(R"({"key":"ann/k","upload_id":"u1","part_size":4,"upload_url":"https://store.example/k",
                   "thumb_upload_url":"https://store.example/thumb"})");
  EXPECT_EQ(run(), "ann/k");
  EXPECT_THAT(requests("PUT"), ElementsAre("PUT part/1", "PUT part/2", "PUT part/3", "PUT thumb"));
  EXPECT_EQ(requests().back(), R"(notify-upload {"keys":["ann/k"],"thumbs":["ann/k"]})");
  EXPECT_FALSE(files.exists(*resume.fileURL()));
}

TEST_F(UploadTest, SavesAnUploadInPartsUnderItsResumeID) {
  servePartsUploads();
  silent = "upload-complete";
  answerTarget(R"({"key":"ann/k","upload_id":"u1","part_size":4})");
  begin(9, ID);
  scheduler.advance(seconds(1));
  EXPECT_THAT(resume.load(ID)->etags, SizeIs(3));
  machine.urlLoading.task("upload-complete").reply(reply("{}"));
  scheduler.runUntilIdle();
  EXPECT_EQ(outcomes.at(0), "ann/k");
}

TEST_F(UploadTest, PassesTheErrorOfAnUploadInPartsUnchanged) {
  servePartsUploads();
  answer("upload-parts", "{}", 507);
  answerTarget(R"({"key":"ann/k","upload_id":"u1","part_size":4})");
  EXPECT_EQ(run().error(), Error(APIError::badResponse(507)));
  scheduler.runUntilIdle();
}

TEST_F(UploadTest, ResumesASavedUploadOfTheSameSize) {
  servePartsUploads();
  answer("upload-status", R"({"part_size":104857600})");
  saveWhole(multipartThreshold);
  EXPECT_EQ(run(multipartThreshold, ID), "ann/saved");
  EXPECT_THAT(requests("upload-urls"), IsEmpty());
  EXPECT_EQ(bodies("upload-complete").at(0),
            json::parse(R"({"key":"ann/saved","upload_id":"u1","parts":[{"part":1,"etag":"tag"}]})").value());
  EXPECT_EQ(requests().back(), R"(notify-upload {"keys":["ann/saved"]})");
  EXPECT_FALSE(resume.load(ID));
}

TEST_F(UploadTest, DoesNotLookForASavedUploadBelowOneHundredMebibytes) {
  answerAddress();
  saveWhole(multipartThreshold - 1);
  const int read = files.readCount(*resume.fileURL());
  EXPECT_EQ(run(multipartThreshold - 1, ID), "ann/k");
  EXPECT_EQ(files.readCount(*resume.fileURL()), read);
  EXPECT_THAT(requests("upload-status"), IsEmpty());
}

TEST_F(UploadTest, DoesNotLookForASavedUploadWithoutAResumeID) {
  answerAddress();
  EXPECT_EQ(run(multipartThreshold), "ann/k");
  EXPECT_EQ(files.readCount(*resume.fileURL()), 0);
}

TEST_F(UploadTest, IgnoresASavedUploadOfAnotherSize) {
  answerAddress();
  for (const std::int64_t size : {multipartThreshold - 1, multipartThreshold + 1}) {
    saveWhole(size);
    EXPECT_EQ(run(multipartThreshold, ID), "ann/k");
    EXPECT_TRUE(resume.load(ID));
  }
  EXPECT_THAT(requests("upload-status"), IsEmpty());
  EXPECT_THAT(requests("upload-urls"), SizeIs(2));
}

TEST_F(UploadTest, AsksForANewTargetWhenTheSavedUploadIsOfNoUse) {
  answerAddress();
  answer("upload-status", "{}", 404);
  saveWhole(multipartThreshold);
  EXPECT_EQ(run(multipartThreshold, ID), "ann/k");
  EXPECT_EQ(bodies("upload-urls").at(0).at("files").at(0).at("multipart"), true);
  EXPECT_FALSE(resume.load(ID));
}

TEST_F(UploadTest, FailsAndKeepsTheSavedUploadWhenTheServerCannotTell) {
  answerAddress();
  answer("upload-status", failing(networkError()));
  saveWhole(multipartThreshold);
  EXPECT_EQ(run(multipartThreshold, ID).error(), networkError());
  EXPECT_TRUE(resume.load(ID));
  EXPECT_THAT(requests("upload-urls"), IsEmpty());
}

TEST_F(UploadTest, RunsSideBySideWithOthers) {
  servePartsUploads();
  answerTarget(R"({"key":"ann/k","upload_id":"u1","part_size":4})");
  for (int i = 0; i < 5; ++i) begin(9, "id " + std::to_string(i));
  scheduler.advance(seconds(60));
  EXPECT_THAT(outcomes, SizeIs(5));
  EXPECT_THAT(requests("PUT part"), SizeIs(15));
  EXPECT_EQ(files.contents(*resume.fileURL()), "{}");
}

}  // namespace
}  // namespace vondle
