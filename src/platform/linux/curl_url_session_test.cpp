#include "platform/linux/curl_url_session.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "testing/http_test_server.h"
#include "testing/recording_delegate.h"
#include "testing/test_authority.h"

namespace vondle {
namespace {

constexpr std::size_t MEGABYTE = 1'000'000;

// Not periodic in any buffer's size, so that lost, doubled or swapped pieces show.
std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t value = 1;
  for (char& byte : bytes) byte = static_cast<char>((value = value * 1664525 + 1013904223) >> 24);
  return bytes;
}

class CurlURLSessionTest : public testing::Test {
 protected:
  CurlURLSessionTest() {
    std::filesystem::create_directories(folder_);
    server.handle("/settle", [](HttpTestExchange& exchange) { exchange.reply(200, std::string(4 * MEGABYTE, 's')); });
  }
  ~CurlURLSessionTest() override {
    session.reset();
    for (URLTaskID task = 1; task < 200; ++task)
      EXPECT_EQ(delegate.of(task).mistakes, std::vector<std::string>()) << task;
    std::filesystem::remove_all(folder_);
  }

  void makeSession(URLSessionConfiguration configuration, CurlOptions options = {}) {
    session.reset();
    session = CurlURLLoading(std::move(options)).makeSession(configuration, delegate);
  }
  RecordingDelegate::Record run(URLSessionTask& task) {
    task.resume();
    EXPECT_TRUE(delegate.waitForCompletion(task));
    return delegate.of(task);
  }
  RecordingDelegate::Record get(const std::string& url, std::vector<URLHeader> headers = {}) {
    const auto task = session->dataTask({.url = url, .headers = std::move(headers)});
    return run(*task);
  }
  // Some megabytes over the same network thread: whatever was on its way before has arrived.
  void settle() { EXPECT_EQ(get(server.url("/settle")).error, std::nullopt); }
  std::string file(const std::string& bytes) {
    const std::string path = folder_ + "/file" + std::to_string(++files_);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  std::string folder() const { return folder_; }

  HttpTestServer server;
  RecordingDelegate delegate;
  std::unique_ptr<URLSession> session = CurlURLLoading().makeSession({}, delegate);

 private:
  const std::string folder_ =
      std::filesystem::temp_directory_path() / ("curl-url-session-test-" + std::to_string(getpid()));
  int files_ = 0;
};

bool isURLError(const std::optional<Error>& error, std::int64_t code) {
  return error && error->is(URL_ERROR_DOMAIN, code);
}

// What goes out

TEST_F(CurlURLSessionTest, SendsTheHeadersGivenAndNoneThatAreItsOwn) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200); });
  const auto task = session->dataTask({.url = server.url("/x"),
                                       .method = "POST",
                                       .headers = {{"X-Empty", ""},
                                                   {"X-Client", "v 1"},
                                                   {"Content-Length", "99"},
                                                   {"Host", "elsewhere.test"},
                                                   {"transfer-encoding", "chunked"}},
                                       .body = "abc"});
  EXPECT_EQ(run(*task).error, std::nullopt);
  const auto request = server.requests().at(0);
  EXPECT_EQ(findHeader(request.headers, "X-Empty"), "");
  EXPECT_EQ(findHeader(request.headers, "X-Client"), "v 1");
  EXPECT_EQ(findHeader(request.headers, "Content-Length"), "3");
  EXPECT_EQ(findHeader(request.headers, "Host"), "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_EQ(findHeader(request.headers, "Transfer-Encoding"), std::nullopt);
  EXPECT_EQ(findHeader(request.headers, "Expect"), std::nullopt);
  EXPECT_EQ(findHeader(request.headers, "Accept-Encoding"), std::nullopt);
}

TEST_F(CurlURLSessionTest, ABodyIsAnnouncedAlsoWhenItIsEmptyOrMissing) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200); });
  const auto empty = session->dataTask({.url = server.url("/empty"), .method = "POST", .body = ""});
  const auto missing = session->dataTask({.url = server.url("/missing"), .method = "POST"});
  const auto emptyFile = session->uploadTask({.url = server.url("/file"), .method = "PUT"}, file(""));
  const auto plain = session->dataTask({.url = server.url("/plain"), .method = "DELETE"});
  for (const auto& task : {empty, missing, emptyFile, plain}) EXPECT_EQ(run(*task).error, std::nullopt);
  const auto requests = server.requests();
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(findHeader(requests.at(i).headers, "Content-Length"), "0") << i;
  EXPECT_EQ(findHeader(requests.at(3).headers, "Content-Length"), std::nullopt);
  EXPECT_EQ(requests.at(3).method, "DELETE");
}

