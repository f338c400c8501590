#include "transfer/throttled_transfer.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/json.h"
#include "testing/captured_log.h"
#include "testing/simulated_platform.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* HOST = "https://files.test/";

Error asError(TransferError error) {
  return error;
}

// The answers to submissions, by name, in the order in which they came.
struct Answers {
  Completion<Result<std::string>> as(const std::string& name) {
    return [this, name](Result<std::string> result) {
      order.push_back(name);
      EXPECT_TRUE(results.emplace(name, std::move(result)).second) << name << " was answered twice";
    };
  }
  const Result<std::string>& operator[](const std::string& name) const { return results.at(name); }
  bool has(const std::string& name) const { return results.contains(name); }

  std::map<std::string, Result<std::string>> results;
  std::vector<std::string> order;
};

struct ThrottledTransferTest : testing::Test {
  static constexpr const char* CONFIG = "/home/user/.vondle/config.json";
  static constexpr const char* FILE_TO_SEND = "/home/user/document";

  ThrottledTransferTest() {
    machine.files.put(CONFIG, "{}");
    machine.files.put(FILE_TO_SEND, std::string(1000, 'u'));
  }

  void configure(const std::string& text) {
    machine.files.put(CONFIG, text);
    machine.files.setModificationTime(CONFIG, {VirtualScheduler::START.secondsSince1970 + ++edits});
  }
  void run() { machine.scheduler.runUntilIdle(); }
  void advance(double count) { machine.scheduler.advance(seconds(count)); }
  ScriptedTask& task(const std::string& name) { return machine.urlLoading.task(HOST + name); }

  std::shared_ptr<Progress> download(const std::string& name, int priority = 0, std::int64_t size = 0) {
    auto progress = Progress::make();
    transfers->download(HOST + name, progress, size, priority, answers.as(name));
    run();
    return progress;
  }
  std::shared_ptr<Progress> upload(const std::string& name, std::string file = FILE_TO_SEND) {
    auto progress = Progress::make();
    transfers->upload({.url = HOST + name, .method = "PUT"}, std::move(file), progress, answers.as(name));
    run();
    return progress;
  }
  void reply(const std::string& name, std::string body = "bytes", int status = 200) {
    ScriptedReply answer;
    answer.status = status;
    answer.body = std::move(body);
    task(name).reply(std::move(answer));
    run();
  }
  // Names of the tasks that are running, those that are started and suspended, and those that were never resumed.
  std::vector<std::string> names(bool (*wanted)(const ScriptedTask&)) {
    std::vector<std::string> found;
    for (const auto& each : machine.urlLoading.tasks())
      if (!each->isCompleted() && wanted(*each)) found.push_back(each->url().substr(std::string(HOST).size()));
    return found;
  }
  std::vector<std::string> moving() {
    return names([](const ScriptedTask& each) { return each.isStarted() && !each.isSuspended(); });
  }
  std::vector<std::string> standing() {
    return names([](const ScriptedTask& each) { return each.isStarted() && each.isSuspended(); });
  }
  std::vector<std::string> waiting() {
    return names([](const ScriptedTask& each) { return !each.isStarted(); });
  }
  std::vector<std::string> temporaryFiles() { return machine.files.list(SimulatedFiles::TEMPORARY_FOLDER); }
  // The log without the lines about limits.
  std::vector<std::string> logged() {
    auto lines = log.messages();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("bandwidth limits"); });
    return lines;
  }

  SimulatedPlatform machine;
  int edits = 0;
  CapturedLog log;
  Answers answers;
  Limits limits{machine.scheduler, machine.files, CONFIG};
  LargeUpload largeUpload{machine.scheduler, machine.scheduler, machine.files, limits,
                          "/home/user/.vondle/large_upload.json"};
  Stats stats{machine.scheduler, machine.scheduler, machine.files};
  std::unique_ptr<ThrottledTransfer> transfers =
      std::make_unique<ThrottledTransfer>(TransferServices{machine.scheduler, machine.scheduler, machine.urlLoading,
                                                           machine.files, machine.random, limits, largeUpload, stats});
};

// Results

