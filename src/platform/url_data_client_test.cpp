#include "platform/url_data_client.h"

#include <gtest/gtest.h>

#include "testing/captured.h"
#include "testing/scripted_url_session.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

constexpr std::int64_t MAX_BODY = 1000;

struct URLDataClientTest : testing::Test {
  ScriptedTask& send(Captured<Result<URLReply>>& reply) {
    client->send({.url = "https://a.test/"}, reply.completion());
    scheduler.runUntilIdle();
    return *loading.tasks().back();
  }

  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  ScriptedURLLoading loading{scheduler, files};
  std::unique_ptr<URLDataClient> client = std::make_unique<URLDataClient>(
      loading, URLSessionConfiguration{.timeoutForRequest = seconds(30), .timeoutForResource = seconds(300)}, MAX_BODY);
  Captured<Result<URLReply>> answer;
};

TEST_F(URLDataClientTest, CompletesWithTheWholeReplyWhateverItsStatus) {
  for (const int status : {200, 204, 404, 503}) {
    Captured<Result<URLReply>> reply;
    ScriptedTask& task = send(reply);
    task.respond(status, {{"X", "y"}});
    task.data("one ");
    task.data("two");
    scheduler.runUntilIdle();
    EXPECT_FALSE(reply.hasValue());
    task.finish();
    scheduler.runUntilIdle();
    ASSERT_TRUE(reply.value());
    EXPECT_EQ(reply.value()->response.status, status);
    EXPECT_EQ(reply.value()->response.header("x"), "y");
    EXPECT_EQ(reply.value()->body, "one two");
  }
}

TEST_F(URLDataClientTest, PassesItsConfigurationOnAndErrorsUnchanged) {
  ScriptedTask& task = send(answer);
  EXPECT_EQ(task.configuration().timeoutForRequest, seconds(30));
  EXPECT_EQ(task.configuration().timeoutForResource, seconds(300));
  task.respond(200);
  task.data("half");
  task.fail(Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value().error(), Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
  EXPECT_EQ(statusOfTooLongReply(answer.value().error()), std::nullopt);
}

TEST_F(URLDataClientTest, ABodyAsLongAsAllowedIsAReply) {
  ScriptedTask& task = send(answer);
  task.respond(200, {}, MAX_BODY);
  task.data(std::string(MAX_BODY, 'x'));
  task.finish();
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.value());
  EXPECT_EQ(answer.value()->body.size(), static_cast<std::size_t>(MAX_BODY));
}

TEST_F(URLDataClientTest, ALongerAnnouncedBodyIsGivenUpAtOnce) {
  ScriptedTask& task = send(answer);
  task.respond(502, {}, MAX_BODY + 1);
  scheduler.runUntilIdle();
  EXPECT_TRUE(task.isCancelled());
  EXPECT_TRUE(answer.value().error().is(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM));
  EXPECT_EQ(statusOfTooLongReply(answer.value().error()), 502);
}

TEST_F(URLDataClientTest, AnEndlessBodyIsGivenUpAtTheBound) {
  ScriptedTask& task = send(answer);
  task.respond(200);
  for (int i = 0; i < 10; ++i) task.data(std::string(100, 'x'));
  scheduler.runUntilIdle();
  EXPECT_FALSE(answer.hasValue());
  task.data("x");
  task.data(std::string(100, 'x'));
  scheduler.runUntilIdle();
  EXPECT_TRUE(task.isCancelled());
  EXPECT_TRUE(answer.value().error().is(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM));
  EXPECT_EQ(statusOfTooLongReply(answer.value().error()), 200);
}

TEST_F(URLDataClientTest, ExchangesRunSideBySide) {
  Captured<Result<URLReply>> other;
  ScriptedTask& first = send(answer);
  ScriptedTask& second = send(other);
  second.reply({.status = 200, .body = "second"});
  first.reply({.status = 200, .body = "first"});
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value()->body, "first");
  EXPECT_EQ(other.value()->body, "second");
}

TEST_F(URLDataClientTest, ItsEndAnswersWhatIsLeft) {
  send(answer);
  client.reset();
  EXPECT_TRUE(answer.value().error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
}

}  // namespace
}  // namespace vondle