TEST_F(CurlURLSessionTest, AHeaderThatWouldSmuggleAnotherIsRefused) {
  for (const URLHeader& header : {URLHeader{"X-Key", "a\r\nX-Evil: 1"}, URLHeader{"X-Key", "a\n"},
                                  URLHeader{"X Key", "a"}, URLHeader{"", "a"}, URLHeader{"X:", "a"}})
    EXPECT_TRUE(isURLError(get(server.url("/"), {header}).error, URL_BAD_URL));
  const auto task = session->dataTask({.url = server.url("/"), .method = "GET / HTTP/1.1\r\nX: "});
  EXPECT_TRUE(isURLError(run(*task).error, URL_BAD_URL));
  EXPECT_TRUE(isURLError(get("http://a b/").error, URL_BAD_URL));
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CurlURLSessionTest, LoopbackIsNeverReachedThroughAProxy) {
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  const auto direct = get(server.url("/settle"));
  const auto elsewhere = get("http://vondle-does-not-exist.invalid/");
  unsetenv("http_proxy");
  EXPECT_EQ(direct.error, std::nullopt);
  EXPECT_TRUE(isURLError(elsewhere.error, URL_CANNOT_CONNECT_TO_HOST));  // the proxy
}

// What comes in

TEST_F(CurlURLSessionTest, ChunksAndInterimAnswersAreUndone) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.write("HTTP/1.1 103 Early Hints\r\nX-Early: 1\r\n\r\n");
    exchange.start(200, {{"Transfer-Encoding", "chunked"}, {"ETag", "\"abc\""}});
    exchange.chunk("one ");
    exchange.chunk("two");
    exchange.write("0\r\nX-Trailer: 1\r\n\r\n");
  });
  const auto record = get(server.url("/"));
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.body, "one two");
  EXPECT_EQ(record.response->status, 200);
  EXPECT_EQ(record.response->expectedContentLength, -1);
  EXPECT_EQ(record.response->header("etag"), "\"abc\"");
  EXPECT_EQ(record.response->header("X-Early"), std::nullopt);
}

TEST_F(CurlURLSessionTest, ContentEncodingsAreLeftAlone) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.reply(200, "\x1f\x8b not really", {{"Content-Encoding", "gzip"}});
  });
  EXPECT_EQ(get(server.url("/")).body, "\x1f\x8b not really");
}

TEST_F(CurlURLSessionTest, ABodyWithoutALengthEndsWithItsConnection) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.start(200, {});
    exchange.write("all of it");
    exchange.close();
  });
  const auto record = get(server.url("/"));
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.body, "all of it");
  EXPECT_EQ(record.response->expectedContentLength, -1);
}

TEST_F(CurlURLSessionTest, ABodyShorterThanAnnouncedIsALostConnection) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.start(200, {{"Content-Length", "1000"}});
    exchange.write(std::string(999, 'x'));
    exchange.close();
  });
  const auto record = get(server.url("/"));
  EXPECT_TRUE(isURLError(record.error, URL_NETWORK_CONNECTION_LOST));
  EXPECT_EQ(record.body.size(), 999u);
}

TEST_F(CurlURLSessionTest, AnswersThatAreNoneFail) {
  const std::pair<const char*, std::int64_t> CASES[] = {
      {"SSH-2.0-OpenSSH\r\n\r\n", URL_BAD_SERVER_RESPONSE},
      {"HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n", URL_BAD_SERVER_RESPONSE},
      {"HTTP/1.1 200 OK\r\nX: ", URL_NETWORK_CONNECTION_LOST},
      {"", URL_NETWORK_CONNECTION_LOST},
  };
  for (const auto& [text, code] : CASES) {
    server.handle("/", [answer = std::string(text)](HttpTestExchange& exchange) {
      exchange.write(answer);
      exchange.close();
    });
    const auto record = get(server.url("/"));
    EXPECT_TRUE(isURLError(record.error, code)) << text << ": " << record.error->description;
  }
}

TEST_F(CurlURLSessionTest, EndlessHeadersAreCutOff) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.write("HTTP/1.1 200 OK\r\n");
    while (exchange.write("X-Header: " + std::string(1000, 'x') + "\r\n")) {
    }
  });
  EXPECT_TRUE(isURLError(get(server.url("/")).error, URL_BAD_SERVER_RESPONSE));
  EXPECT_LT(server.bytesSent(), 30'000'000);
}

