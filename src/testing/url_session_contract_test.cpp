#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/curl_url_session.h"
#include "testing/http_test_server.h"
#include "testing/recording_delegate.h"
#include "testing/scripted_url_session.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

// What the server of these tests answers; none: it stays silent.
std::optional<ScriptedReply> answerFor(const std::string& method, const std::string& path, const std::string& body) {
  if (path == "/hello") return ScriptedReply{.status = 200, .body = "hello", .headers = {{"X-Answer", "42"}}};
  if (path == "/empty") return ScriptedReply{.status = 204};
  if (path == "/missing") return ScriptedReply{.status = 404, .body = "not here"};
  if (path == "/large") return ScriptedReply{.status = 200, .body = std::string(1'000'000, 'x')};
  if (path == "/echo") return ScriptedReply{.status = 200, .body = method + " " + body};
  return std::nullopt;
}

class ScriptedRig {
 public:
  ScriptedRig() {
    loading_.onRequest("http://server", [this](const URLRequest& request) {
      ++requestCount_;
      return answerFor(request.method, request.url.substr(13), request.body.value_or(""));
    });
  }

  URLLoading& loading() { return loading_; }
  std::string url(const std::string& path) const { return "http://server" + path; }
  std::string file(const std::string& bytes) {
    files_.put("/tmp/file", bytes);
    return "/tmp/file";
  }
  bool waitUntil(RecordingDelegate&, const std::function<bool()>& condition) { return scheduler_.runUntil(condition); }
  // Everything that the session wants to do by itself has happened.
  void settle(URLSession&, RecordingDelegate&) { scheduler_.runUntilIdle(); }
  int requestCount() const { return requestCount_; }

 private:
  VirtualScheduler scheduler_;
  SimulatedFiles files_{scheduler_};
  ScriptedURLLoading loading_{scheduler_, files_};
  int requestCount_ = 0;
};

class CurlRig {
 public:
  CurlRig() {
    server_.handle("/", [](HttpTestExchange& exchange) {
      const std::string body = exchange.readBody();
      const auto reply = answerFor(exchange.method, exchange.target, body);
      if (!reply) return exchange.waitForRelease();
      if (reply->status == 204)
        exchange.start(204, {});
      else
        exchange.reply(reply->status, reply->body, reply->headers);
    });
  }
  ~CurlRig() { std::filesystem::remove(path_); }

  URLLoading& loading() { return loading_; }
  std::string url(const std::string& path) const { return server_.url(path); }
  std::string file(const std::string& bytes) {
    std::ofstream(path_) << bytes;
    return path_;
  }
  bool waitUntil(RecordingDelegate& delegate, const std::function<bool()>& condition) {
    return delegate.waitUntil(condition);
  }
  // Another task's whole life on the session's thread has seen everything before it out.
  void settle(URLSession& session, RecordingDelegate& delegate) {
    const auto task = session.dataTask({.url = url("/large")});
    task->resume();
    ASSERT_TRUE(delegate.waitForCompletion(*task));
    ++ownRequests_;
  }
  int requestCount() const { return static_cast<int>(server_.requests().size()) - ownRequests_; }

 private:
  const std::string path_ =
      std::filesystem::temp_directory_path() / ("url-session-contract-" + std::to_string(getpid()));
  HttpTestServer server_;
  CurlURLLoading loading_;
  int ownRequests_ = 0;
};

template <class Rig>
class URLSessionContract : public testing::Test {
 protected:
  std::shared_ptr<URLSessionTask> get(const std::string& path) { return session->dataTask({.url = rig.url(path)}); }
  bool complete(const URLSessionTask& task) {
    return rig.waitUntil(delegate, [&] { return delegate.of(task).completed; });
  }
  void TearDown() override {
    session.reset();
    for (URLTaskID task = 1; task < 20; ++task) EXPECT_EQ(delegate.of(task).mistakes, std::vector<std::string>());
  }

  Rig rig;
  RecordingDelegate delegate;
  std::unique_ptr<URLSession> session = rig.loading().makeSession({.timeoutForRequest = seconds(20)}, delegate);
};

using Rigs = testing::Types<ScriptedRig, CurlRig>;
TYPED_TEST_SUITE(URLSessionContract, Rigs);

TYPED_TEST(URLSessionContract, DeliversResponseBodyAndEnd) {
  const auto task = this->get("/hello");
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  const auto record = this->delegate.of(*task);
  ASSERT_TRUE(record.response);
  EXPECT_EQ(record.response->status, 200);
  EXPECT_EQ(record.response->url, this->rig.url("/hello"));
  EXPECT_EQ(record.response->header("x-answer"), "42");
  EXPECT_EQ(record.response->expectedContentLength, 5);
  EXPECT_EQ(record.body, "hello");
  EXPECT_EQ(record.error, std::nullopt);
}

