// The transfer engine over real parts: sockets, files, threads and timers, against a server of the test's own.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/asio_scheduler.h"
#include "platform/linux/curl_url_session.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "platform/linux/linux_random.h"
#include "platform/log.h"
#include "testing/http_test_server.h"
#include "testing/simulated_user_database.h"
#include "transfer/throttled_transfer.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

using testing::ElementsAre;

constexpr std::size_t MEGABYTE = 1'048'576;

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t value = 7;
  for (char& byte : bytes) byte = static_cast<char>((value = value * 1664525 + 1013904223) >> 24);
  return bytes;
}

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// The process's log, which can be waited for.
class WatchedLog final : private LogSink {
 public:
  WatchedLog() : previous_(setLogSink(this)) {}
  ~WatchedLog() override { setLogSink(previous_); }

  bool waitFor(const std::string& line) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    MutexLock hold(lock_);
    while (std::ranges::find(lines_, line, &std::pair<LogLevel, std::string>::second) == lines_.end())
      if (changed_.wait_until(lock_, limit) == std::cv_status::timeout) return false;
    return true;
  }
  std::vector<std::string> messages(LogLevel level) const {
    MutexLock hold(lock_);
    std::vector<std::string> found;
    for (const auto& [itsLevel, line] : lines_)
      if (itsLevel == level) found.push_back(line);
    return found;
  }

 private:
  void write(LogLevel level, std::string_view, std::string_view, std::string_view message) override {
    {
      MutexLock hold(lock_);
      lines_.emplace_back(level, message);
    }
    changed_.notify_all();
  }

  mutable Mutex lock_;
  ConditionVariable changed_;
  std::vector<std::pair<LogLevel, std::string>> lines_ GUARDED_BY(lock_);
  LogSink* const previous_;
};

// Answers as they come, from the engine's queue.
class Answers {
 public:
  Completion<Result<std::string>> as(const std::string& name) {
    return [this, name](Result<std::string> result) {
      {
        MutexLock hold(lock_);
        order_.push_back(name);
        results_.emplace(name, std::move(result));
      }
      changed_.notify_all();
    };
  }
  Result<std::string> waitFor(const std::string& name) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    MutexLock hold(lock_);
    while (!results_.contains(name))
      if (changed_.wait_until(lock_, limit) == std::cv_status::timeout)
        return failure({"test", 0, "no answer to " + name + " within a minute"});
    return results_.at(name);
  }
  std::vector<std::string> order() const {
    MutexLock hold(lock_);
    return order_;
  }

 private:
  mutable Mutex lock_;
  ConditionVariable changed_;
  std::map<std::string, Result<std::string>> results_ GUARDED_BY(lock_);
  std::vector<std::string> order_ GUARDED_BY(lock_);
};

struct TransferTest : testing::Test {
  TransferTest() {
    users.home = home;
    std::filesystem::create_directories(home + "/.vondle");
    server.handle("/file", [&](HttpTestExchange& exchange) { exchange.reply(200, contents); });
    server.handle("/store", [](HttpTestExchange& exchange) {
      exchange.readBody();
      exchange.reply(200, "stored", {{"ETag", "\"tag\""}});
    });
  }
  ~TransferTest() override {
    transfers.reset();
    std::filesystem::remove_all(home);
  }