TEST_F(CurlURLSessionTest, AResetAtAnyStageIsALostConnection) {
  server.handle("/before", [](HttpTestExchange& exchange) { exchange.reset(); });
  server.handle("/during", [](HttpTestExchange& exchange) {
    exchange.start(200, {{"Content-Length", "1000"}});
    exchange.write("some");
    exchange.reset();
  });
  for (const char* path : {"/before", "/during"})
    EXPECT_TRUE(isURLError(get(server.url(path)).error, URL_NETWORK_CONNECTION_LOST)) << path;
  server.handle("/upload", [](HttpTestExchange& exchange) {
    exchange.readBody(100'000);
    exchange.reset();
  });
  const auto task =
      session->uploadTask({.url = server.url("/upload"), .method = "PUT"}, file(std::string(20 * MEGABYTE, 'u')));
  EXPECT_TRUE(isURLError(run(*task).error, URL_NETWORK_CONNECTION_LOST));
}

TEST_F(CurlURLSessionTest, WithoutAServerItCannotConnect) {
  std::string url;
  {
    const HttpTestServer gone;
    url = gone.url("/");
  }
  EXPECT_TRUE(isURLError(get(url).error, URL_CANNOT_CONNECT_TO_HOST));
}

TEST_F(CurlURLSessionTest, AHeadRequestHasNoBody) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200, "twelve bytes"); });
  const auto task = session->dataTask({.url = server.url("/"), .method = "HEAD"});
  const auto record = run(*task);
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.body, "");
  EXPECT_EQ(record.response->expectedContentLength, 12);
}

// Uploads

TEST_F(CurlURLSessionTest, AnUploadArrivesUnchangedAndEveryByteIsCounted) {
  const std::string bytes = pattern(5 * MEGABYTE + 7);
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.readBody();
    exchange.reply(200, "", {{"ETag", "\"part\""}});
  });
  const auto task = session->uploadTask({.url = server.url("/"), .method = "PUT"}, file(bytes));
  const auto record = run(*task);
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.response->header("ETag"), "\"part\"");
  EXPECT_EQ(record.sent, static_cast<std::int64_t>(bytes.size()));
  EXPECT_TRUE(server.requests().at(0).body == bytes);
}

TEST_F(CurlURLSessionTest, ARefusalAmidAnUploadArrivesWithItsBodyBeforeTheUploadIsOut) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.readBody(MEGABYTE);
    exchange.reply(413, "too large");
  });
  const auto task =
      session->uploadTask({.url = server.url("/"), .method = "PUT"}, file(std::string(100 * MEGABYTE, 'u')));
  const auto record = run(*task);
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.response->status, 413);
  EXPECT_EQ(record.body, "too large");
  EXPECT_LT(record.sent, static_cast<std::int64_t>(100 * MEGABYTE));
}

TEST_F(CurlURLSessionTest, AFileThatShrinksWhileItIsSentFailsTheUpload) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.readBody(); });
  const std::string path = file(std::string(20 * MEGABYTE, 'u'));
  delegate.onSent = [&](URLSessionTask&, std::int64_t total) {
    if (total > 100'000) std::filesystem::resize_file(path, 200'000);
  };
  const auto task = session->uploadTask({.url = server.url("/"), .method = "PUT"}, path);
  EXPECT_TRUE(isURLError(run(*task).error, URL_REQUEST_BODY_STREAM_EXHAUSTED));
}

TEST_F(CurlURLSessionTest, AFileThatGrowsIsSentAsItWasAtTheStart) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200, exchange.readBody()); });
  const std::string path = file("first");
  const auto task = session->uploadTask({.url = server.url("/"), .method = "PUT"}, path);
  std::ofstream(path, std::ios::app) << " and second";
  delegate.onResponse = [&](URLSessionTask&, const URLResponse&) {
    std::ofstream(path, std::ios::app) << " and third";
    return ResponseDisposition::allow;
  };
  EXPECT_EQ(run(*task).body, "first and second");
}

TEST_F(CurlURLSessionTest, FoldersPipesAndForbiddenFilesAreNotUploaded) {
  const std::string pipe = folder() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path : {folder(), pipe}) {
    const auto task = session->uploadTask({.url = server.url("/"), .method = "PUT"}, path);
    EXPECT_TRUE(isURLError(run(*task).error, URL_NO_PERMISSIONS_TO_READ_FILE)) << path;
  }
}