TEST_F(ThrottledTransferTest, ADownloadEndsInATemporaryFileOfTheCallers) {
  const auto progress = download("a", 0, 3);
  EXPECT_EQ(progress->totalUnitCount(), 3);
  reply("a", "hello");
  ASSERT_TRUE(answers["a"]);
  EXPECT_EQ(machine.files.contents(*answers["a"]), "hello");
  EXPECT_TRUE(answers["a"]->starts_with("/tmp/"));
  EXPECT_EQ(progress->totalUnitCount(), 5);  // what the server announced
  EXPECT_EQ(progress->completedUnitCount(), 5);
  EXPECT_EQ(progress->kind(), ProgressKind::file);
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::downloading);
  EXPECT_TRUE(progress->isCancellable());
  EXPECT_TRUE(progress->isPausable());
}

TEST_F(ThrottledTransferTest, WithoutASizeTheProgressObjectKeepsItsTotal) {
  const auto progress = Progress::make(7);
  transfers->download(std::string(HOST) + "a", progress, 0, 0, answers.as("a"));
  run();
  EXPECT_EQ(progress->totalUnitCount(), 7);
  reply("a");
}

TEST_F(ThrottledTransferTest, TheSessionHasItsTimeouts) {
  download("a");
  EXPECT_EQ(task("a").configuration().timeoutForRequest, seconds(60));
  EXPECT_EQ(task("a").configuration().timeoutForResource, seconds(86'400));
  advance(59);
  EXPECT_FALSE(answers.has("a"));
  advance(1);
  EXPECT_TRUE(answers["a"].error().is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
}

TEST_F(ThrottledTransferTest, ADownloadOfAnotherLengthThanAnnouncedFailsAndLeavesNoFile) {
  for (const std::int64_t arrives : {999, 1001}) {
    const std::string name = "a" + std::to_string(arrives);
    download(name);
    task(name).respond(200, {}, 1000);
    task(name).data(std::string(static_cast<std::size_t>(arrives), 'x'));
    task(name).finish();
    run();
    EXPECT_EQ(answers[name].error(), asError(TransferError::noResponse()));
    EXPECT_THAT(temporaryFiles(), IsEmpty());
  }
  EXPECT_THAT(log.messages(LogLevel::standard), testing::IsSupersetOf({"incomplete download: 999 of 1000 bytes",
                                                                       "incomplete download: 1001 of 1000 bytes"}));
}

TEST_F(ThrottledTransferTest, WithoutAnAnnouncedLengthAnyLengthIsRight) {
  for (const std::size_t size : {0, 1, 100'000}) {
    const std::string name = "a" + std::to_string(size);
    const auto progress = download(name, 0, 77);
    task(name).respond(200);
    task(name).data(std::string(size, 'x'));
    task(name).finish();
    run();
    ASSERT_TRUE(answers[name]);
    EXPECT_EQ(machine.files.contents(*answers[name])->size(), size);
    EXPECT_EQ(progress->totalUnitCount(), 77);
  }
}

TEST_F(ThrottledTransferTest, EveryStatusOfTheTwoHundredsIsASuccessAndNoOther) {
  for (const int status : {200, 206, 299, 199, 300, 304, 404, 500}) {
    const std::string name = "s" + std::to_string(status);
    download(name);
    reply(name, "body", status);
    const bool isSuccess = status >= 200 && status <= 299;
    EXPECT_EQ(answers[name].has_value(), isSuccess) << status;
    if (isSuccess)
      static_cast<void>(machine.files.remove(*answers[name]));
    else
      EXPECT_EQ(answers[name].error(), asError(TransferError::http(status)));
    EXPECT_THAT(temporaryFiles(), IsEmpty()) << status;
  }
}

TEST_F(ThrottledTransferTest, TransportErrorsPassUnchangedAndTheFileGoes) {
  download("a");
  task("a").respond(200, {}, 10);
  task("a").data("half");
  task("a").fail(Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  run();
  EXPECT_EQ(answers["a"].error(), Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  EXPECT_THAT(temporaryFiles(), IsEmpty());
}

TEST_F(ThrottledTransferTest, AFullDiskEndsTheDownloadWithThatError) {
  machine.files.setFreeSpace(100);
  download("a");
  task("a").respond(200, {}, 1000);
  task("a").data(std::string(60, 'x'));
  task("a").data(std::string(60, 'x'));
  task("a").data(std::string(60, 'x'));
  run();
  EXPECT_TRUE(answers["a"].error().is(POSIX_ERROR_DOMAIN, ENOSPC));
  EXPECT_TRUE(task("a").isCancelled());
  EXPECT_THAT(temporaryFiles(), IsEmpty());
}

TEST_F(ThrottledTransferTest, ADownloadWhoseFileCannotBeMadeFails) {
  SimulatedRandom sameNames;
  for (const std::int64_t announced : {5, -1}) {
    const std::string name = "a" + std::to_string(announced);
    machine.files.fail(FileOperation::create, "/tmp/" + sameNames.uuid(), EACCES);
    download(name);
    task(name).respond(200, {}, announced);
    task(name).data("hello");
    task(name).finish();
    run();
    ASSERT_FALSE(answers[name]);
  }
  EXPECT_EQ(answers["a5"].error(), asError(TransferError::noResponse()));
  EXPECT_TRUE(answers["a5"].error().underlying->is(POSIX_ERROR_DOMAIN, EACCES));
  EXPECT_TRUE(answers["a-1"].error().is(POSIX_ERROR_DOMAIN, EACCES));
  EXPECT_THAT(logged(), ElementsAre("incomplete download: 0 of 5 bytes"));
}

TEST_F(ThrottledTransferTest, FetchedDataComesInMemory) {
  transfers->fetchData(std::string(HOST) + "thumb", answers.as("thumb"));
  transfers->fetchData(std::string(HOST) + "missing", answers.as("missing"));
  run();
  task("thumb").respond(200, {}, 1000);  // its length is not compared
  task("thumb").data("one ");
  task("thumb").data("two");
  task("thumb").finish();
  reply("missing", "no", 404);
  EXPECT_EQ(answers["thumb"], "one two");
  EXPECT_EQ(answers["missing"].error(), asError(TransferError::http(404)));
  EXPECT_THAT(temporaryFiles(), IsEmpty());
}

TEST_F(ThrottledTransferTest, AnEndlessAnswerInMemoryIsCutOff) {
  transfers->fetchData(std::string(HOST) + "endless", answers.as("endless"));
  run();
  task("endless").respond(200);
  for (int i = 0; i < 65; ++i) task("endless").data(std::string(1'048'576, 'x'));
  run();
  EXPECT_TRUE(answers["endless"].error().is(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM));
}

TEST_F(ThrottledTransferTest, AnUploadSendsTheFileAndBringsTheAnswer) {
  const auto progress = Progress::make();
  transfers->upload({.url = std::string(HOST) + "u", .method = "PUT", .headers = {{"Content-Type", "text/plain"}}},
                    FILE_TO_SEND, progress, answers.as("u"));
  run();
  EXPECT_EQ(progress->fileOperationKind(), FileOperationKind::uploading);
  EXPECT_EQ(progress->totalUnitCount(), 1000);
  EXPECT_EQ(task("u").sentBody(), std::string(1000, 'u'));
  EXPECT_EQ(task("u").originalRequest().method, "PUT");
  EXPECT_EQ(task("u").originalRequest().headers.at(0), (URLHeader{"Content-Type", "text/plain"}));
  task("u").sent(400);
  run();
  EXPECT_EQ(progress->completedUnitCount(), 400);
  reply("u", "stored");
  EXPECT_EQ(progress->completedUnitCount(), 1000);
  EXPECT_EQ(answers["u"], "stored");
}

TEST_F(ThrottledTransferTest, AnUploadCountsAgainstWhatItReallySends) {
  machine.files.put(FILE_TO_SEND, "u");
  const auto progress = upload("u");
  EXPECT_EQ(progress->totalUnitCount(), 1);
  progress->setTotalUnitCount(77);
  task("u").sent(1);
  run();
  EXPECT_EQ(progress->totalUnitCount(), 1);
  EXPECT_EQ(progress->completedUnitCount(), 1);
}

TEST_F(ThrottledTransferTest, EverySubmissionHeedsTheSettingsOfTheMoment) {
  const auto request = [](const char* name) { return URLRequest{.url = std::string(HOST) + name, .method = "PUT"}; };
  const std::pair<const char*, std::function<void()>> submissions[] = {
      {"download", [&] { download("download"); }},
      {"fetch", [&] { transfers->fetchData(std::string(HOST) + "fetch", answers.as("fetch")); }},
      {"upload", [&] { transfers->upload(request("upload"), FILE_TO_SEND, nullptr, answers.as("upload")); }},
      {"part", [&] { transfers->uploadPart(request("part"), FILE_TO_SEND, nullptr, answers.as("part")); }},
  };
  for (const auto& [name, submit] : submissions) {
    configure(R"({"transfers_paused": true})");
    submit();
    EXPECT_THAT(waiting(), ElementsAre(name));
    configure("{}");
    advance(2);
    EXPECT_THAT(moving(), ElementsAre(name));
    reply(name);
    advance(3);  // and nothing looks at the settings any more
  }
}

TEST_F(ThrottledTransferTest, ARefusedUploadLogsTheStartOfTheAnswer) {
  struct Case {
    const char* name;
    std::string body;
    std::string logged;
  };
  const Case CASES[] = {
      {"short", "too large", "too large"},
      {"long", std::string(500, 'x'), std::string(400, 'x')},
      {"empty", "", ""},
      {"binary", "\xff\xfe", ""},
      {"cut", std::string(399, 'x') + "é", ""},  // its first 400 bytes end within a character
  };
  for (const Case& c : CASES) {
    log.clear();
    upload(c.name);
    reply(c.name, c.body, 413);
    EXPECT_EQ(answers[c.name].error(), asError(TransferError::http(413)));
    EXPECT_EQ(answers[c.name].error().localizedDescription(), "HTTP 413");
    EXPECT_THAT(log.messages(LogLevel::error), ElementsAre("upload rejected with HTTP 413 by files.test: " + c.logged))
        << c.name;
  }
}

TEST_F(ThrottledTransferTest, ARefusedDownloadLogsNothing) {
  download("a");
  reply("a", "no", 403);
  EXPECT_THAT(log.messages(LogLevel::error), IsEmpty());
}

TEST_F(ThrottledTransferTest, APartBringsItsTag) {
  const auto part = [&](const std::string& name, std::vector<URLHeader> headers, int status = 200) {
    transfers->uploadPart({.url = HOST + name, .method = "PUT"}, FILE_TO_SEND, Progress::make(), answers.as(name));
    run();
    ScriptedReply answer;
    answer.status = status;
    answer.headers = std::move(headers);
    task(name).reply(std::move(answer));
    run();
  };
  part("tagged", {{"etag", "\"abc\""}});
  part("untagged", {});
  part("refused", {{"ETag", "x"}}, 500);
  EXPECT_EQ(answers["tagged"], "\"abc\"");
  EXPECT_EQ(answers["untagged"].error(), asError(TransferError::noResponse()));
  EXPECT_EQ(answers["refused"].error(), asError(TransferError::http(500)));
}

TEST_F(ThrottledTransferTest, AnUploadOfAMissingFileFailsWithTheSessionsError) {
  const auto progress = upload("u", "/home/user/gone");
  EXPECT_EQ(progress->totalUnitCount(), 0);
  EXPECT_TRUE(answers["u"].error().is(URL_ERROR_DOMAIN, URL_FILE_DOES_NOT_EXIST));
}

TEST_F(ThrottledTransferTest, SingleUploadsCountForTheLargeUploadModeAndPartsDoNot) {
  SimulatedFiles& files = machine.files;
  const std::string state = "/home/user/.vondle/large_upload.json";
  largeUpload.started(LargeUpload::threshold - 1000);
  transfers->uploadPart({.url = std::string(HOST) + "part", .method = "PUT"}, FILE_TO_SEND, nullptr,
                        answers.as("part"));
  run();
  EXPECT_FALSE(largeUpload.isActive());
  upload("u");
  EXPECT_TRUE(largeUpload.isActive());
  EXPECT_EQ(json::integer(json::parseObject(*files.contents(state)).value(), "files"), 2);
  advance(20);
  task("u").sent(10);
  run();  // a heartbeat
  EXPECT_EQ(json::number(json::parseObject(*files.contents(state)).value(), "last"),
            machine.scheduler.now().secondsSince1970);
}

TEST_F(ThrottledTransferTest, TheModeEndsWithAPollTwoQuietMinutesLater) {
  largeUpload.started(LargeUpload::threshold);
  download("d");
  task("d").respond(200);
  const auto keepAlive = [&](int count) {
    for (int i = 0; i < count; ++i) {
      advance(1);
      task("d").data("x");
    }
  };
  keepAlive(120);
  EXPECT_TRUE(largeUpload.isActive());
  keepAlive(1);
  EXPECT_FALSE(largeUpload.isActive());
  EXPECT_THAT(log.messages(LogLevel::standard), testing::Contains("large upload finished"));
}

TEST_F(ThrottledTransferTest, BytesOfBothDirectionsAreCounted) {
  const std::string path = SimulatedFiles::containerPath("group.com.ferrow.vondle") + "/stats.json";
  const auto rate = [&](const char* key) {
    return json::number(json::parseObject(machine.files.contents(path).value()).value(), key).value();
  };
  download("d");
  task("d").respond(200);
  task("d").data(std::string(3000, 'x'));
  run();
  EXPECT_DOUBLE_EQ(rate("down_bps"), 1000);
  upload("u");
  advance(5);
  task("u").sent(600);
  run();
  EXPECT_DOUBLE_EQ(rate("up_bps"), 200);
  advance(5);
  task("u").respond(200);
  task("u").data(std::string(9000, 'x'));  // the answer to an upload is not counted
  run();
  advance(1);
  task("d").data("xxx");
  run();
  EXPECT_DOUBLE_EQ(rate("down_bps"), 1);
}

TEST_F(ThrottledTransferTest, AnswersComeInTheOrderInWhichTransfersEnd) {
  for (const char* name : {"a", "b", "c"}) download(name);
  for (const char* name : {"c", "a", "b"}) reply(name);
  EXPECT_THAT(answers.order, ElementsAre("c", "a", "b"));
}

// Turns

TEST_F(ThrottledTransferTest, AViewersRequestGoesFirstAndTheRestYields) {
  for (const char* name : {"b1", "b2", "b3", "b4", "b5", "b6", "b7"}) download(name);
  EXPECT_THAT(moving(), ElementsAre("b1", "b2", "b3", "b4", "b5"));
  EXPECT_THAT(waiting(), ElementsAre("b6", "b7"));
  download("viewer", ThrottledTransfer::viewerPriority);
  EXPECT_THAT(moving(), ElementsAre("viewer"));
  EXPECT_THAT(standing(), ElementsAre("b1", "b2", "b3", "b4", "b5"));
  EXPECT_THAT(waiting(), ElementsAre("b6", "b7"));
  EXPECT_THAT(log.messages(LogLevel::info),
              ElementsAre("yield: suspended 5 background transfer(s) for a waiting user"));
  log.clear();
  reply("viewer");
  EXPECT_THAT(moving(), ElementsAre("b1", "b2", "b3", "b4", "b5"));
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("yield: resumed 5 background transfer(s) "));
}

TEST_F(ThrottledTransferTest, BackgroundWorkStaysSuspendedUntilTheLastViewerIsServed) {
  download("b");
  download("v1", 2);
  download("v2", 2);
  reply("v1");
  EXPECT_THAT(moving(), ElementsAre("v2"));
  reply("v2");
  EXPECT_THAT(moving(), ElementsAre("b"));
  EXPECT_EQ(log.messages(LogLevel::info).size(), 2u);
}

TEST_F(ThrottledTransferTest, BackgroundWorkThatStartsBesideAViewerYieldsAtOnce) {
  download("v", 2);
  download("b");
  EXPECT_THAT(moving(), ElementsAre("v"));
  EXPECT_THAT(standing(), ElementsAre("b"));
  EXPECT_THAT(log.messages(LogLevel::info),
              ElementsAre("yield: suspended 1 background transfer(s) for a waiting user"));
}

TEST_F(ThrottledTransferTest, WaitingJobsStartInOrderOfPriorityThenOfSubmission) {
  configure(R"({"max_concurrent_transfers": 1})");
  download("first");
  download("second");
  download("third");
  download("preferred", 1);
  EXPECT_THAT(moving(), ElementsAre("first"));
  reply("first");
  EXPECT_THAT(moving(), ElementsAre("preferred"));
  reply("preferred");
  EXPECT_THAT(moving(), ElementsAre("second"));
  reply("second");
  EXPECT_THAT(moving(), ElementsAre("third"));
}

TEST_F(ThrottledTransferTest, AWaitingViewerStartsBeforeOlderBackgroundWork) {
  configure(R"({"max_concurrent_transfers": 1})");
  download("v1", 2);
  download("old");
  download("v2", 2);
  EXPECT_THAT(moving(), ElementsAre("v1", "v2"));
  EXPECT_THAT(waiting(), ElementsAre("old"));
  reply("v1");
  EXPECT_THAT(waiting(), ElementsAre("old"));  // v2 still takes the only place
  reply("v2");
  EXPECT_THAT(moving(), ElementsAre("old"));
}

TEST_F(ThrottledTransferTest, AHigherLimitIsTakenUpByThePoll) {
  configure(R"({"max_concurrent_transfers": 1})");
  download("a");
  download("b");
  configure(R"({"max_concurrent_transfers": 2})");
  advance(2);
  EXPECT_THAT(moving(), ElementsAre("a", "b"));
}

TEST_F(ThrottledTransferTest, PollingLastsAsLongAsThereAreJobs) {
  EXPECT_EQ(machine.scheduler.timerCount(), 0u);
  download("a");
  reply("a");
  advance(1.5);
  const int looks = machine.files.attributesCount(CONFIG);
  machine.scheduler.advance(std::chrono::minutes(5));
  EXPECT_EQ(machine.files.attributesCount(CONFIG), looks);
  download("b");
  advance(3);
  EXPECT_GT(machine.files.attributesCount(CONFIG), looks + 1);
}

// Pausing

TEST_F(ThrottledTransferTest, TheUsersPauseStopsWhatRunsAndWhatComes) {
  for (const char* name : {"a", "b", "c"}) download(name);
  configure(R"({"transfers_paused": true})");
  advance(2);
  EXPECT_THAT(moving(), IsEmpty());
  EXPECT_THAT(standing(), ElementsAre("a", "b", "c"));
  EXPECT_THAT(logged(), ElementsAre("transfers paused (3 in flight)"));
  EXPECT_THAT(log.messages(LogLevel::standard), testing::Contains("transfers paused (3 in flight)"));
  download("d");
  EXPECT_THAT(moving(), IsEmpty());
  advance(5);
  EXPECT_THAT(logged(), ElementsAre("transfers paused (3 in flight)"));
  log.clear();
  configure("{}");
  advance(2);
  EXPECT_THAT(moving(), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(logged(), ElementsAre("transfers resumed (4 in flight)"));
}

TEST_F(ThrottledTransferTest, SubmittedWhilePausedAJobIsStartedButItsRequestStaysIn) {
  configure(R"({"transfers_paused": true, "max_concurrent_transfers": 1})");
  download("a");
  download("b");
  EXPECT_FALSE(task("a").isStarted());
  advance(2);
  EXPECT_THAT(logged(), ElementsAre("transfers paused (1 in flight)"));  // it counts, b waits
  configure(R"({"max_concurrent_transfers": 1})");
  advance(2);
  EXPECT_THAT(moving(), ElementsAre("a"));
  EXPECT_THAT(waiting(), ElementsAre("b"));
}

TEST_F(ThrottledTransferTest, SuspendedTimeIsNoIdleTime) {
  download("a");
  configure(R"({"transfers_paused": true})");
  machine.scheduler.advance(std::chrono::hours(2));
  EXPECT_FALSE(answers.has("a"));
  configure("{}");
  advance(2);
  reply("a");
  EXPECT_TRUE(answers["a"]);
}

TEST_F(ThrottledTransferTest, AProgressObjectPausesItsTransferUntilThePollSaysOtherwise) {
  const auto progress = download("a");
  download("b");
  progress->pause();
  EXPECT_THAT(standing(), ElementsAre("a"));
  progress->resume();
  EXPECT_THAT(moving(), ElementsAre("a", "b"));
  progress->pause();
  EXPECT_THAT(standing(), ElementsAre("a"));
  advance(1);  // the user's setting is the authority
  EXPECT_THAT(moving(), ElementsAre("a", "b"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ThrottledTransferTest, APausedProgressObjectHoldsItsDownloadBack) {
  const auto progress = Progress::make();
  progress->pause();
  transfers->download(std::string(HOST) + "a", progress, 0, 0, answers.as("a"));
  run();
  EXPECT_FALSE(task("a").isStarted());
  progress->resume();
  run();
  EXPECT_THAT(moving(), ElementsAre("a"));
}

TEST_F(ThrottledTransferTest, ResumingAWaitingTransferDoesNotStartItOutOfTurn) {
  configure(R"({"max_concurrent_transfers": 1})");
  download("a");
  const auto progress = download("b");
  progress->pause();
  progress->resume();
  EXPECT_FALSE(task("b").isStarted());
  progress->pause();
  reply("a");
  EXPECT_FALSE(task("b").isStarted());  // it has its turn, and is held back
  progress->resume();
  EXPECT_THAT(moving(), ElementsAre("b"));
}

TEST_F(ThrottledTransferTest, OneReasonToHoldATransferBackDoesNotLiftAnother) {
  const auto progress = download("b");
  download("v", 2);
  progress->pause();
  reply("v");
  EXPECT_THAT(standing(), ElementsAre("b"));  // no longer yields, still paused
  progress->resume();
  EXPECT_THAT(moving(), ElementsAre("b"));
}

// Cancelling

TEST_F(ThrottledTransferTest, ACancelledProgressObjectEndsTheTransferAtEveryStage) {
  configure(R"({"max_concurrent_transfers": 1})");
  const auto progress = Progress::make();
  progress->cancel();
  transfers->download(std::string(HOST) + "before", progress, 0, 0, answers.as("before"));
  run();
  const auto running = download("running");
  const auto queued = download("waiting");
  task("running").respond(200, {}, 10);
  task("running").data("half");
  run();
  queued->cancel();
  run();
  EXPECT_FALSE(task("waiting").isStarted());
  running->cancel();
  run();
  for (const char* name : {"before", "running", "waiting"}) {
    ASSERT_TRUE(answers.has(name)) << name;
    EXPECT_TRUE(answers[name].error().is(URL_ERROR_DOMAIN, URL_CANCELLED)) << name;
  }
  EXPECT_THAT(temporaryFiles(), IsEmpty());
}

TEST_F(ThrottledTransferTest, CancellingASuspendedTransferFreesItsPlace) {
  configure(R"({"max_concurrent_transfers": 1})");
  const auto progress = download("a");
  download("b");
  progress->pause();
  progress->cancel();
  run();
  EXPECT_TRUE(answers["a"].error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
  EXPECT_THAT(moving(), ElementsAre("b"));
}

TEST_F(ThrottledTransferTest, ProgressObjectsOfFinishedTransfersDoNothing) {
  const auto progress = download("a");
  reply("a");
  progress->pause();
  progress->resume();
  progress->cancel();
  run();
  EXPECT_TRUE(answers["a"]);
}

// Pacing

TEST_F(ThrottledTransferTest, AWaitOfTheBucketSuspendsThatTransferForAsLong) {
  configure(R"({"max_download_kbps": 1})");
  download("a");
  download("b");
  task("a").respond(200);
  task("a").data(std::string(1024 + 512, 'x'));  // half a second's worth of debt
  task("a").data("more");
  run();
  EXPECT_THAT(standing(), ElementsAre("a"));
  EXPECT_THAT(moving(), ElementsAre("b"));
  EXPECT_EQ(machine.files.contents("/tmp/" + temporaryFiles().at(0))->size(), 1536u);
  advance(0.499);
  EXPECT_THAT(standing(), ElementsAre("a"));
  advance(0.002);
  EXPECT_THAT(moving(), ElementsAre("a", "b"));
  EXPECT_EQ(machine.files.contents("/tmp/" + temporaryFiles().at(0))->size(), 1540u);
}

TEST_F(ThrottledTransferTest, AWaitOfLessThanATwentiethOfASecondIsIgnored) {
  configure(R"({"max_download_kbps": 1})");
  download("a");
  task("a").respond(200);
  task("a").data(std::string(1024 + 51, 'x'));
  run();
  EXPECT_THAT(moving(), ElementsAre("a"));
  task("a").data("x");  // 52 bytes of debt are more than 0.05 s
  run();
  EXPECT_THAT(standing(), ElementsAre("a"));
}

TEST_F(ThrottledTransferTest, AWaitOfExactlyATwentiethOfASecondIsNot) {
  configure(R"({"max_download_kbps": 20})");
  download("a");
  task("a").respond(200);
  task("a").data(std::string(20480 + 1024, 'x'));
  run();
  EXPECT_THAT(standing(), ElementsAre("a"));
}

TEST_F(ThrottledTransferTest, UploadsArePacedByWhatWentOutAndFetchesAsDownloads) {
  configure(R"({"max_upload_kbps": 0.25, "max_download_kbps": 1})");
  upload("u");
  task("u").sent(512);
  run();
  EXPECT_THAT(standing(), ElementsAre("u"));
  advance(1.01);
  EXPECT_THAT(moving(), ElementsAre("u"));
  task("u").respond(200);
  task("u").data(std::string(100'000, 'x'));  // the answer is not the upload
  run();
  EXPECT_THAT(moving(), ElementsAre("u"));
  transfers->fetchData(std::string(HOST) + "thumb", answers.as("thumb"));
  run();
  task("thumb").respond(200);
  task("thumb").data(std::string(2048, 'x'));
  run();
  EXPECT_THAT(standing(), ElementsAre("thumb"));
}

TEST_F(ThrottledTransferTest, APacedTransferThatIsAlsoPausedWaitsForBoth) {
  configure(R"({"max_download_kbps": 1})");
  const auto progress = download("a");
  task("a").respond(200);
  task("a").data(std::string(1024 + 512, 'x'));
  run();
  progress->pause();
  advance(0.6);
  EXPECT_THAT(standing(), ElementsAre("a"));
  progress->resume();
  EXPECT_THAT(moving(), ElementsAre("a"));
}

TEST_F(ThrottledTransferTest, ALimitIsKeptOverTimeByOneAndByMany) {
  for (const int count : {1, 5}) {
    configure(R"({"max_download_kbps": 100})");
    advance(2);
    std::vector<std::string> these;
    for (int i = 0; i < count; ++i) {
      these.push_back(std::to_string(count) + "-" + std::to_string(i));
      download(these.back());
      task(these.back()).respond(200);
      for (int chunk = 0; chunk < 700; ++chunk) task(these.back()).data(std::string(16'384, 'x'));
    }
    const auto received = [&] {
      std::int64_t bytes = 0;
      for (const std::string& name : temporaryFiles())
        bytes += static_cast<std::int64_t>(machine.files.contents("/tmp/" + name)->size());
      return bytes;
    };
    advance(2);  // the burst
    const std::int64_t before = received();
    advance(20);
    const double rate = static_cast<double>(received() - before) / 20;
    EXPECT_NEAR(rate, 102'400, 5'000) << count;
    for (const std::string& name : these) task(name).cancel();
    run();
  }
}

TEST_F(ThrottledTransferTest, AWakeUpAfterTheEndOfItsTransferDoesNothing) {
  configure(R"({"max_download_kbps": 1})");
  const auto progress = download("a");
  task("a").respond(200);
  task("a").data(std::string(3000, 'x'));
  run();
  progress->cancel();
  run();
  EXPECT_TRUE(answers.has("a"));
  advance(5);
  EXPECT_EQ(answers.order.size(), 1u);
  EXPECT_TRUE(task("a").isCompleted());
}

// The end

TEST_F(ThrottledTransferTest, ItsEndAnswersEverything) {
  configure(R"({"max_concurrent_transfers": 2, "max_download_kbps": 1})");
  download("running");
  download("paced");
  download("waiting");
  task("paced").respond(200);
  task("paced").data(std::string(3000, 'x'));
  run();
  machine.urlLoading.hold();
  task("running").respond(404);
  transfers.reset();
  for (const char* name : {"running", "paced", "waiting"}) {
    ASSERT_TRUE(answers.has(name)) << name;
    EXPECT_TRUE(answers[name].error().is(URL_ERROR_DOMAIN, URL_CANCELLED)) << name;
  }
  EXPECT_THAT(temporaryFiles(), IsEmpty());
  machine.scheduler.advance(std::chrono::hours(1));
}

TEST_F(ThrottledTransferTest, AnAnswerThatWaitsForItsQueueIsNotLostWithTheEnd) {
  download("a");
  task("a").respond(200);
  task("a").finish();
  while (!task("a").isCompleted()) machine.scheduler.runNext();
  EXPECT_FALSE(answers.has("a"));
  transfers.reset();
  EXPECT_TRUE(answers["a"]);
}

}  // namespace
}  // namespace vondle
