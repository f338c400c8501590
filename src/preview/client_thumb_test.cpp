#include "preview/client_thumb.h"

#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "testing/captured_log.h"
#include "testing/scripted_url_session.h"
#include "testing/simulated_files.h"
#include "testing/simulated_preview_renderer.h"
#include "testing/simulated_random.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* ADDRESS = "https://store.example/thumb?signature=1";
constexpr const char* PICTURE = "/home/tester/contents/photo.HEIC";
constexpr const char* VIDEO = "/home/tester/contents/clip.MOV";

class ClientThumbTest : public testing::Test {
 protected:
  ClientThumbTest() {
    files.put(PICTURE, "a picture");
    files.put(VIDEO, "a video");
    renderer.setAnswer("\xFF\xD8\xFF and so on");
  }

  void send(const std::string& file = PICTURE, const std::optional<std::string>& to = ADDRESS) {
    thumb->send(file, "photo.HEIC", to, [this](bool stored) { answers.push_back(stored); });
  }
  std::optional<std::string> made(const std::string& file) {
    std::optional<std::string> result;
    thumb->make(file, "a name.mp4", [&result](std::optional<std::string> jpeg) { result = std::move(jpeg); });
    scheduler.runUntilIdle();
    return result;
  }
  void answerAll(int status) {
    loading.onRequest([status](const URLRequest&) { return ScriptedReply{.status = status}; });
  }

  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  SimulatedRandom random;
  ScriptedURLLoading loading{scheduler, files};
  SimulatedPreviewRenderer renderer{scheduler};
  CapturedLog log;
  std::optional<ClientThumb> thumb{std::in_place, scheduler, scheduler, files, random, loading, renderer};
  std::vector<bool> answers;
};

TEST_F(ClientThumbTest, HasTheValuesAgreedWithTheServer) {
  EXPECT_TRUE(ClientThumb::enabled);
  EXPECT_EQ(ClientThumb::maxPixels, 400);
  EXPECT_EQ(ClientThumb::posterWidth, 960.0);
  EXPECT_EQ(ClientThumb::quality, 0.82);
  EXPECT_THAT(ClientThumb::videoTypes, ElementsAre("mp4", "mov", "m4v", "3gp"));
}

struct KindCase {
  const char* name;
  bool isVideo;
  const char* extension;
};

TEST_F(ClientThumbTest, TheLowerCasedExtensionOfTheFileTellsVideosFromPictures) {
  const KindCase cases[] = {
      {"photo.HEIC", false, "heic"},
      {"clip.MOV", true, "MOV"},
      {"a.mp4", true, "mp4"},
      {"a.M4v", true, "M4v"},
      {"a.3GP", true, "3GP"},
      {"a.3g2", false, "3g2"},
      {"a.avi", false, "avi"},
      {"clip.mov.jpg", false, "jpg"},
      {"clip.jpg.mov", true, "mov"},
      {"mov", false, ""},
      {".mov", false, ""},
      {"clip.", false, ""},
      {"folder.mov/photo", false, ""},
  };
  for (const auto& test : cases) {
    const std::string path = std::string("/home/tester/") + test.name;
    files.put(path, "contents");
    EXPECT_TRUE(made(path));
    const auto& call = renderer.calls().back();
    EXPECT_EQ(call.isVideo, test.isVideo) << test.name;
    if (test.isVideo)
      EXPECT_TRUE(call.path.ends_with("." + std::string(test.extension))) << call.path;
    else
      EXPECT_EQ(call.extension, test.extension) << test.name;
  }
}

TEST_F(ClientThumbTest, APictureIsAskedForWithItsLongestSideAndQuality) {
  made(PICTURE);
  ASSERT_THAT(renderer.calls(), SizeIs(1));
  const auto& call = renderer.calls()[0];
  EXPECT_EQ(call.path, PICTURE);
  EXPECT_EQ(call.width, 400);
  EXPECT_EQ(call.quality, 0.82);
}