// Suspension

TEST_F(CurlURLSessionTest, ASuspendedDownloadStandsStillAndItsServerIsHeldBack) {
  constexpr std::size_t SIZE = 60 * MEGABYTE;
  const std::string bytes = pattern(SIZE);
  server.handle("/", [&](HttpTestExchange& exchange) { exchange.reply(200, bytes); });
  std::int64_t seenWhenSuspended = 0;
  delegate.onData = [&](URLSessionTask& task, std::int64_t soFar) {
    if (task.identifier() != 1 || soFar < 300'000 || seenWhenSuspended != 0) return;
    seenWhenSuspended = soFar;
    task.suspend();
  };
  const auto task = session->dataTask({.url = server.url("/large")});
  task->resume();
  ASSERT_TRUE(delegate.waitUntil([&] { return delegate.of(*task).body.size() >= 300'000; }));
  settle();
  settle();
  EXPECT_EQ(static_cast<std::int64_t>(delegate.of(*task).body.size()), seenWhenSuspended);
  EXPECT_LT(server.bytesSent(), static_cast<std::int64_t>(SIZE / 2));
  task->resume();
  ASSERT_TRUE(delegate.waitForCompletion(*task));
  EXPECT_EQ(delegate.of(*task).error, std::nullopt);
  EXPECT_TRUE(delegate.of(*task).body == bytes);
}

TEST_F(CurlURLSessionTest, SuspendedAtEveryCallADownloadStillArrivesWhole) {
  const std::string bytes = pattern(3 * MEGABYTE);
  server.handle("/", [&](HttpTestExchange& exchange) { exchange.reply(200, bytes); });
  // Resumed by another thread, as a pace-maker's timer would, each time it has stood still.
  std::atomic<int> suspensions = 0;
  std::atomic<bool> done = false;
  delegate.onData = [&](URLSessionTask& task, std::int64_t) {
    task.suspend();
    ++suspensions;
  };
  delegate.onComplete = [&](URLSessionTask&) { done = true; };
  const auto task = session->dataTask({.url = server.url("/")});
  task->resume();
  int resumed = 0;
  ASSERT_TRUE(delegate.waitUntil([&] {
    const int seen = suspensions;
    if (seen > resumed) {
      resumed = seen;
      task->resume();
    }
    return done.load();
  }));
  EXPECT_TRUE(delegate.of(*task).body == bytes);
  EXPECT_GE(suspensions, 100);
}

TEST_F(CurlURLSessionTest, ASuspendedUploadStandsStillAndArrivesWhole) {
  const std::string bytes = pattern(30 * MEGABYTE);
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.readBody();
    exchange.reply(200);
  });
  std::atomic<std::int64_t> sentWhenSuspended = 0;
  delegate.onSent = [&](URLSessionTask& task, std::int64_t total) {
    if (total < 1'000'000 || sentWhenSuspended != 0) return;
    sentWhenSuspended = total;
    task.suspend();
  };
  const auto task = session->uploadTask({.url = server.url("/"), .method = "PUT"}, file(bytes));
  task->resume();
  ASSERT_TRUE(delegate.waitUntil([&] { return sentWhenSuspended != 0; }));
  settle();
  settle();
  EXPECT_EQ(delegate.of(*task).totalSent, sentWhenSuspended);
  // The heads of the three requests are all that came beside the body.
  EXPECT_LE(server.bytesReceived(), sentWhenSuspended + 2000);
  task->resume();
  ASSERT_TRUE(delegate.waitForCompletion(*task));
  EXPECT_TRUE(server.requests().at(0).body == bytes);
  EXPECT_EQ(delegate.of(*task).sent, static_cast<std::int64_t>(bytes.size()));
}

TEST_F(CurlURLSessionTest, SuspendedRightAfterItsStartATaskStandsStillUntilItIsResumed) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200, "quick"); });
  std::vector<std::shared_ptr<URLSessionTask>> tasks;
  for (int i = 0; i < 20; ++i) {
    tasks.push_back(session->dataTask({.url = server.url("/")}));
    tasks.back()->resume();
    tasks.back()->suspend();
  }
  settle();  // one may have been quicker than its suspension
  std::vector<std::pair<std::size_t, bool>> before;
  for (const auto& task : tasks) before.emplace_back(delegate.of(*task).body.size(), delegate.of(*task).completed);
  settle();
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    EXPECT_EQ(delegate.of(*tasks[i]).body.size(), before[i].first);
    EXPECT_EQ(delegate.of(*tasks[i]).completed, before[i].second);
    tasks[i]->resume();
  }
  for (const auto& task : tasks) {
    ASSERT_TRUE(delegate.waitForCompletion(*task));
    EXPECT_EQ(delegate.of(*task).body, "quick");
  }
}

