#include "service/thumbnails/place_changes.h"

#include <gmock/gmock.h>

#include "testing/local_edits_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(CanHaveThumbnail, SaysSoOfPicturesAndVideosByTheirNames) {
  for (const auto* name : {"a.jpg", "b.PNG", "c d.heic", "e.tar.webp", "f.mp4", "g.MOV", ".h.gif"})
    EXPECT_TRUE(canHaveThumbnail(name)) << name;
  for (const auto* name : {"", "a", "jpg", ".jpg", "a.", "a.txt", "a.jpg.zip", "a.mp3", "a.pdf", "a.unheard-of"})
    EXPECT_FALSE(canHaveThumbnail(name)) << name;
}

// As "from -> to", with a slash after folders; "" stands for nowhere.
std::vector<std::string> told(const PlaceChanges& moment) {
  std::vector<std::string> lines;
  for (const auto& [from, change] : moment.changes)
    lines.push_back(from + (change.isFolder ? "/" : "") + " -> " + change.to.value_or(""));
  return lines;
}

class PlaceChangesTest : public LocalEditsRig {
 protected:
  PlaceChangesTest() {
    list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B"), file("t", ROOT, "t.txt")});
    list("a", {file("x", "a", "x y.jpg"), folder("c", "a", "C")});
    list("b", {});
    list("c", {file("y", "c", "y.png")});
    changes_.clear();
  }
  std::vector<std::string> since() { return told(placeChanges(std::exchange(changes_, {}), *replica_, "/M")); }
};

TEST_F(PlaceChangesTest, OfFilesAndFoldersThatProgramsMove) {
  rename("a", "x y.jpg", "b", "z.jpg");
  EXPECT_THAT(since(), ElementsAre("file:///M/A/x%20y.jpg -> file:///M/B/z.jpg"));
  rename(ROOT, "A", "b", "D");
  EXPECT_THAT(since(), ElementsAre("file:///M/A/ -> file:///M/B/D"));
  rename("b", "z.jpg", ROOT, "z.bin");
  EXPECT_THAT(since(), ElementsAre("file:///M/B/z.jpg -> file:///M/z.bin"));
}

TEST_F(PlaceChangesTest, OfThoseThatTheServerMovesOrDeletes) {
  news({file("x", "b", "x.jpg"), folder("c", ROOT, "C")});
  EXPECT_THAT(since(), ElementsAre("file:///M/A/C/ -> file:///M/C", "file:///M/A/x%20y.jpg -> file:///M/B/x.jpg"));
  news({}, {{"c"}});
  EXPECT_THAT(since(), ElementsAre("file:///M/C/ -> "));
  news({}, {{"x"}});
  EXPECT_THAT(since(), ElementsAre("file:///M/B/x.jpg -> "));
}

TEST_F(PlaceChangesTest, NotOfOtherFilesNorOfWhatIsNewOrOnlyChanges) {
  rename(ROOT, "t.txt", ROOT, "t2.txt");
  removeFile(ROOT, "t2.txt");
  createFile(ROOT, "new.jpg");
  removeFolder(ROOT, "B");
  news({file("x", "a", "x y.jpg", 2)});
  EXPECT_THAT(since(), IsEmpty());
}

TEST_F(PlaceChangesTest, AFileThatIsWrittenOverHasGone) {
  createFile("a", "new.jpg");
  changes_.clear();
  rename("a", "new.jpg", "a", "x y.jpg");
  const auto lines = since();
  EXPECT_THAT(lines, testing::Contains("file:///M/A/new.jpg -> file:///M/A/x%20y.jpg"));
}

PlaceChanges moment(std::vector<std::pair<std::string, std::optional<std::string>>> changes) {
  PlaceChanges moment;
  for (auto& [from, to] : changes) moment.changes[from].to = std::move(to);
  return moment;
}

TEST(PlaceAfter, FollowsAFileThroughAllMoments) {
  const std::vector<PlaceChanges> moments = {
      moment({{"file:///m/a", "file:///m/b"}, {"file:///m/b", "file:///m/a"}}),
      moment({{"file:///m/b/in", "file:///m/out"}}),
      moment({{"file:///m/b", std::nullopt}}),
      moment({{"file:///m/out", "file:///m/last"}}),
  };
  struct Case {
    const char* from;
    std::optional<std::string> to;
  };
  const Case cases[] = {
      {"file:///m/a/in", "file:///m/last"},  // with its folder, then out of it
      {"file:///m/a/in/deep", "file:///m/last/deep"},
      {"file:///m/a/other", std::nullopt},  // the folder was deleted
      {"file:///m/a", std::nullopt},
      {"file:///m/b", "file:///m/a"},  // the two were exchanged at one moment
      {"file:///m/b/x", "file:///m/a/x"},
      {"file:///m/ab", "file:///m/ab"},  // no more than the beginning is the same
      {"file:///m/out", "file:///m/last"},
      {"file:///elsewhere", "file:///elsewhere"},
      {"", ""},
  };
  for (const auto& test : cases) EXPECT_EQ(placeAfter(test.from, moments), test.to) << test.from;
}

}  // namespace
}  // namespace vondle
