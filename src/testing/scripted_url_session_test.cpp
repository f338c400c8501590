#include "testing/scripted_url_session.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/recording_delegate.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

struct ScriptedURLSessionTest : testing::Test {
  ScriptedTask& start(const std::string& url = "https://a.test/x") {
    session->dataTask({.url = url, .method = "POST", .body = "0123456789"})->resume();
    return *loading.tasks().back();
  }
  RecordingDelegate::Record of(const ScriptedTask& task) {
    scheduler.runUntilIdle();
    return delegate.of(task);
  }

  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  ScriptedURLLoading loading{scheduler, files};
  RecordingDelegate delegate;
  std::unique_ptr<URLSession> session = loading.makeSession({}, delegate);
};

TEST_F(ScriptedURLSessionTest, TheTestPlaysTheServerStepByStep) {
  ScriptedTask& task = start();
  task.sent(4);
  EXPECT_EQ(of(task).totalSent, 4);
  task.sent(6);
  task.respond(201, {{"X", "y"}}, 3);
  EXPECT_EQ(of(task).response->status, 201);
  EXPECT_EQ(of(task).response->expectedContentLength, 3);
  task.data("abc");
  EXPECT_FALSE(of(task).completed);
  task.finish();
  EXPECT_TRUE(of(task).completed);
  EXPECT_EQ(of(task).body, "abc");
  EXPECT_EQ(of(task).sent, 10);
}

TEST_F(ScriptedURLSessionTest, NothingIsToldBeforeTheQueueRuns) {
  ScriptedTask& task = start();
  task.respond(200);
  task.finish();
  EXPECT_FALSE(delegate.of(task).response);
  EXPECT_TRUE(of(task).completed);
}

TEST_F(ScriptedURLSessionTest, WhatNoServerCouldDoIsAMistakeInTheTest) {
  session->dataTask({.url = "https://a.test/not-resumed"});
  ScriptedTask& fresh = loading.task("not-resumed");
  EXPECT_THROW(fresh.respond(200), std::logic_error);
  EXPECT_THROW(fresh.sent(1), std::logic_error);
  EXPECT_THROW(fresh.fail({URL_ERROR_DOMAIN, -1}), std::logic_error);
  ScriptedTask& task = start();
  EXPECT_THROW(task.data("x"), std::logic_error);
  EXPECT_THROW(task.finish(), std::logic_error);
  EXPECT_THROW(task.sent(11), std::logic_error);
  task.respond(200);
  EXPECT_THROW(task.respond(200), std::logic_error);
  task.finish();
  EXPECT_THROW(task.finish(), std::logic_error);
  EXPECT_THROW(task.data("x"), std::logic_error);
  EXPECT_THROW(loading.task("unknown"), std::logic_error);
}

