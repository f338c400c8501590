#include "state/pins.h"

#include <cerrno>

#include <gmock/gmock.h>

#include "testing/simulated_files.h"
#include "testing/simulated_user_database.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string FOLDER = std::string(SimulatedFiles::HOME) + "/.vondle";
const std::string PINNED = FOLDER + "/pinned.json";
const std::string DIRTY = FOLDER + "/pinned_dirty.json";
const std::string PENDING = FOLDER + "/pinned_pending.json";
constexpr Duration SECOND = seconds(1);
constexpr Duration INSTANT{1};

struct PinsTest : testing::Test {
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  SimulatedUserDatabase users;
  Pins pins{files, scheduler, Paths(users)};
};

TEST_F(PinsTest, StandInTheHomeFolder) {
  EXPECT_EQ(pins.fileURL(), PINNED);
  EXPECT_EQ(pins.dirtyURL(), DIRTY);
  EXPECT_EQ(pins.pendingURL(), PENDING);
}

TEST_F(PinsTest, ReadTheFile) {
  files.put(PINNED, R"(["a1","b2","a1"])");
  EXPECT_TRUE(pins.contains("a1"));
  EXPECT_TRUE(pins.contains("b2"));
  EXPECT_FALSE(pins.contains("a"));
}

TEST_F(PinsTest, AreNoneWithoutAFileAndSeeItAfterASecond) {
  EXPECT_FALSE(pins.contains("x"));
  files.put(PINNED, R"(["x"])");
  scheduler.advance(SECOND - INSTANT);
  EXPECT_FALSE(pins.contains("x"));
  scheduler.advance(INSTANT);
  EXPECT_TRUE(pins.contains("x"));
}

TEST_F(PinsTest, LookAtTheFileOnceASecond) {
  files.put(PINNED, R"(["x"])");
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_TRUE(pins.contains("x"));
  scheduler.advance(SECOND - INSTANT);
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_EQ(files.attributesCount(PINNED), 1);
  scheduler.advance(INSTANT);
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_EQ(files.attributesCount(PINNED), 2);
  scheduler.advance(SECOND - INSTANT);
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_EQ(files.attributesCount(PINNED), 2);
  EXPECT_EQ(files.readCount(PINNED), 1);
}

TEST_F(PinsTest, AreReadAgainWhenTheFileChanged) {
  files.put(PINNED, R"(["x"])");
  EXPECT_TRUE(pins.contains("x"));
  scheduler.advance(SECOND);
  files.put(PINNED, R"(["y"])");
  EXPECT_FALSE(pins.contains("x"));
  EXPECT_TRUE(pins.contains("y"));
  EXPECT_EQ(files.readCount(PINNED), 2);
}

TEST_F(PinsTest, AreNoneAgainWhenTheFileIsGone) {
  files.put(PINNED, R"(["x"])");
  EXPECT_TRUE(pins.contains("x"));
  ASSERT_TRUE(files.remove(PINNED));
  scheduler.advance(SECOND);
  EXPECT_FALSE(pins.contains("x"));
}

TEST_F(PinsTest, AreNoneInABrokenFile) {
  for (const auto* text : {"", "{", "{}", R"("x")", R"(["x",1])", R"([["x"]])", R"({"x":true})", R"(["x")"}) {
    files.put(PINNED, text);
    scheduler.advance(SECOND);
    EXPECT_FALSE(pins.contains("x")) << text;
  }
}

TEST_F(PinsTest, AreAddedAndRemovedAndWritten) {
  pins.set("b", true);
  pins.set("a", true);
  EXPECT_EQ(files.contents(PINNED), R"(["a","b"])");
  pins.set("b", false);
  pins.set("unheard", false);
  EXPECT_EQ(files.contents(PINNED), R"(["a"])");
  pins.set("a", false);
  EXPECT_EQ(files.contents(PINNED), "[]");
}

TEST_F(PinsTest, ArePutTogetherWithWhatOthersWrote) {
  files.put(PINNED, R"(["theirs"])");
  pins.set("ours", true);
  EXPECT_EQ(files.contents(PINNED), R"(["ours","theirs"])");
}

TEST_F(PinsTest, AreNotReadAgainAfterOneOfOurOwnIsSet) {
  pins.set("x", true);
  const int reads = files.readCount(PINNED);
  EXPECT_TRUE(pins.contains("x"));
  scheduler.advance(SECOND);
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_EQ(files.readCount(PINNED), reads);
}