TEST_F(CurlURLSessionTest, SuspendedAndResumedByManyThreadsATransferArrivesWhole) {
  const std::string bytes = pattern(20 * MEGABYTE);
  server.handle("/", [&](HttpTestExchange& exchange) { exchange.reply(200, bytes); });
  const auto task = session->dataTask({.url = server.url("/")});
  const auto toggle = [&] {
    for (int i = 0; i < 5000; ++i) {
      task->suspend();
      task->resume();
    }
  };
  std::thread one(toggle);
  std::thread two(toggle);
  one.join();
  two.join();
  task->resume();
  ASSERT_TRUE(delegate.waitForCompletion(*task));
  EXPECT_TRUE(delegate.of(*task).body == bytes);
}

TEST_F(CurlURLSessionTest, APeerThatGoesAwayWhileATaskIsSuspendedIsNoticedWhenItIsResumed) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.start(200, {{"Content-Length", "100000000"}});
    exchange.write(std::string(MEGABYTE, 'x'));
    exchange.waitForRelease();
    exchange.reset();
  });
  delegate.onData = [](URLSessionTask& task, std::int64_t) {
    if (task.identifier() == 1) task.suspend();
  };
  const auto task = session->dataTask({.url = server.url("/")});
  task->resume();
  ASSERT_TRUE(server.waitForWaiting(1));
  server.release();
  ASSERT_TRUE(delegate.waitUntil([&] { return delegate.of(*task).dataCalls > 0; }));
  settle();
  EXPECT_FALSE(delegate.of(*task).completed);
  delegate.onData = nullptr;
  task->resume();
  ASSERT_TRUE(delegate.waitForCompletion(*task));
  EXPECT_TRUE(isURLError(delegate.of(*task).error, URL_NETWORK_CONNECTION_LOST));
}

// Time-outs

TEST_F(CurlURLSessionTest, IdleTimeEndsATaskAtEveryStage) {
  makeSession({.timeoutForRequest = seconds(0.15)});
  server.handle("/no-answer", [](HttpTestExchange& exchange) { exchange.waitForRelease(); });
  server.handle("/half-head", [](HttpTestExchange& exchange) {
    exchange.write("HTTP/1.1 200 OK\r\nX-");
    exchange.waitForRelease();
  });
  server.handle("/half-body", [](HttpTestExchange& exchange) {
    exchange.start(200, {{"Content-Length", "100"}});
    exchange.write("half");
    exchange.waitForRelease();
  });
  for (const char* path : {"/no-answer", "/half-head", "/half-body"})
    EXPECT_TRUE(isURLError(get(server.url(path)).error, URL_TIMED_OUT)) << path;
  const auto task =
      session->uploadTask({.url = server.url("/no-answer"), .method = "PUT"}, file(std::string(50 * MEGABYTE, 'u')));
  EXPECT_TRUE(isURLError(run(*task).error, URL_TIMED_OUT));
}

TEST_F(CurlURLSessionTest, BytesInEitherDirectionKeepATaskAlive) {
  makeSession({.timeoutForRequest = seconds(1)});
  constexpr int PIECES = 25;
  // A piece comes after a twentieth of the idle limit, the whole after more than the limit.
  const auto pace = [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); };
  server.handle("/slow-answer", [&](HttpTestExchange& exchange) {
    exchange.start(200, {{"Content-Length", std::to_string(PIECES)}});
    for (int i = 0; i < PIECES; ++i) {
      pace();
      exchange.write("x");
    }
  });
  server.handle("/slow-reader", [&](HttpTestExchange& exchange) {
    for (int i = 0; i < PIECES; ++i) {
      pace();
      for (std::size_t read = 0; read < MEGABYTE;) {
        const auto piece = exchange.readBody(MEGABYTE - read).size();
        if (piece == 0) return;
        read += piece;
      }
    }
    exchange.reply(200);
  });
  const auto download = session->dataTask({.url = server.url("/slow-answer")});
  const auto upload = session->uploadTask({.url = server.url("/slow-reader"), .method = "PUT"},
                                          file(std::string(PIECES * MEGABYTE, 'u')));
  download->resume();
  EXPECT_EQ(run(*upload).error, std::nullopt);
  EXPECT_EQ(run(*download).error, std::nullopt);
}