TYPED_TEST(URLSessionContract, NothingGoesOutBeforeTheFirstResume) {
  const auto task = this->get("/hello");
  this->rig.settle(*this->session, this->delegate);
  EXPECT_EQ(this->rig.requestCount(), 0);
  task->suspend();
  this->rig.settle(*this->session, this->delegate);
  EXPECT_EQ(this->rig.requestCount(), 0);
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_EQ(this->rig.requestCount(), 1);
}

TYPED_TEST(URLSessionContract, AnyStatusIsAnAnswerWithItsBody) {
  const auto missing = this->get("/missing");
  const auto empty = this->get("/empty");
  missing->resume();
  empty->resume();
  ASSERT_TRUE(this->complete(*missing));
  ASSERT_TRUE(this->complete(*empty));
  EXPECT_EQ(this->delegate.of(*missing).response->status, 404);
  EXPECT_EQ(this->delegate.of(*missing).body, "not here");
  EXPECT_EQ(this->delegate.of(*missing).error, std::nullopt);
  EXPECT_EQ(this->delegate.of(*empty).response->status, 204);
  EXPECT_EQ(this->delegate.of(*empty).error, std::nullopt);
}

TYPED_TEST(URLSessionContract, IdentifiersCountFromOneAndTheRequestIsKept) {
  const auto first = this->session->dataTask({.url = this->rig.url("/hello"), .method = "HEAD"});
  const auto second = this->get("/empty");
  EXPECT_EQ(first->identifier(), 1);
  EXPECT_EQ(second->identifier(), 2);
  EXPECT_EQ(first->originalRequest().method, "HEAD");
}

TYPED_TEST(URLSessionContract, SendsABodyFromMemoryAndCountsIt) {
  const auto task = this->session->dataTask({.url = this->rig.url("/echo"), .method = "POST", .body = "some bytes"});
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_EQ(this->delegate.of(*task).body, "POST some bytes");
  EXPECT_EQ(this->delegate.of(*task).sent, 10);
  EXPECT_EQ(this->delegate.of(*task).totalToSend, 10);
}

TYPED_TEST(URLSessionContract, SendsAFileAndCountsIt) {
  const std::string bytes(300'000, 'f');
  const auto task = this->session->uploadTask({.url = this->rig.url("/echo"), .method = "PUT"}, this->rig.file(bytes));
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).body == "PUT " + bytes);
  EXPECT_EQ(this->delegate.of(*task).sent, 300'000);
  EXPECT_EQ(this->delegate.of(*task).totalSent, 300'000);
  EXPECT_EQ(this->delegate.of(*task).totalToSend, 300'000);
}

TYPED_TEST(URLSessionContract, AnUploadOfAFileThatIsNotThereFails) {
  const auto task = this->session->uploadTask({.url = this->rig.url("/echo"), .method = "PUT"}, "/no/such/file");
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  const auto error = this->delegate.of(*task).error;
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(URL_ERROR_DOMAIN, URL_FILE_DOES_NOT_EXIST));
  ASSERT_TRUE(error->underlying);
  EXPECT_TRUE(error->underlying->is(POSIX_ERROR_DOMAIN, ENOENT));
  EXPECT_EQ(this->rig.requestCount(), 0);
}

TYPED_TEST(URLSessionContract, OnlyHttpAndHttpsAreSpoken) {
  for (const char* url : {"file:///etc/passwd", "ftp://127.0.0.1/x", "gopher://127.0.0.1/", "data:text/plain,x",
                          "unix:///run/user/1/bus", "http+unix://%2Frun%2Fsocket/x", "localhost:80/x"}) {
    const auto task = this->session->dataTask({.url = url});
    task->resume();
    ASSERT_TRUE(this->complete(*task));
    EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_UNSUPPORTED_URL)) << url;
  }
}

TYPED_TEST(URLSessionContract, AnAddressWithAUserIsRefused) {
  const std::string plain = this->rig.url("/hello");
  const auto host = plain.find("//") + 2;
  for (const char* user : {"user@", "user:secret@", ":secret@", "@"}) {
    const auto task = this->session->dataTask({.url = std::string(plain).insert(host, user)});
    task->resume();
    ASSERT_TRUE(this->complete(*task));
    EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_BAD_URL)) << user;
  }
  EXPECT_EQ(this->rig.requestCount(), 0);
}

TYPED_TEST(URLSessionContract, CancelledBeforeTheFirstResumeItEndsWithoutARequest) {
  const auto task = this->get("/hello");
  task->cancel();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
  task->resume();
  this->rig.settle(*this->session, this->delegate);
  EXPECT_EQ(this->rig.requestCount(), 0);
}

TYPED_TEST(URLSessionContract, CancelledWhileItWaitsForAnAnswer) {
  const auto task = this->get("/silent");
  task->resume();
  this->rig.settle(*this->session, this->delegate);
  task->cancel();
  task->cancel();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
}

