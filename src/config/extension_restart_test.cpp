#include "config/extension_restart.h"

#include <cerrno>

#include <gmock/gmock.h>

#include "config/paths.h"
#include "testing/simulated_files.h"
#include "testing/simulated_notify_centre.h"
#include "testing/simulated_process_control.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string RECORD = SimulatedFiles::containerPath(APPLICATION_GROUP) + "/extension.json";
const std::string NOTE = "com.ferrow.vondle.extension.exit";

using Entries = std::map<std::string, std::string, std::less<>>;

BundleInformation bundle(std::string build) {
  return BundleInformation(Entries{{"CFBundleVersion", std::move(build)}});
}

struct ExtensionRestartTest : testing::Test {
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  SimulatedNotifyCentre notifyCentre;
  SimulatedProcessControl process{4711};
  ExtensionRestart restart{files, notifyCentre, process, bundle("57")};
};

TEST_F(ExtensionRestartTest, ReadsItsBuildAsAWholeNumber) {
  const struct {
    std::string text;
    std::int64_t build;
  } CASES[] = {{"57", 57},
               {"+57", 57},
               {"-3", -3},
               {"1.2", 0},
               {"", 0},
               {"x", 0},
               {"5 ", 0},
               {" 5", 0},
               {"+-5", 0},
               {"++5", 0},
               {"+", 0},
               {"-", 0},
               {"0x10", 0},
               {"007", 7},
               {"9223372036854775807", 9223372036854775807},
               {"9223372036854775808", 0},
               {"-+5", 0}};
  for (const auto& [text, build] : CASES) {
    EXPECT_EQ(ExtensionRestart(files, notifyCentre, process, bundle(text)).thisBuild(), build) << text;
  }
  EXPECT_EQ(ExtensionRestart(files, notifyCentre, process, BundleInformation(Entries{})).thisBuild(), 0);
}

TEST_F(ExtensionRestartTest, ListeningLeavesARecordAndWatchesForTheNote) {
  restart.listen();
  EXPECT_EQ(files.contents(RECORD), R"({"build":57,"pid":4711})");
  EXPECT_EQ(notifyCentre.observerCount(NOTE), 1U);
  EXPECT_THAT(process.exits(), IsEmpty());
}

TEST_F(ExtensionRestartTest, OnlyTheFirstListenCounts) {
  restart.listen();
  restart.listen();
  EXPECT_EQ(files.writeCount(RECORD), 1);
  EXPECT_EQ(notifyCentre.observerCount(NOTE), 1U);
}

TEST_F(ExtensionRestartTest, ListensAlsoWhenItCanLeaveNoRecord) {
  files.fail(FileOperation::write, RECORD, ENOSPC);
  restart.listen();
  EXPECT_EQ(notifyCentre.observerCount(NOTE), 1U);

  files.setContainerAvailable(false);
  ExtensionRestart other(files, notifyCentre, process, bundle("57"));
  other.listen();
  EXPECT_EQ(other.recordURL(), std::nullopt);
  EXPECT_EQ(notifyCentre.observerCount(NOTE), 2U);
}

TEST_F(ExtensionRestartTest, TheNoteEndsEveryListeningProcessWhateverItsBuild) {
  SimulatedProcessControl newer{4712};
  ExtensionRestart other(files, notifyCentre, newer, bundle("99"));
  restart.listen();
  other.listen();
  ExtensionRestart(files, notifyCentre, process, bundle("1")).ask();
  EXPECT_THAT(notifyCentre.posted(), ElementsAre(NOTE));
  EXPECT_THAT(process.exits(), ElementsAre(0));
  EXPECT_THAT(newer.exits(), ElementsAre(0));
}

TEST_F(ExtensionRestartTest, ReadsTheRunningBuildFromTheRecord) {
  const struct {
    const char* record;
    std::int64_t build;
  } CASES[] = {{R"({"build":56,"pid":1})", 56},
               {R"({"build":56.9})", 56},
               {R"({"build":"56"})", 0},
               {R"({"build":true})", 0},
               {R"({"pid":1})", 0},
               {"[56]", 0},
               {"56", 0},
               {"", 0},
               {"{", 0}};
  EXPECT_EQ(restart.runningBuild(), 0);
  for (const auto& [record, build] : CASES) {
    files.put(RECORD, record);
    EXPECT_EQ(restart.runningBuild(), build) << record;
  }
  files.setContainerAvailable(false);
  EXPECT_EQ(restart.runningBuild(), 0);
}

TEST_F(ExtensionRestartTest, RetiresOlderBuildsOnly) {
  const struct {
    const char* record;
    bool retires;
  } CASES[] = {
      {R"({"build":56})", true}, {R"({"build":1})", true},   {R"({"build":57})", false}, {R"({"build":58})", false},
      {R"({"build":0})", false}, {R"({"build":-1})", false}, {R"({"pid":1})", false},    {"", false}};
  EXPECT_FALSE(restart.retireOlder());
  std::size_t posts = 0;
  for (const auto& [record, retires] : CASES) {
    files.put(RECORD, record);
    EXPECT_EQ(restart.retireOlder(), retires) << record;
    posts += retires ? 1 : 0;
    EXPECT_EQ(notifyCentre.posted().size(), posts) << record;
  }
}

TEST_F(ExtensionRestartTest, ABuildThatIsNoWholeNumberRetiresNobody) {
  files.put(RECORD, R"({"build":1})");
  ExtensionRestart odd(files, notifyCentre, process, bundle("1.2"));
  EXPECT_FALSE(odd.retireOlder());
  EXPECT_THAT(notifyCentre.posted(), IsEmpty());
}

}  // namespace
}  // namespace vondle
