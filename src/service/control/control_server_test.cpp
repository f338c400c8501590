#include "service/control/control_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "service/control/control_client.h"
#include "service/control/control_protocol.h"

namespace vondle {
namespace {

// A server that knows three commands: "echo" answers the request, "hold" keeps the reply in `held`, "drop" lets it go
// unanswered.
class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() {
    char pattern[] = "/tmp/vondle-control-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    path_ = folder_ + "/control";
    start();
  }
  ~ControlServerTest() override {
    server_.reset();
    std::filesystem::remove_all(folder_);
  }

  void start() {
    auto server =
        ControlServer::listen(path_, [this](const json::Object& request, std::shared_ptr<ControlReply> reply) {
          const auto command = json::text(request, "command");
          if (command == "echo")
            reply->finish(request);
          else if (command == "hold")
            held_.set_value(std::move(reply));
        });
    ASSERT_TRUE(server) << server.error().localizedDescription();
    server_ = std::move(*server);
  }

  ControlClient client() {
    auto client = ControlClient::connect(path_);
    EXPECT_TRUE(client) << client.error().localizedDescription();
    return std::move(*client);
  }

  int rawClient() {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    EXPECT_EQ(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return descriptor;
  }

  static std::string readToEnd(int descriptor) {
    std::string all;
    char bytes[4096];
    for (ssize_t count = 0; (count = ::read(descriptor, bytes, sizeof bytes)) > 0;) {
      all.append(bytes, static_cast<std::size_t>(count));
    }
    return all;
  }

  static void send(int descriptor, const std::string& text) {
    for (std::size_t sent = 0; sent < text.size();) {
      const auto count = ::send(descriptor, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (count < 0) return;
      sent += static_cast<std::size_t>(count);
    }
  }

  std::shared_ptr<ControlReply> takeHeld() {
    auto reply = held_.get_future().get();
    held_ = {};
    return reply;
  }

  std::string folder_;
  std::string path_;
  std::promise<std::shared_ptr<ControlReply>> held_;
  std::unique_ptr<ControlServer> server_;
};

TEST_F(ControlServerTest, AnswersOneRequestAfterAnother) {
  auto connection = client();
  for (int i = 0; i < 3; ++i) {
    const auto answer = connection.request({{"command", "echo"}, {"number", i}});
    ASSERT_TRUE(answer) << answer.error().localizedDescription();
    EXPECT_EQ(json::integer(*answer, "number"), i);
  }
}

TEST_F(ControlServerTest, SocketIsTheUsersOwn) {
  struct stat status{};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(ControlServerTest, RubbishGetsAnErrorAndTheConnectionGoesOn) {
  const struct {
    std::string line;
  } cases[] = {{"rubbish"},
               {""},
               {"[]"},
               {"{}"},
               {R"({"command":7})"},
               {"\"echo\""},
               {std::string("\0\xff{", 3)},
               {std::string(2000, '[')}};
  for (const auto& each : cases) {
    const int descriptor = rawClient();
    send(descriptor, each.line + "\n" + R"({"command":"echo"})" + "\n");
    ::shutdown(descriptor, SHUT_WR);
    const auto answer = readToEnd(descriptor);
    const auto firstEnd = answer.find('\n');
    ASSERT_NE(firstEnd, std::string::npos) << each.line;
    const auto first = json::parseObject(answer.substr(0, firstEnd));
    ASSERT_TRUE(first) << answer;
    EXPECT_EQ(json::text(*first, "code"), control::CODE_MALFORMED) << each.line;
    EXPECT_TRUE(json::text(*first, "error")) << each.line;
    EXPECT_EQ(answer.substr(firstEnd + 1), "{\"result\":{\"command\":\"echo\"}}\n") << each.line;
    ::close(descriptor);
  }
}

TEST_F(ControlServerTest, ALineWithoutEndEndsTheConnection) {
  const int descriptor = rawClient();
  send(descriptor, std::string(control::MAX_LINE + 100'000, 'x'));
  EXPECT_EQ(readToEnd(descriptor), "");
  ::close(descriptor);
  EXPECT_TRUE(client().request({{"command", "echo"}}));
}

TEST_F(ControlServerTest, AnUnansweredRequestFails) {
  auto connection = client();
  const auto answer = connection.request({{"command", "drop"}});
  ASSERT_FALSE(answer);
  EXPECT_EQ(connection.lastCode(), control::CODE_FAILED);
}

TEST_F(ControlServerTest, ProgressComesBeforeTheLastLineAndNothingAfterIt) {
  std::vector<std::int64_t> seen;
  std::promise<Result<json::Object>> answer;
  std::thread waiter([&] {
    auto connection = client();
    answer.set_value(connection.request({{"command", "hold"}}, std::nullopt, [&](const json::Object& progress) {
      seen.push_back(json::integer(progress, "done").value_or(-1));
    }));
  });
  auto reply = takeHeld();
  reply->progress({{"done", 1}});
  reply->progress({{"done", 2}});
  reply->fail(control::CODE_NO_SUCH_ITEM, "gone");
  reply->finish({{"late", true}});
  waiter.join();
  const auto result = answer.get_future().get();
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().description, "gone");
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2}));
}

TEST_F(ControlServerTest, AStalledClientHoldsUpNobody) {
  const int stalled = rawClient();
  send(stalled, R"({"command":"hold"})"
                "\n");
  auto reply = takeHeld();
  const json::Object large{{"text", std::string(60'000, 'x')}};
  for (int i = 0; i < 1000; ++i) reply->progress(large);  // far more than anybody buffers; nobody reads
  EXPECT_TRUE(client().request({{"command", "echo"}}));
  reply->finish({});
  EXPECT_TRUE(client().request({{"command", "echo"}}));
  // Once it reads, it gets some progress and the whole last line.
  ::shutdown(stalled, SHUT_WR);
  const auto all = readToEnd(stalled);
  EXPECT_LT(all.size(), 2'000'000u);
  EXPECT_TRUE(all.ends_with("\n{\"result\":{}}\n"));
  ::close(stalled);
}

TEST_F(ControlServerTest, AClientThatGoesAwayAbandonsItsRequest) {
  const int descriptor = rawClient();
  send(descriptor, R"({"command":"hold"})"
                   "\n");
  auto reply = takeHeld();
  std::promise<void> abandoned;
  reply->whenAbandoned([&] { abandoned.set_value(); });
  ::close(descriptor);
  abandoned.get_future().wait();
  reply->finish({});  // harmless
  bool atOnce = false;
  reply->whenAbandoned([&] { atOnce = true; });
  EXPECT_TRUE(atOnce);
}

TEST_F(ControlServerTest, StoppingAbandonsOpenRequests) {
  const int descriptor = rawClient();
  send(descriptor, R"({"command":"hold"})"
                   "\n");
  auto reply = takeHeld();
  std::atomic<bool> abandoned = false;
  reply->whenAbandoned([&] { abandoned = true; });
  server_.reset();
  EXPECT_TRUE(abandoned);
  EXPECT_EQ(readToEnd(descriptor), "");
  reply->finish({});
  ::close(descriptor);
}

TEST_F(ControlServerTest, WhatWasAnsweredBeforeStoppingIsStillSent) {
  for (int i = 0; i < 100; ++i) {
    const int descriptor = rawClient();
    send(descriptor, R"({"command":"hold"})"
                     "\n");
    auto reply = takeHeld();
    reply->finish({{"round", i}});
    server_.reset();
    EXPECT_EQ(readToEnd(descriptor), "{\"result\":{\"round\":" + std::to_string(i) + "}}\n");
    ::close(descriptor);
    start();
  }
}

TEST_F(ControlServerTest, IdleClientsMakeRoomForNewOnes) {
  std::vector<int> idle;
  for (std::size_t i = 0; i < control::MAX_CLIENTS * 2; ++i) idle.push_back(rawClient());
  EXPECT_TRUE(client().request({{"command", "echo"}}));
  for (const int descriptor : idle) ::close(descriptor);
}

TEST_F(ControlServerTest, TooManyBusyClientsAreRefusedWithAReason) {
  std::vector<int> busy;
  std::vector<std::shared_ptr<ControlReply>> replies;
  for (std::size_t i = 0; i < control::MAX_CLIENTS; ++i) {
    busy.push_back(rawClient());
    send(busy.back(), R"({"command":"hold"})"
                      "\n");
    replies.push_back(takeHeld());
  }
  const int refused = rawClient();
  EXPECT_NE(readToEnd(refused).find("\"code\":\"busy\""), std::string::npos);
  ::close(refused);
  replies.clear();
  ::shutdown(busy.front(), SHUT_WR);
  EXPECT_NE(readToEnd(busy.front()), "");
  for (const int descriptor : busy) ::close(descriptor);
}

TEST_F(ControlServerTest, ASocketLeftBehindIsReplaced) {
  server_.reset();
  EXPECT_FALSE(std::filesystem::exists(path_));
  const int left = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  ASSERT_EQ(::bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(left);
  ASSERT_FALSE(ControlClient::connect(path_));
  start();
  EXPECT_TRUE(client().request({{"command", "echo"}}));
}

TEST_F(ControlServerTest, APathThatDoesNotFitIsAnError) {
  EXPECT_FALSE(ControlServer::listen("/tmp/" + std::string(200, 'x'), {}));
  EXPECT_FALSE(ControlServer::listen("/nowhere/control", {}));
}

TEST(ControlClientTest, SaysWhenNoServiceIsThere) {
  const auto client = ControlClient::connect("/tmp/vondle-no-such-socket");
  ASSERT_FALSE(client);
  EXPECT_TRUE(client.error().is(POSIX_ERROR_DOMAIN, ENOENT));
}

}  // namespace
}  // namespace vondle