TEST_F(PinsTest, AreKeptInMemoryWhenTheyCannotBeWritten) {
  files.put(PINNED, R"(["a"])");
  files.fail(FileOperation::write, PINNED, ENOSPC);
  pins.set("x", true);
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_EQ(files.contents(PINNED), R"(["a"])");
  scheduler.advance(SECOND);
  EXPECT_TRUE(pins.contains("x"));
}

TEST_F(PinsTest, SurviveARestart) {
  pins.set("x", true);
  EXPECT_TRUE(Pins(files, scheduler, Paths(users)).contains("x"));
}

TEST_F(PinsTest, FollowTheMonotonicClockOnly) {
  files.put(PINNED, R"(["x"])");
  EXPECT_TRUE(pins.contains("x"));
  scheduler.setWallClock(Timestamp{0});
  scheduler.advance(SECOND);
  EXPECT_TRUE(pins.contains("x"));
  EXPECT_EQ(files.attributesCount(PINNED), 2);
}

TEST_F(PinsTest, GiveTheDirtyItemsOnceInOrder) {
  files.put(DIRTY, R"(["b","a","b"])");
  EXPECT_THAT(pins.takeDirty(), ElementsAre("b", "a", "b"));
  EXPECT_FALSE(files.exists(DIRTY));
  EXPECT_THAT(pins.takeDirty(), IsEmpty());
}

TEST_F(PinsTest, LeaveADirtyFileThatTheyDoNotUnderstand) {
  for (const auto* text : {"", "{}", R"({"a":1})", R"(["a",1])", R"(["a")", "null"}) {
    files.put(DIRTY, text);
    EXPECT_THAT(pins.takeDirty(), IsEmpty()) << text;
    EXPECT_EQ(files.contents(DIRTY), text);
  }
}

TEST_F(PinsTest, GiveTheDirtyItemsThoughTheirFileCannotBeRemoved) {
  files.put(DIRTY, R"(["a"])");
  files.fail(FileOperation::remove, DIRTY, EACCES);
  EXPECT_THAT(pins.takeDirty(), ElementsAre("a"));
}

TEST_F(PinsTest, GiveTheRequestsOnceSkippingWhatIsNone) {
  files.put(PENDING, R"([{"id":"a","pin":true},{"id":"b"},{"pin":false}])");
  EXPECT_THAT(pins.takePending(), ElementsAre(PinRequest{"a", true}));
  EXPECT_FALSE(files.exists(PENDING));
  EXPECT_THAT(pins.takePending(), IsEmpty());
}

TEST_F(PinsTest, ReadTheWishOfARequestFromNumbersToo) {
  files.put(PENDING, R"([{"id":"a","pin":false},{"id":"b","pin":1},{"id":"c","pin":0},{"id":"d","pin":-0.5},
                         {"id":"e","pin":"true"},{"id":"f","pin":null},{"id":7,"pin":true},{},{"id":"a","pin":true}])");
  EXPECT_THAT(pins.takePending(), ElementsAre(PinRequest{"a", false}, PinRequest{"b", true}, PinRequest{"c", false},
                                              PinRequest{"d", true}, PinRequest{"a", true}));
}

TEST_F(PinsTest, LeaveAPendingFileThatTheyDoNotUnderstand) {
  for (const auto* text : {"", "{}", R"([{"id":"a","pin":true},1])", R"(["a"])", R"([{"id":"a","pin":true})"}) {
    files.put(PENDING, text);
    EXPECT_THAT(pins.takePending(), IsEmpty()) << text;
    EXPECT_EQ(files.contents(PENDING), text);
  }
}

TEST_F(PinsTest, GiveTheRequestsThoughTheirFileCannotBeRemoved) {
  files.put(PENDING, R"([{"id":"a","pin":true}])");
  files.fail(FileOperation::remove, PENDING, EACCES);
  EXPECT_THAT(pins.takePending(), ElementsAre(PinRequest{"a", true}));
}

TEST_F(PinsTest, AreNoneInAFileThatIsCutAnywhere) {
  const std::string whole = R"(["a1","b\u00e92","Zoë"])";
  for (const auto& path : {PINNED, DIRTY, PENDING}) {
    const auto text = path == PENDING ? std::string(R"([{"id":"a1","pin":true},{"id":"b2","pin":0}])") : whole;
    for (std::size_t length = 0; length < text.size(); ++length) {
      files.put(path, text.substr(0, length));
      scheduler.advance(SECOND);
      EXPECT_FALSE(pins.contains("a1")) << length;
      EXPECT_THAT(pins.takeDirty(), IsEmpty()) << length;
      EXPECT_THAT(pins.takePending(), IsEmpty()) << length;
    }
  }
}

}  // namespace
}  // namespace vondle