  void configure(const std::string& text) {
    const std::string path = home + "/.vondle/config.json";
    std::ofstream(path + ".new") << text;
    std::filesystem::rename(path + ".new", path);
  }
  std::string file(const std::string& bytes) {
    const std::string path = home + "/to-send-" + std::to_string(++files_);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  URLRequest put(const std::string& target) { return {.url = server.url(target), .method = "PUT"}; }

  const std::string home = std::filesystem::temp_directory_path() / ("transfer-test-" + std::to_string(getpid()));
  const std::string contents = pattern(3 * MEGABYTE + 11);
  int files_ = 0;
  WatchedLog log;
  HttpTestServer server;
  Answers answers;
  SimulatedUserDatabase users;
  LinuxClock clock;
  LinuxFiles linuxFiles{users};
  LinuxRandom random;
  CurlURLLoading loading;
  AsioScheduler scheduler;
  Limits limits{clock, linuxFiles, home + "/.vondle/config.json"};
  LargeUpload largeUpload{clock, scheduler, linuxFiles, limits, home + "/.vondle/large_upload.json"};
  Stats stats{clock, scheduler, linuxFiles};
  std::unique_ptr<ThrottledTransfer> transfers = std::make_unique<ThrottledTransfer>(
      TransferServices{clock, scheduler, loading, linuxFiles, random, limits, largeUpload, stats});
};

TEST_F(TransferTest, ManyDownloadsArriveWhole) {
  for (int i = 0; i < 12; ++i) {
    const std::string name = std::to_string(i);
    transfers->download(server.url("/file?" + name), Progress::make(), 0, i % 4 == 0 ? 2 : 0, answers.as(name));
  }
  for (int i = 0; i < 12; ++i) {
    const auto path = answers.waitFor(std::to_string(i));
    ASSERT_TRUE(path) << path.error().description;
    EXPECT_TRUE(readFile(*path) == contents);
    std::filesystem::remove(*path);
  }
  EXPECT_TRUE(std::filesystem::is_empty(linuxFiles.temporaryFolder()));
}

TEST_F(TransferTest, UploadsPartsAndFetchesBringTheirAnswers) {
  const std::string path = file(contents);
  const auto progress = Progress::make();
  transfers->upload(put("/store/whole"), path, progress, answers.as("upload"));
  transfers->uploadPart(put("/store/part"), path, Progress::make(), answers.as("part"));
  transfers->fetchData(server.url("/file"), answers.as("fetch"));
  EXPECT_EQ(answers.waitFor("upload"), "stored");
  EXPECT_EQ(answers.waitFor("part"), "\"tag\"");
  EXPECT_TRUE(answers.waitFor("fetch") == contents);
  EXPECT_EQ(progress->completedUnitCount(), static_cast<std::int64_t>(contents.size()));
  for (const auto& request : server.requests())
    EXPECT_TRUE(request.method != "PUT" || request.body == contents) << request.target;
}

TEST_F(TransferTest, ARefusalAmidAnUploadReachesTheLog) {
  server.handle("/refuse", [](HttpTestExchange& exchange) {
    exchange.readBody(100'000);
    exchange.reply(413, "too large for you");
  });
  transfers->upload(put("/refuse"), file(pattern(30 * MEGABYTE)), Progress::make(), answers.as("u"));
  EXPECT_EQ(TransferError::from(answers.waitFor("u").error()), TransferError::http(413));
  EXPECT_THAT(log.messages(LogLevel::error),
              ElementsAre("upload rejected with HTTP 413 by 127.0.0.1: too large for you"));
}

TEST_F(TransferTest, ShortDownloadsAndLostServersFailAndLeaveNoFile) {
  server.handle("/short", [](HttpTestExchange& exchange) {
    exchange.start(200, {{"Content-Length", "1000"}});
    exchange.write(std::string(999, 'x'));
    exchange.close();
  });
  server.handle("/reset", [](HttpTestExchange& exchange) { exchange.reset(); });
  server.handle("/missing", [](HttpTestExchange& exchange) { exchange.reply(404, "no such contents"); });
  for (const char* name : {"/short", "/reset", "/missing"})
    transfers->download(server.url(name), Progress::make(), 0, 0, answers.as(name));
  EXPECT_TRUE(answers.waitFor("/short").error().is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
  EXPECT_TRUE(answers.waitFor("/reset").error().is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
  EXPECT_EQ(TransferError::from(answers.waitFor("/missing").error()), TransferError::http(404));
  EXPECT_TRUE(std::filesystem::is_empty(linuxFiles.temporaryFolder()));
}

TEST_F(TransferTest, ThePauseOfTheConfigurationFileStopsTransfersAndItsEndLetsThemGoOn) {
  configure(R"({"transfers_paused": true})");
  transfers->download(server.url("/file"), Progress::make(), 0, 0, answers.as("d"));
  transfers->upload(put("/store"), file(contents), Progress::make(), answers.as("u"));
  ASSERT_TRUE(log.waitFor("transfers paused (2 in flight)"));
  EXPECT_TRUE(server.requests().empty());
  configure("{}");
  const auto path = answers.waitFor("d");
  ASSERT_TRUE(path);
  EXPECT_TRUE(readFile(*path) == contents);
  EXPECT_EQ(answers.waitFor("u"), "stored");
  EXPECT_TRUE(log.waitFor("transfers resumed (2 in flight)"));
}

TEST_F(TransferTest, ABackgroundDownloadStandsStillWhileAViewersIsServed) {
  // The background download has begun; then the viewer's is made to wait by its server until it is released.
  server.handle("/background",
                [&](HttpTestExchange& exchange) { exchange.reply(200, std::string(100 * MEGABYTE, 'b')); });
  server.handle("/viewer", [&](HttpTestExchange& exchange) {
    exchange.waitForRelease();
    exchange.reply(200, "seen");
  });
  configure(R"({"max_download_kbps": 20480})");  // slow enough to be overtaken
  const auto background = Progress::make();
  transfers->download(server.url("/background"), background, 0, 0, answers.as("background"));
  transfers->download(server.url("/viewer"), Progress::make(), 0, ThrottledTransfer::viewerPriority,
                      answers.as("viewer"));
  ASSERT_TRUE(server.waitForWaiting(1));
  EXPECT_THAT(log.messages(LogLevel::info),
              ElementsAre("yield: suspended 1 background transfer(s) for a waiting user"));
  // Another viewer's whole download passes over the same thread without the background one moving.
  transfers->download(server.url("/file"), Progress::make(), 0, ThrottledTransfer::viewerPriority,
                      answers.as("second"));
  ASSERT_TRUE(answers.waitFor("second"));
  const std::int64_t held = background->completedUnitCount();
  transfers->download(server.url("/file"), Progress::make(), 0, ThrottledTransfer::viewerPriority, answers.as("third"));
  ASSERT_TRUE(answers.waitFor("third"));
  EXPECT_EQ(background->completedUnitCount(), held);
  server.release();
  ASSERT_TRUE(answers.waitFor("viewer"));
  configure("{}");
  const auto path = answers.waitFor("background");
  ASSERT_TRUE(path);
  EXPECT_EQ(std::filesystem::file_size(*path), 100 * MEGABYTE);
  EXPECT_EQ(answers.order().back(), "background");
}

TEST_F(TransferTest, ALimitHoldsForDownloadsAndUploadsOverRealSockets) {
  configure(R"({"max_download_kbps": 1024, "max_upload_kbps": 1024})");
  const auto began = std::chrono::steady_clock::now();
  const std::string path = file(contents);
  // Three megabytes each way at one a second: a second's worth passes at once, the rest takes its time.
  transfers->download(server.url("/file"), Progress::make(), 0, 0, answers.as("d"));
  transfers->upload(put("/store"), path, Progress::make(), answers.as("u"));
  const auto downloaded = answers.waitFor("d");
  const auto downTime = std::chrono::steady_clock::now() - began;
  ASSERT_EQ(answers.waitFor("u"), "stored");
  const auto upTime = std::chrono::steady_clock::now() - began;
  ASSERT_TRUE(downloaded);
  EXPECT_TRUE(readFile(*downloaded) == contents);
  EXPECT_TRUE(server.requests().at(0).body == contents || server.requests().at(1).body == contents);
  for (const auto time : {downTime, upTime}) {
    EXPECT_GT(time, std::chrono::milliseconds(1700));
    EXPECT_LT(time, std::chrono::seconds(30));
  }
}

TEST_F(TransferTest, CancellingEndsTransfersThatRunAndThatWait) {
  configure(R"({"max_concurrent_transfers": 1})");
  server.handle("/silent", [](HttpTestExchange& exchange) { exchange.waitForRelease(); });
  const auto running = Progress::make();
  const auto waiting = Progress::make();
  transfers->download(server.url("/silent"), running, 0, 0, answers.as("running"));
  transfers->download(server.url("/file"), waiting, 0, 0, answers.as("waiting"));
  ASSERT_TRUE(server.waitForWaiting(1));
  waiting->cancel();
  EXPECT_TRUE(answers.waitFor("waiting").error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
  running->cancel();
  EXPECT_TRUE(answers.waitFor("running").error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
}

TEST_F(TransferTest, ItsEndAnswersWhatRunsWhateverTheSchedulerDoes) {
  configure(R"({"max_download_kbps": 100})");
  for (int i = 0; i < 20; ++i)
    transfers->download(server.url("/file"), Progress::make(), 0, i % 2 * 2, answers.as(std::to_string(i)));
  transfers.reset();
  EXPECT_EQ(answers.order().size(), 20u);
  EXPECT_TRUE(std::filesystem::is_empty(linuxFiles.temporaryFolder()));
}

TEST_F(TransferTest, SubmittedFromManyThreadsEveryTransferIsAnsweredOnce) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 10; ++i) {
        const auto progress = Progress::make();
        const std::string name = std::to_string(thread) + "-" + std::to_string(i);
        transfers->download(server.url("/file"), progress, 0, i % 3, answers.as(name));
        if (i % 4 == 0) progress->pause();
        if (i % 4 == 0) progress->resume();
        if (i % 5 == 0) progress->cancel();
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (int thread = 0; thread < 4; ++thread)
    for (int i = 0; i < 10; ++i) {
      const auto path = answers.waitFor(std::to_string(thread) + "-" + std::to_string(i));
      EXPECT_TRUE(path || i % 5 == 0);
      if (path) {
        EXPECT_EQ(std::filesystem::file_size(*path), contents.size());
      }
    }
  EXPECT_EQ(answers.order().size(), 40u);
}

}  // namespace
}  // namespace vondle