TEST_F(ClientThumbTest, AVideoIsAskedForThroughALinkThatIsGoneAfterwards) {
  renderer.hold();
  std::optional<std::string> jpeg;
  thumb->make(VIDEO, "clip.MOV", [&](std::optional<std::string> bytes) { jpeg = std::move(bytes); });
  scheduler.runUntilIdle();
  ASSERT_THAT(renderer.calls(), SizeIs(1));
  const auto& call = renderer.calls()[0];
  EXPECT_EQ(call.width, 960);
  EXPECT_EQ(call.height, 10000);
  EXPECT_EQ(call.quality, 0.82);
  const auto links = files.list(SimulatedFiles::TEMPORARY_FOLDER);
  ASSERT_THAT(links, SizeIs(1));
  EXPECT_THAT(links[0], testing::MatchesRegex("[0-9A-F-]{36}\\.MOV"));
  EXPECT_EQ(call.path, "/tmp/" + links[0]);
  EXPECT_EQ(files.contents(call.path), "a video");

  renderer.answerNext("\xFF\xD8\xFF poster");
  scheduler.runUntilIdle();
  EXPECT_EQ(jpeg, "\xFF\xD8\xFF poster");
  EXPECT_THAT(files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
  EXPECT_EQ(files.contents(VIDEO), "a video");
}

TEST_F(ClientThumbTest, TheLinkIsRemovedAlsoWhenThereIsNoPreview) {
  renderer.setAnswer(std::nullopt);
  EXPECT_EQ(made(VIDEO), std::nullopt);
  EXPECT_THAT(files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
}

TEST_F(ClientThumbTest, AVideoThatCannotBeLinkedIsReadWhereItIs) {
  files.fail(FileOperation::hardLink, VIDEO, EXDEV);
  EXPECT_TRUE(made(VIDEO));
  EXPECT_EQ(renderer.calls()[0].path, VIDEO);
  EXPECT_EQ(files.contents(VIDEO), "a video");
  EXPECT_THAT(files.list(SimulatedFiles::TEMPORARY_FOLDER), IsEmpty());
}

TEST_F(ClientThumbTest, WithoutAnAddressItCompletesAtOnceAndSendsNothing) {
  send(PICTURE, std::nullopt);
  EXPECT_THAT(answers, ElementsAre(false));
  for (const char* address : {"", "no address", "/thumb", "https://"}) {
    answers.clear();
    send(PICTURE, address);
    EXPECT_THAT(answers, ElementsAre(false)) << address;
  }
  scheduler.runUntilIdle();
  EXPECT_THAT(renderer.calls(), IsEmpty());
  EXPECT_THAT(loading.tasks(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ClientThumbTest, AnAddressWithABlankIsSentToPercentEncoded) {
  answerAll(200);
  send(PICTURE, "https://store.example/my thumb");
  scheduler.runUntilIdle();
  EXPECT_EQ(loading.tasks().at(0)->url(), "https://store.example/my%20thumb");
  EXPECT_THAT(answers, ElementsAre(true));
}

TEST_F(ClientThumbTest, DoesNotKeepTheCallerWaiting) {
  answerAll(200);
  send();
  EXPECT_THAT(renderer.calls(), IsEmpty());
  scheduler.runUntilIdle();
  EXPECT_THAT(answers, ElementsAre(true));
}

TEST_F(ClientThumbTest, WithoutAPreviewTheServerIsLeftToMakeIt) {
  renderer.setAnswer(std::nullopt);
  send();
  scheduler.runUntilIdle();
  EXPECT_THAT(answers, ElementsAre(false));
  EXPECT_THAT(loading.tasks(), IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("preview of photo.HEIC: can't make one here, the server will"));
  EXPECT_THAT(log.lines(), SizeIs(1));
}

TEST_F(ClientThumbTest, PutsTheBytesWithItsOwnHeadersOnly) {
  answerAll(200);
  send();
  scheduler.runUntilIdle();
  ASSERT_THAT(loading.tasks(), SizeIs(1));
  const URLRequest& request = loading.tasks()[0]->originalRequest();
  EXPECT_EQ(request.url, ADDRESS);
  EXPECT_EQ(request.method, "PUT");
  EXPECT_THAT(request.headers, ElementsAre(URLHeader{"Content-Type", "image/jpeg"},
                                           URLHeader{"Cache-Control", "public, max-age=2592000"}));
  EXPECT_EQ(request.timeout, seconds(60));
  EXPECT_EQ(request.body, "\xFF\xD8\xFF and so on");
  EXPECT_EQ(loading.tasks()[0]->uploadPath(), "");
}

TEST_F(ClientThumbTest, AStoredPreviewIsReportedAndLogged) {
  loading.onRequest([](const URLRequest&) { return ScriptedReply{.status = 200, .delay = seconds(1.25)}; });
  send();
  scheduler.advance(seconds(2));
  EXPECT_THAT(answers, ElementsAre(true));
  EXPECT_THAT(loading.tasks(), SizeIs(1));
  EXPECT_THAT(log.lines(), ElementsAre(CapturedLog::Line{LogLevel::info, "com.ferrow.vondle.fileprovider", "provider",
                                                         "preview of photo.HEIC: 13 bytes in 1.25s, uploaded"}));
}

TEST_F(ClientThumbTest, OnlyStatus200CountsAndAnyOtherIsTriedOnceMoreAfterTwoSeconds) {
  for (const int status : {201, 204, 206, 307, 403, 500}) {
    const auto before = loading.tasks().size();
    answers.clear();
    log.clear();
    answerAll(status);
    send();
    scheduler.advance(seconds(1.99));
    EXPECT_EQ(loading.tasks().size(), before + 1) << status;
    EXPECT_THAT(answers, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
    scheduler.advance(seconds(0.01));
    EXPECT_EQ(loading.tasks().size(), before + 2);
    EXPECT_EQ(loading.tasks().back()->originalRequest().body, "\xFF\xD8\xFF and so on");
    EXPECT_THAT(answers, ElementsAre(false));
    EXPECT_THAT(
        log.messages(LogLevel::error),
        ElementsAre("preview of photo.HEIC: 13 bytes in 2.00s, upload failed (HTTP " + std::to_string(status) + ")"));
    scheduler.advance(seconds(3600));
    EXPECT_EQ(loading.tasks().size(), before + 2);
    EXPECT_THAT(answers, SizeIs(1));
  }
}

TEST_F(ClientThumbTest, ATransportErrorIsTriedOnceMoreAndThenLoggedAsItIs) {
  loading.onRequest([](const URLRequest&) {
    return ScriptedReply{.status = 0, .error = Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST, "no way there")};
  });
  send();
  scheduler.advance(seconds(10));
  EXPECT_THAT(answers, ElementsAre(false));
  EXPECT_THAT(loading.tasks(), SizeIs(2));
  EXPECT_THAT(log.messages(LogLevel::error), ElementsAre("preview of photo.HEIC: 13 bytes in 2.00s, no way there"));
}

TEST_F(ClientThumbTest, TheSecondAttemptCanSucceed) {
  send();
  scheduler.runUntilIdle();
  loading.tasks().at(0)->reply({.status = 503});
  scheduler.advance(seconds(2));
  ASSERT_THAT(loading.tasks(), SizeIs(2));
  loading.tasks()[1]->reply({.status = 200});
  scheduler.runUntilIdle();
  EXPECT_THAT(answers, ElementsAre(true));
  EXPECT_THAT(log.messages(), ElementsAre("preview of photo.HEIC: 13 bytes in 2.00s, uploaded"));
}

TEST_F(ClientThumbTest, AServerThatNeverAnswersIsGivenUpAfterSixtySecondsTwice) {
  send();
  scheduler.advance(seconds(60 + 2 + 59.9));
  EXPECT_THAT(answers, IsEmpty());
  scheduler.advance(seconds(0.1));
  EXPECT_THAT(answers, ElementsAre(false));
  EXPECT_THAT(loading.tasks(), SizeIs(2));
}

TEST_F(ClientThumbTest, AStoredPreviewIsStoredHoweverLongTheServersAnswerIs) {
  loading.onRequest([](const URLRequest&) { return ScriptedReply{.status = 200, .body = std::string(1 << 20, 'x')}; });
  send();
  scheduler.advance(seconds(10));
  EXPECT_THAT(answers, ElementsAre(true));
  EXPECT_THAT(loading.tasks(), SizeIs(1));
}

TEST_F(ClientThumbTest, AtMostTwoAreMadeOrSentAtOnce) {
  renderer.hold();
  for (int i = 0; i < 5; ++i) send();
  scheduler.runUntilIdle();
  EXPECT_THAT(renderer.calls(), SizeIs(2));

  renderer.answerNext("\xFF\xD8\xFF");  // now being sent: still one of the two
  scheduler.runUntilIdle();
  EXPECT_THAT(renderer.calls(), SizeIs(2));
  EXPECT_THAT(loading.running(), SizeIs(1));

  loading.tasks()[0]->reply({.status = 500});  // waiting for its second attempt: still one of the two
  scheduler.advance(seconds(1));
  EXPECT_THAT(renderer.calls(), SizeIs(2));

  scheduler.advance(seconds(1));
  loading.tasks().at(1)->reply({.status = 200});
  scheduler.runUntilIdle();
  EXPECT_THAT(answers, ElementsAre(true));
  EXPECT_THAT(renderer.calls(), SizeIs(3));

  answerAll(200);
  while (renderer.waiting() > 0) {
    renderer.answerNext("\xFF\xD8\xFF");
    scheduler.runUntilIdle();
    EXPECT_LE(renderer.waiting(), 2u);
  }
  EXPECT_THAT(answers, ElementsAre(true, true, true, true, true));
}

TEST_F(ClientThumbTest, UploadsUnderWayAtItsEndCompleteWithFalse) {
  renderer.hold();
  send();
  send();
  send();
  scheduler.runUntilIdle();
  renderer.answerNext("\xFF\xD8\xFF");
  scheduler.runUntilIdle();
  ASSERT_THAT(loading.running(), SizeIs(1));
  thumb.reset();
  while (scheduler.step() || renderer.waiting() > 0)
    if (renderer.waiting() > 0) renderer.answerNext("\xFF\xD8\xFF");
  EXPECT_THAT(answers, ElementsAre(false, false, false));
  EXPECT_THAT(loading.tasks(), SizeIs(1));
}

}  // namespace
}  // namespace vondle