TEST_F(ScriptedURLSessionTest, ALateServerIsIgnored) {
  ScriptedTask& task = start();
  task.cancel();
  task.respond(200);
  task.data("late");
  task.finish();
  EXPECT_TRUE(of(task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
  EXPECT_FALSE(of(task).response);
}

TEST_F(ScriptedURLSessionTest, ASuspendedTaskIsToldNothingAndThenEverythingInOrder) {
  ScriptedTask& task = start();
  delegate.onResponse = [](URLSessionTask& each, const URLResponse&) {
    each.suspend();
    return ResponseDisposition::allow;
  };
  task.respond(200);
  task.data("one ");
  task.data("two");
  task.finish();
  EXPECT_EQ(of(task).body, "");
  EXPECT_TRUE(task.isSuspended());
  task.resume();
  EXPECT_EQ(of(task).body, "one two");
  EXPECT_TRUE(of(task).completed);
}

TEST_F(ScriptedURLSessionTest, IdleTimeCountsFromTheLastByteAndNotWhileSuspended) {
  session = loading.makeSession({.timeoutForRequest = seconds(60)}, delegate);
  ScriptedTask& task = start();
  scheduler.advance(seconds(59));
  task.respond(200);
  scheduler.advance(seconds(59));
  EXPECT_FALSE(of(task).completed);
  task.suspend();
  scheduler.advance(std::chrono::hours(10));
  task.resume();
  scheduler.advance(seconds(59.9));
  EXPECT_FALSE(of(task).completed);
  scheduler.advance(seconds(0.1));
  EXPECT_TRUE(of(task).error->is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
}

TEST_F(ScriptedURLSessionTest, ARequestsOwnTimeoutAndTheResourceLimitCount) {
  session = loading.makeSession({.timeoutForRequest = seconds(60), .timeoutForResource = seconds(300)}, delegate);
  const auto quick = session->dataTask({.url = "https://a.test/quick", .timeout = seconds(5)});
  quick->resume();
  ScriptedTask& slow = start("https://a.test/slow");
  scheduler.advance(seconds(5));
  EXPECT_TRUE(delegate.of(*quick).error->is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
  slow.suspend();
  scheduler.advance(seconds(294));
  EXPECT_FALSE(of(slow).completed);
  scheduler.advance(seconds(1));
  EXPECT_TRUE(of(slow).error->is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
}

TEST_F(ScriptedURLSessionTest, TheLatestHandlerThatHasAnAnswerGivesIt) {
  loading.onRequest([](const URLRequest&) { return ScriptedReply{.status = 500}; });
  loading.onRequest("https://a.test/", [](const URLRequest& request) -> std::optional<ScriptedReply> {
    if (request.url.ends_with("/own")) return std::nullopt;
    return ScriptedReply{.status = 200, .body = request.method + *request.body};
  });
  EXPECT_EQ(of(start("https://a.test/x")).body, "POST0123456789");
  EXPECT_EQ(of(start("https://a.test/own")).response->status, 500);
  EXPECT_EQ(of(start("https://b.test/x")).response->status, 500);
}

TEST_F(ScriptedURLSessionTest, RepliesHaveDelaysLengthsAndErrors) {
  loading.onRequest([](const URLRequest& request) {
    ScriptedReply reply{.status = 200, .body = "half"};
    if (request.url.ends_with("delayed")) reply.delay = seconds(3);
    if (request.url.ends_with("lying")) reply.announcedLength = 8;
    if (request.url.ends_with("broken")) reply.error = Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST);
    if (request.url.ends_with("dead")) {
      reply.status = 0;
      reply.error = Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST);
    }
    return reply;
  });
  ScriptedTask& delayed = start("https://a.test/delayed");
  EXPECT_FALSE(of(delayed).response);
  scheduler.advance(seconds(3));
  EXPECT_EQ(of(delayed).body, "half");
  EXPECT_EQ(of(start("https://a.test/lying")).response->expectedContentLength, 8);
  ScriptedTask& broken = start("https://a.test/broken");
  EXPECT_EQ(of(broken).body, "half");
  EXPECT_TRUE(of(broken).error->is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
  ScriptedTask& dead = start("https://a.test/dead");
  EXPECT_TRUE(of(dead).error->is(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST));
  EXPECT_FALSE(of(dead).response);
}

TEST_F(ScriptedURLSessionTest, HeldAnswersWaitForTheirReleaseButCancellationDoesNot) {
  loading.onRequest([](const URLRequest&) { return ScriptedReply{.body = "x"}; });
  loading.hold();
  ScriptedTask& one = start("https://a.test/1");
  ScriptedTask& two = start("https://a.test/2");
  EXPECT_FALSE(of(one).response);
  two.cancel();
  EXPECT_TRUE(of(two).completed);
  EXPECT_EQ(loading.running().size(), 1u);
  loading.release();
  EXPECT_EQ(of(one).body, "x");
  EXPECT_TRUE(loading.running().empty());
}

TEST_F(ScriptedURLSessionTest, AHandlerSeesTheBytesOfTheFile) {
  files.put("/tmp/file", "contents");
  loading.onRequest([](const URLRequest& request) { return ScriptedReply{.body = "got " + *request.body}; });
  const auto task = session->uploadTask({.url = "https://a.test/", .method = "PUT"}, "/tmp/file");
  task->resume();
  scheduler.runUntilIdle();
  EXPECT_EQ(delegate.of(*task).body, "got contents");
  EXPECT_EQ(loading.tasks().at(0)->sentBody(), "contents");
  EXPECT_EQ(loading.tasks().at(0)->uploadPath(), "/tmp/file");
}

}  // namespace
}  // namespace vondle