TEST_F(CurlURLSessionTest, SuspendedTimeIsNotIdleTime) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200, std::string(MEGABYTE, 'x')); });
  server.handle("/silent", [](HttpTestExchange& exchange) { exchange.waitForRelease(); });
  delegate.onData = [](URLSessionTask& task, std::int64_t) {
    if (task.identifier() == 1) task.suspend();
  };
  const auto task = session->dataTask({.url = server.url("/"), .timeout = seconds(1)});
  task->resume();
  ASSERT_TRUE(delegate.waitUntil([&] { return delegate.of(*task).dataCalls > 0; }));
  // A longer idle limit of another task passes meanwhile.
  const auto silent = session->dataTask({.url = server.url("/silent"), .timeout = seconds(1.1)});
  EXPECT_TRUE(isURLError(run(*silent).error, URL_TIMED_OUT));
  EXPECT_FALSE(delegate.of(*task).completed);
  delegate.onData = nullptr;
  task->resume();
  ASSERT_TRUE(delegate.waitForCompletion(*task));
  EXPECT_EQ(delegate.of(*task).error, std::nullopt);
  EXPECT_EQ(delegate.of(*task).body.size(), MEGABYTE);
}

TEST_F(CurlURLSessionTest, ARequestsOwnTimeoutCounts) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.waitForRelease(); });
  const auto task = session->dataTask({.url = server.url("/"), .timeout = seconds(0.1)});
  EXPECT_TRUE(isURLError(run(*task).error, URL_TIMED_OUT));
}

// Redirects

TEST_F(CurlURLSessionTest, FollowsRedirectsAndTellsOnlyOfTheLastAnswer) {
  server.handle("/a", [](HttpTestExchange& exchange) { exchange.reply(302, "over there", {{"Location", "/b"}}); });
  server.handle("/b", [](HttpTestExchange& exchange) {
    exchange.reply(307, std::string(10 * MEGABYTE, 'r'), {{"Location", "c?x=1"}});
  });
  server.handle("/c", [](HttpTestExchange& exchange) { exchange.reply(200, "here"); });
  const auto record = get(server.url("/a"), {{"X-API-Key", "secret"}});
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.body, "here");
  EXPECT_EQ(record.response->url, server.url("/c?x=1"));
  for (const auto& request : server.requests()) EXPECT_EQ(findHeader(request.headers, "X-API-Key"), "secret");
}

TEST_F(CurlURLSessionTest, HeadersDoNotGoToAnotherOrigin) {
  HttpTestServer other;
  other.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200, "from elsewhere"); });
  server.handle("/", [&](HttpTestExchange& exchange) { exchange.reply(302, "", {{"Location", other.url("/x")}}); });
  const auto record =
      get(server.url("/"), {{"X-API-Key", "secret"}, {"Authorization", "secret"}, {"Cookie", "secret"}});
  EXPECT_EQ(record.body, "from elsewhere");
  for (const char* name : {"X-API-Key", "Authorization", "Cookie"})
    EXPECT_EQ(findHeader(other.requests().at(0).headers, name), std::nullopt) << name;
}

TEST_F(CurlURLSessionTest, AnUploadIsSentAgainWithinItsOriginAndNotElsewhere) {
  HttpTestServer other;
  const std::string bytes = pattern(2 * MEGABYTE);
  server.handle("/same", [](HttpTestExchange& exchange) {
    exchange.readBody();
    exchange.reply(307, "", {{"Location", "/target"}});
  });
  server.handle("/elsewhere", [&](HttpTestExchange& exchange) {
    exchange.readBody();
    exchange.reply(307, "no further", {{"Location", other.url("/target")}});
  });
  server.handle("/target", [](HttpTestExchange& exchange) {
    exchange.readBody();
    exchange.reply(200, "stored");
  });
  const auto same = session->uploadTask({.url = server.url("/same"), .method = "PUT"}, file(bytes));
  EXPECT_EQ(run(*same).body, "stored");
  EXPECT_TRUE(server.requests().at(1).body == bytes);
  const auto elsewhere = session->uploadTask({.url = server.url("/elsewhere"), .method = "PUT"}, file(bytes));
  const auto record = run(*elsewhere);
  EXPECT_EQ(record.response->status, 307);
  EXPECT_EQ(record.body, "no further");
  EXPECT_TRUE(other.requests().empty());
}

