#include "transfer/limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/captured_log.h"
#include "testing/simulated_files.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

struct LimitsTest : testing::Test {
  static constexpr const char* CONFIG = "/home/user/.vondle/config.json";

  void configure(const std::string& text) {
    files.put(CONFIG, text);
    clock.advance(seconds(1.5));
    limits.refresh();
  }

  VirtualScheduler clock;
  SimulatedFiles files{clock};
  CapturedLog log;
  Limits limits{clock, files, CONFIG};
};

TEST_F(LimitsTest, StartsWithoutLimits) {
  EXPECT_TRUE(limits.download.isUnlimited());
  EXPECT_TRUE(limits.upload.isUnlimited());
  EXPECT_TRUE(limits.uploadUnlimited());
  EXPECT_FALSE(limits.paused());
  EXPECT_EQ(limits.maxConcurrent(), 5);
}

TEST_F(LimitsTest, TheFirstRefreshReadsAtOnce) {
  files.put(CONFIG, R"({"max_download_kbps": 1})");
  limits.refresh();
  EXPECT_EQ(limits.download.rate(), 1024);
}

TEST_F(LimitsTest, ReadsTheKeysAndLogsThem) {
  const struct {
    const char* text;
    double down;
    double up;
    bool paused;
    std::int64_t maxConcurrent;
    bool uploadUnlimited;
    const char* line;
  } CASES[] = {
      {R"({})", 0, 0, false, 5, true, "down unlimited, up unlimited"},
      {R"({"server": "x", "api_key": "y"})", 0, 0, false, 5, true, "down unlimited, up unlimited"},
      {R"({"max_download_kbps": 512})", 524288, 0, false, 5, true, "down 512 kB/s, up unlimited"},
      {R"({"max_download_kbps": 0.5})", 512, 0, false, 5, true, "down 0 kB/s, up unlimited"},
      {R"({"max_upload_kbps": 100.75})", 0, 103168, false, 5, false, "down unlimited, up 100 kB/s"},
      {R"({"max_download_kbps": -3, "max_upload_kbps": -3})", 0, 0, false, 5, false, "down unlimited, up unlimited"},
      {R"({"max_download_kbps": "512", "max_upload_kbps": true})", 0, 0, false, 5, true,
       "down unlimited, up unlimited"},
      {R"({"transfers_paused": true})", 0, 0, true, 5, true, "down unlimited, up unlimited (transfers paused)"},
      {R"({"transfers_paused": 1})", 0, 0, true, 5, true, "down unlimited, up unlimited (transfers paused)"},
      {R"({"transfers_paused": 0})", 0, 0, false, 5, true, "down unlimited, up unlimited"},
      {R"({"transfers_paused": "yes"})", 0, 0, false, 5, true, "down unlimited, up unlimited"},
      {R"({"max_concurrent_transfers": 1})", 0, 0, false, 1, true, "down unlimited, up unlimited"},
      {R"({"max_concurrent_transfers": 0})", 0, 0, false, 5, true, "down unlimited, up unlimited"},
      {R"({"max_concurrent_transfers": -3})", 0, 0, false, 5, true, "down unlimited, up unlimited"},
      {R"({"max_concurrent_transfers": "9", "max_download_kbps": 1})", 1024, 0, false, 5, true,
       "down 1 kB/s, up unlimited"},
  };
  for (const auto& c : CASES) {
    log.clear();
    configure(c.text);
    EXPECT_EQ(limits.download.rate(), c.down) << c.text;
    EXPECT_EQ(limits.upload.rate(), c.up) << c.text;
    EXPECT_EQ(limits.paused(), c.paused) << c.text;
    EXPECT_EQ(limits.maxConcurrent(), c.maxConcurrent) << c.text;
    EXPECT_EQ(limits.uploadUnlimited(), c.uploadUnlimited) << c.text;
    EXPECT_THAT(log.messages(LogLevel::standard), ElementsAre("bandwidth limits: " + std::string(c.line))) << c.text;
  }
}