TYPED_TEST(URLSessionContract, CancelledWhileSuspended) {
  this->delegate.onData = [](URLSessionTask& task, std::int64_t) {
    if (task.identifier() == 1) task.suspend();
  };
  const auto task = this->get("/large");
  task->resume();
  ASSERT_TRUE(this->rig.waitUntil(this->delegate, [&] { return this->delegate.of(*task).dataCalls > 0; }));
  task->cancel();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
  EXPECT_EQ(this->delegate.of(*task).dataCalls, 1);
}

TYPED_TEST(URLSessionContract, ARefusedResponseEndsTheTaskWithoutItsBody) {
  this->delegate.onResponse = [](URLSessionTask&, const URLResponse&) { return ResponseDisposition::cancel; };
  const auto task = this->get("/large");
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
  EXPECT_EQ(this->delegate.of(*task).body, "");
}

TYPED_TEST(URLSessionContract, CancelledFromWithinItsDataNothingMoreArrives) {
  this->delegate.onData = [](URLSessionTask& task, std::int64_t) { task.cancel(); };
  const auto task = this->get("/large");
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
  EXPECT_EQ(this->delegate.of(*task).dataCalls, 1);
}

TYPED_TEST(URLSessionContract, SuspendedInItsResponseItGetsNoDataUntilItIsResumed) {
  this->delegate.onResponse = [](URLSessionTask& task, const URLResponse&) {
    if (task.identifier() == 1) task.suspend();
    return ResponseDisposition::allow;
  };
  const auto task = this->get("/large");
  task->resume();
  ASSERT_TRUE(this->rig.waitUntil(this->delegate, [&] { return this->delegate.of(*task).response.has_value(); }));
  this->rig.settle(*this->session, this->delegate);
  EXPECT_EQ(this->delegate.of(*task).body.size(), 0u);
  EXPECT_FALSE(this->delegate.of(*task).completed);
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_EQ(this->delegate.of(*task).body.size(), 1'000'000u);
}

TYPED_TEST(URLSessionContract, SuspendedInItsOnlyDataItDoesNotEndUntilItIsResumed) {
  this->delegate.onData = [](URLSessionTask& task, std::int64_t) {
    if (task.identifier() == 1) task.suspend();
  };
  const auto task = this->get("/hello");
  task->resume();
  ASSERT_TRUE(this->rig.waitUntil(this->delegate, [&] { return this->delegate.of(*task).dataCalls == 1; }));
  this->rig.settle(*this->session, this->delegate);
  EXPECT_FALSE(this->delegate.of(*task).completed);
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_EQ(this->delegate.of(*task).error, std::nullopt);
}

TYPED_TEST(URLSessionContract, ATaskMayResumeItselfAndOthersFromWithinACall) {
  const auto second = this->get("/empty");
  this->delegate.onData = [&](URLSessionTask& task, std::int64_t) {
    task.suspend();
    task.resume();
    second->resume();
  };
  const auto first = this->get("/hello");
  first->resume();
  ASSERT_TRUE(this->complete(*first));
  ASSERT_TRUE(this->complete(*second));
  EXPECT_EQ(this->delegate.of(*first).body, "hello");
}

TYPED_TEST(URLSessionContract, ASilentServerTimesOut) {
  const auto task = this->session->dataTask({.url = this->rig.url("/silent"), .timeout = seconds(0.2)});
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
}

TYPED_TEST(URLSessionContract, TheWholeTaskHasALimitThatCountsWhileSuspended) {
  this->session = this->rig.loading().makeSession(
      {.timeoutForRequest = seconds(20), .timeoutForResource = seconds(0.2)}, this->delegate);
  this->delegate.onResponse = [](URLSessionTask& task, const URLResponse&) {
    task.suspend();
    return ResponseDisposition::allow;
  };
  const auto task = this->get("/large");
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
}

TYPED_TEST(URLSessionContract, TheSessionsEndCompletesWhatIsLeftAndTasksMayOutliveIt) {
  const auto waiting = this->get("/silent");
  const auto neverResumed = this->get("/hello");
  waiting->resume();
  this->rig.settle(*this->session, this->delegate);
  this->session.reset();
  for (const auto& task : {waiting, neverResumed}) {
    EXPECT_TRUE(this->delegate.of(*task).completed);
    EXPECT_TRUE(this->delegate.of(*task).error->is(URL_ERROR_DOMAIN, URL_CANCELLED));
    task->resume();
    task->suspend();
    task->cancel();
  }
}

TYPED_TEST(URLSessionContract, AFinishedTaskIgnoresEverything) {
  const auto task = this->get("/hello");
  task->resume();
  ASSERT_TRUE(this->complete(*task));
  task->suspend();
  task->resume();
  task->cancel();
  this->rig.settle(*this->session, this->delegate);
  EXPECT_EQ(this->delegate.of(*task).error, std::nullopt);
}

}  // namespace
}  // namespace vondle