TEST_F(CurlURLSessionTest, AnAddressOfAnotherKindIsNotFollowedAndOneWithAUserIsRefused) {
  server.handle("/hello", [](HttpTestExchange& exchange) { exchange.reply(200, "here"); });
  std::string location;
  server.handle("/away", [&](HttpTestExchange& exchange) { exchange.reply(302, "no", {{"Location", location}}); });
  for (const char* other : {"file:///etc/passwd", "ftp://127.0.0.1/x", "gopher://127.0.0.1/x", "data:text/plain,x",
                            "http+unix://socket/x"}) {
    location = other;
    const auto record = get(server.url("/away"));
    EXPECT_EQ(record.error, std::nullopt) << other;
    ASSERT_TRUE(record.response) << other;
    EXPECT_EQ(record.response->status, 302) << other;
    EXPECT_EQ(record.body, "no") << other;
  }
  location = server.url("/hello").insert(std::string("http://").size(), "user:secret@");
  EXPECT_TRUE(isURLError(get(server.url("/away")).error, URL_BAD_URL));
  for (const auto& request : server.requests()) EXPECT_EQ(request.target, "/away");
}

TEST_F(CurlURLSessionTest, ARedirectLoopEnds) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(302, "", {{"Location", "/again"}}); });
  EXPECT_TRUE(isURLError(get(server.url("/")).error, URL_HTTP_TOO_MANY_REDIRECTS));
  EXPECT_EQ(server.requests().size(), 6u);
}

// Connections

TEST_F(CurlURLSessionTest, ConnectionsAreUsedAgain) {
  std::atomic<int> connections = 0;
  server.handle("/", [&](HttpTestExchange& exchange) {
    connections = std::max(connections.load(), exchange.connection);
    exchange.readBody();
    exchange.reply(200, "x");
  });
  for (int i = 0; i < 10; ++i) get(server.url("/"));
  EXPECT_EQ(connections, 1);
}

TEST_F(CurlURLSessionTest, APutThatMeetsAClosedConnectionIsSentAgainOnce) {
  const std::string bytes = pattern(3 * MEGABYTE);
  std::atomic<int> resets = 0;
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200); });
  // The server drops the kept connection just as the next request arrives over it.
  server.handle("/put", [&](HttpTestExchange& exchange) {
    if (exchange.connection == 1) {
      ++resets;
      return exchange.reset();
    }
    exchange.readBody();
    exchange.reply(200, "stored");
  });
  get(server.url("/"));
  const auto task = session->uploadTask({.url = server.url("/put"), .method = "PUT"}, file(bytes));
  const auto record = run(*task);
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.body, "stored");
  EXPECT_EQ(resets, 1);
  EXPECT_TRUE(server.requests().back().body == bytes);
}