TEST_F(LimitsTest, WhatCannotBeReadLeavesTheSettings) {
  configure(R"({"max_download_kbps": 7, "transfers_paused": true})");
  log.clear();
  for (const char* text : {"{", "[]", "7", "", "{\"max_download_kbps\": }"}) {
    configure(text);
    EXPECT_EQ(limits.download.rate(), 7 * 1024) << text;
    EXPECT_TRUE(limits.paused()) << text;
  }
  ASSERT_TRUE(files.remove(CONFIG));
  clock.advance(seconds(1.5));
  limits.refresh();
  EXPECT_EQ(limits.download.rate(), 7 * 1024);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(LimitsTest, AMissingFileThatAppearsIsNoticed) {
  limits.refresh();
  EXPECT_EQ(files.readCount(CONFIG), 0);
  configure(R"({"max_concurrent_transfers": 2})");
  EXPECT_EQ(limits.maxConcurrent(), 2);
}

TEST_F(LimitsTest, ABrokenFileIsNotReadAgainUntilItChanges) {
  configure("{");
  const int reads = files.readCount(CONFIG);
  clock.advance(seconds(5));
  limits.refresh();
  EXPECT_EQ(files.readCount(CONFIG), reads);
  configure("{}");
  EXPECT_EQ(files.readCount(CONFIG), reads + 1);
}

TEST_F(LimitsTest, LooksAtTheFileOnlyWhenMoreThanASecondHasPassed) {
  limits.refresh();
  EXPECT_EQ(files.attributesCount(CONFIG), 1);
  clock.advance(seconds(1.0));
  limits.refresh();
  EXPECT_EQ(files.attributesCount(CONFIG), 1);
  clock.advance(Duration(1));
  limits.refresh();
  EXPECT_EQ(files.attributesCount(CONFIG), 2);
}

TEST_F(LimitsTest, TheSecondEditWithinASecondIsPickedUpByTheFirstRefreshAfterIt) {
  files.put(CONFIG, R"({"max_concurrent_transfers": 1})");
  limits.refresh();
  clock.advance(seconds(0.5));
  files.put(CONFIG, R"({"max_concurrent_transfers": 2})");
  limits.refresh();
  EXPECT_EQ(limits.maxConcurrent(), 1);
  clock.advance(seconds(0.6));
  limits.refresh();
  EXPECT_EQ(limits.maxConcurrent(), 2);
}

TEST_F(LimitsTest, TouchingTheFileLogsTheLimitsAgain) {
  configure(R"({"max_download_kbps": 5})");
  clock.advance(seconds(2));
  limits.refresh();
  EXPECT_EQ(log.lines().size(), 1u);
  files.setModificationTime(CONFIG, clock.now());
  clock.advance(seconds(2));
  limits.refresh();
  EXPECT_THAT(log.messages(), ElementsAre("bandwidth limits: down 5 kB/s, up unlimited",
                                          "bandwidth limits: down 5 kB/s, up unlimited"));
}

TEST_F(LimitsTest, ASetBackWallClockDoesNotStopIt) {
  limits.refresh();
  clock.setWallClock({0});
  configure(R"({"max_concurrent_transfers": 3})");
  EXPECT_EQ(limits.maxConcurrent(), 3);
}

TEST_F(LimitsTest, AFileThatIsCutAnywhereChangesNothing) {
  const std::string whole = R"({"max_download_kbps": 50, "transfers_paused": false, "max_concurrent_transfers": 3})";
  configure(whole);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    configure(whole.substr(0, length));
    EXPECT_EQ(limits.maxConcurrent(), 3) << length;
    EXPECT_EQ(limits.download.rate(), 50 * 1024) << length;
  }
}

TEST_F(LimitsTest, ARateBeyondAllWholeNumbersEndsTheProcess) {
  files.put(CONFIG, R"({"max_download_kbps": 1e30})");
  EXPECT_DEATH(limits.refresh(), "too large");
}

}  // namespace
}  // namespace vondle