TEST_F(CurlURLSessionTest, AFreshConnectionThatIsDroppedIsNotTriedAgain) {
  server.handle("/", [](HttpTestExchange& exchange) { exchange.reset(); });
  EXPECT_TRUE(isURLError(get(server.url("/")).error, URL_NETWORK_CONNECTION_LOST));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(CurlURLSessionTest, AHundredTasksRunSideBySide) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.waitForRelease();
    exchange.reply(200, exchange.target + std::string(50'000, '.'));
  });
  std::vector<std::shared_ptr<URLSessionTask>> tasks;
  for (int i = 0; i < 100; ++i) {
    tasks.push_back(session->dataTask({.url = server.url("/" + std::to_string(i))}));
    tasks.back()->resume();
  }
  ASSERT_TRUE(server.waitForWaiting(100));
  server.release();
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(delegate.waitForCompletion(*tasks[static_cast<std::size_t>(i)]));
    EXPECT_EQ(delegate.of(i + 1).body, "/" + std::to_string(i) + std::string(50'000, '.'));
  }
}

TEST_F(CurlURLSessionTest, TheSessionsEndStopsRunningAndSuspendedTransfers) {
  server.handle("/", [](HttpTestExchange& exchange) {
    exchange.start(200, {});
    while (exchange.write(std::string(100'000, 'x'))) {
    }
  });
  delegate.onData = [](URLSessionTask& task, std::int64_t) {
    if (task.identifier() % 2 == 0) task.suspend();
  };
  std::vector<std::shared_ptr<URLSessionTask>> tasks;
  for (int i = 0; i < 6; ++i) {
    tasks.push_back(session->dataTask({.url = server.url("/")}));
    tasks.back()->resume();
  }
  ASSERT_TRUE(delegate.waitUntil(
      [&] { return std::ranges::all_of(tasks, [&](const auto& task) { return delegate.of(*task).dataCalls > 0; }); }));
  session.reset();
  for (const auto& task : tasks) EXPECT_TRUE(isURLError(delegate.of(*task).error, URL_CANCELLED));
}

// TLS

class CurlTLSTest : public CurlURLSessionTest {
 protected:
  RecordingDelegate::Record getOverTLS(const HttpTestServer::Identity& identity, const std::string& caFile) {
    HttpTestServer secure(identity);
    secure.handle("/", [](HttpTestExchange& exchange) { exchange.reply(200, "private"); });
    RecordingDelegate ownDelegate;
    const auto ownSession = CurlURLLoading({.caFile = caFile}).makeSession({}, ownDelegate);
    const auto task = ownSession->dataTask({.url = secure.url("/")});
    task->resume();
    EXPECT_TRUE(ownDelegate.waitForCompletion(*task));
    return ownDelegate.of(*task);
  }

  TestAuthority authority{folder()};
};

TEST_F(CurlTLSTest, ATrustedCertificateIsAccepted) {
  const auto record = getOverTLS(authority.issue("IP:127.0.0.1"), authority.caFile());
  EXPECT_EQ(record.error, std::nullopt);
  EXPECT_EQ(record.body, "private");
}

TEST_F(CurlTLSTest, AnUnknownAuthorityAWrongNameAndAnExpiredCertificateAreRefused) {
  EXPECT_TRUE(isURLError(getOverTLS(authority.issue("IP:127.0.0.1"), {}).error, URL_SERVER_CERTIFICATE_UNTRUSTED));
  EXPECT_TRUE(isURLError(getOverTLS(authority.issue("DNS:other.test"), authority.caFile()).error,
                         URL_SERVER_CERTIFICATE_UNTRUSTED));
  const auto expired = getOverTLS(authority.issue("IP:127.0.0.1", true), authority.caFile());
  EXPECT_TRUE(isURLError(expired.error, URL_SERVER_CERTIFICATE_UNTRUSTED));
  EXPECT_NE(expired.error->description.find("expired"), std::string::npos) << expired.error->description;
}

TEST_F(CurlTLSTest, AnAuthorityFileThatCannotBeReadFailsTheConnection) {
  const auto record = getOverTLS(authority.issue("IP:127.0.0.1"), folder() + "/missing.pem");
  EXPECT_TRUE(isURLError(record.error, URL_SECURE_CONNECTION_FAILED));
}

TEST_F(CurlTLSTest, SuspensionHoldsOverTLSToo) {
  HttpTestServer secure(authority.issue("IP:127.0.0.1"));
  const std::string bytes = pattern(10 * MEGABYTE);
  secure.handle("/", [&](HttpTestExchange& exchange) { exchange.reply(200, bytes); });
  makeSession({}, {.caFile = authority.caFile()});
  delegate.onData = [](URLSessionTask& task, std::int64_t soFar) {
    if (task.identifier() == 1 && soFar >= 300'000) task.suspend();
  };
  const auto task = session->dataTask({.url = secure.url("/")});
  task->resume();
  ASSERT_TRUE(delegate.waitUntil([&] { return delegate.of(*task).body.size() >= 300'000; }));
  settle();
  const auto held = delegate.of(*task).body.size();
  EXPECT_LT(held, 320'000u);
  delegate.onData = nullptr;
  task->resume();
  ASSERT_TRUE(delegate.waitForCompletion(*task));
  EXPECT_TRUE(delegate.of(*task).body == bytes);
}

TEST_F(CurlTLSTest, ARedirectFromHttpsToHttpIsNotFollowed) {
  HttpTestServer secure(authority.issue("IP:127.0.0.1"));
  secure.handle("/",
                [&](HttpTestExchange& exchange) { exchange.reply(302, "", {{"Location", server.url("/plain")}}); });
  makeSession({}, {.caFile = authority.caFile()});
  EXPECT_EQ(get(secure.url("/")).response->status, 302);
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace vondle
