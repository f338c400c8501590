#include "service/thumbnails/thumbnails.h"

#include <filesystem>
#include <fstream>
#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "fileprovider/error_codes.h"
#include "service/thumbnails/thumbnail_png.h"
#include "testing/captured_log.h"
#include "testing/local_edits_rig.h"
#include "testing/read_only_extension.h"

namespace vondle {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// What the server has to show, by identifier; answers when it is let.
class Gallery final : public ReadOnlyExtension {
 public:
  using Image = Result<std::optional<std::string>>;

  void invalidate() override {}
  std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier, Request, Completion<Result<Item>> completion) override {
    std::move(completion)(failure(refusal()));
    return Progress::make();
  }
  std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier, Request) override { return nullptr; }
  std::shared_ptr<Progress> fetchContents(ItemIdentifier, std::optional<ItemVersion>, Request,
                                          Completion<Result<FetchedContents>> completion) override {
    ++contentsFetched;
    std::move(completion)(failure(refusal()));
    return Progress::make();
  }
  std::shared_ptr<Progress> fetchThumbnails(std::vector<ItemIdentifier> identifiers, ThumbnailSize,
                                            ThumbnailReceiver receiver,
                                            Completion<std::optional<Error>> completion) override {
    requests.push_back(identifiers);
    progress = Progress::make();
    pending_ = [this, identifiers = std::move(identifiers), receiver = std::move(receiver),
                completion = std::move(completion)]() mutable {
      for (const auto& identifier : identifiers) {
        const auto found = images.find(identifier.text);
        receiver(identifier, found == images.end() ? Image(std::nullopt) : found->second);
      }
      for (const auto& [identifier, image] : unasked) receiver({identifier}, image);
      std::move(completion)(std::nullopt);
    };
    if (!isHolding) answer();
    return progress;
  }
  void answer() {
    if (auto pending = std::exchange(pending_, nullptr)) pending();
  }

  std::map<std::string, Image> images;
  std::vector<std::pair<std::string, Image>> unasked;
  std::vector<std::vector<ItemIdentifier>> requests;
  std::shared_ptr<Progress> progress;
  int contentsFetched = 0;
  bool isHolding = false;

 private:
  Task pending_;
};

// Takes texts that begin with "picture" for pictures; "evil ones" come out as what nobody should be given.
class FakeScaler final : public PictureScaler {
 public:
  explicit FakeScaler(Scheduler& scheduler) : scheduler_(scheduler) {}

  void scale(std::string picture, ScalingCompletion completion) override {
    ++count;
    std::optional<ScaledPicture> scaled;
    if (picture.starts_with("picture")) scaled = ScaledPicture(3, png::onePixel());
    if (picture.starts_with("evil")) scaled = ScaledPicture(3, png::onePixel() + "<script>");
    Task task = [scaled = std::move(scaled), completion = std::move(completion)]() mutable {
      std::move(completion)(std::move(scaled));
    };
    if (isHolding)
      held_.push_back(std::move(task));
    else
      scheduler_.global().post(std::move(task));
  }
  void letGo() {
    isHolding = false;
    for (auto& task : std::exchange(held_, {})) scheduler_.global().post(std::move(task));
  }

  int count = 0;
  bool isHolding = false;

 private:
  Scheduler& scheduler_;
  std::vector<Task> held_;
};

class ThumbnailsTest : public LocalEditsRig {
 protected:
  ThumbnailsTest() {
    cache_ = folder_ + "/cache/thumbnails";
    start();
    list(ROOT, {folder("a", ROOT, "A"), folder("b", ROOT, "B")});
    list("a", {file("x", "a", "x.jpg"), file("y", "a", "y.mp4"), file("t", "a", "t.txt")});
    list("b", {});
    for (const auto* id : {"x", "y"}) gallery_.images.emplace(id, "picture");
  }
  ~ThumbnailsTest() override {
    gallery_.answer();
    scaler_.letGo();
    thumbnails_->stop();
    scheduler_.runUntilIdle();
  }

  void start(bool keepsFailures = false) {
    thumbnails_ = std::make_shared<Thumbnails>(
        Thumbnails::Parts{.tree = *tree_,
                          .extension = gallery_,
                          .isEdited = [this](Inode inode) { return edited_.contains(inode); },
                          .scaler = scaler_,
                          .cache = {cache_, "1.2"},
                          .scheduler = scheduler_,
                          .clock = scheduler_,
                          .mountPath = "/M",
                          .keepsFailures = keepsFailures});
    tree_->subscribe([thumbnails = thumbnails_](const auto& changes) { thumbnails->apply(changes); });
  }
  void look(const std::string& id) {
    thumbnails_->folderListed(inode(id));
    scheduler_.runUntilIdle();
  }
  void lookLater(const std::string& id) {
    scheduler_.advance(Thumbnails::LOOK_AGAIN);
    look(id);
  }
  // All that the cache has of a size, by the URIs.
  [[nodiscard]] std::set<std::string> shown(const std::string& size = "large") const {
    std::set<std::string> uris;
    const ThumbnailCache cache(cache_, "1.2");
    for (const auto& entry : cache.entries())
      if (entry.starts_with(size + "/")) uris.insert(cache.uriOfEntry(entry).value_or(entry));
    return uris;
  }
  [[nodiscard]] bool has(const std::string& uri, std::int64_t modified) const {
    return ThumbnailCache(cache_, "1.2").has({.uri = uri, .modified = modified});
  }
  // With pictures of those identifiers.
  void fill(const std::string& id, std::size_t count) {
    std::vector<Item> items;
    for (std::size_t i = 0; i < count; ++i) {
      const auto each = fmt::format("{}-{}", id, i);
      items.push_back(file(each, id, each + ".jpg"));
      gallery_.images.emplace(each, "picture");
    }
    list(id, std::move(items));
  }
  [[nodiscard]] std::size_t asked() const {
    std::size_t count = 0;
    for (const auto& request : gallery_.requests) count += request.size();
    return count;
  }

  CapturedLog log_;
  std::string cache_;
  Gallery gallery_;
  FakeScaler scaler_{scheduler_};
  std::set<Inode> edited_;
  std::shared_ptr<Thumbnails> thumbnails_;
};

TEST_F(ThumbnailsTest, AListedFolderGetsThoseOfItsPicturesAndVideosInOneRequest) {
  EXPECT_THAT(gallery_.requests, IsEmpty()) << "the service's own listing asks for nothing";
  look("a");
  ASSERT_THAT(gallery_.requests, SizeIs(1));
  EXPECT_THAT(gallery_.requests[0], UnorderedElementsAre(ItemIdentifier{"x"}, ItemIdentifier{"y"}));
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/x.jpg", "file:///M/A/y.mp4"));
  EXPECT_EQ(shown("normal"), shown());
  EXPECT_EQ(gallery_.contentsFetched, 0);
}

TEST_F(ThumbnailsTest, WhenAllIsDoneNothingRuns) {
  look("a");
  EXPECT_EQ(scheduler_.readyCount(), 0u);
  EXPECT_EQ(scheduler_.timerCount(), 0u);
}

TEST_F(ThumbnailsTest, TheTimeIsWholeSecondsAsStatShowsThem) {
  const std::pair<double, std::int64_t> cases[] = {
      {1'714'550'400, 1'714'550'400}, {1'714'550'400.999'99, 1'714'550'400}, {0.25, 0}, {-0.25, -1}, {-7, -7},
      {1e300, 9'000'000'000'000'000}};
  for (const auto& [modified, seconds] : cases) {
    auto item = file("x", "a", "x.jpg");
    item.contentModificationDate = Timestamp{modified};
    news({item});
    lookLater("a");
    EXPECT_TRUE(has("file:///M/A/x.jpg", seconds)) << modified;
  }
}

TEST_F(ThumbnailsTest, WhatIsThereIsNotMadeAgain) {
  look("a");
  lookLater("a");
  EXPECT_THAT(gallery_.requests, SizeIs(1));
  fs::remove_all(cache_ + "/normal");
  lookLater("a");
  EXPECT_THAT(gallery_.requests, SizeIs(2)) << "but when it is not there any more";
  EXPECT_EQ(scaler_.count, 4);
}

TEST_F(ThumbnailsTest, AFolderThatIsListedOverAndOverIsLookedAtOnceInAWhile) {
  look("a");
  fs::remove_all(cache_);
  for (int i = 0; i < 100; ++i) look("a");
  EXPECT_THAT(gallery_.requests, SizeIs(1));
  news({file("z", "a", "z.png")});
  look("a");
  EXPECT_THAT(gallery_.requests, SizeIs(2)) << "or when something has changed";
}

TEST_F(ThumbnailsTest, OtherContentsOrAnotherTimeReplaceIt) {
  look("a");
  auto item = file("x", "a", "x.jpg", 2);
  news({item});
  item.contentModificationDate = Timestamp{5};
  item.itemVersion.metadataVersion = "later";
  news({item});
  look("a");
  EXPECT_TRUE(has("file:///M/A/x.jpg", 5));
  EXPECT_THAT(gallery_.requests.back(), ElementsAre(ItemIdentifier{"x"}));
}

TEST_F(ThumbnailsTest, ContentsThatChangeMeanwhileGetNoThumbnailOfTheFormerOnes) {
  gallery_.isHolding = true;
  look("a");
  news({file("x", "a", "x.jpg", 2)});
  gallery_.answer();
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/y.mp4"));
}

TEST_F(ThumbnailsTest, WhatProgramsHaveEditedHasNoneUntilItIsOnTheServer) {
  edited_.insert(inode("x"));
  look("a");
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/y.mp4"));
  EXPECT_EQ(asked(), 1u);
  edited_.clear();
  lookLater("a");
  EXPECT_THAT(shown(), SizeIs(2));
}

TEST_F(ThumbnailsTest, AFileThatMovesMeanwhileGetsItWhereItIs) {
  scaler_.isHolding = true;
  look("a");
  rename("a", "x.jpg", "b", "z.jpg");
  rename(ROOT, "B", ROOT, "C");
  scaler_.letGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/y.mp4", "file:///M/C/z.jpg"));
}

TEST_F(ThumbnailsTest, TheyMoveWithFilesAndFoldersAndGoWithThem) {
  look("a");
  rename("a", "x.jpg", "b", "z #1.jpg");
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/y.mp4", "file:///M/B/z%20%231.jpg"));
  rename(ROOT, "A", "b", "Ä");
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), ElementsAre("file:///M/B/%C3%84/y.mp4", "file:///M/B/z%20%231.jpg"));
  EXPECT_EQ(shown("normal"), shown());
  removeFile("b", "z #1.jpg");
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), ElementsAre("file:///M/B/%C3%84/y.mp4"));
  look("a");
  EXPECT_THAT(gallery_.requests, SizeIs(1)) << "they are true where they are now";
}

TEST_F(ThumbnailsTest, ThoseInAFolderThatIsDeletedElsewhereGoWithIt) {
  look("a");
  std::ofstream(cache_ + "/large/another.png") << "of another program's";
  news({}, {{"a"}});
  EXPECT_THAT(shown(), ElementsAre("large/another.png"));
  EXPECT_THAT(shown("normal"), IsEmpty());
}

TEST_F(ThumbnailsTest, FilesThatExchangeTheirNamesNeverShowEachOther) {
  list("b", {file("p", "b", "p.jpg"), file("q", "b", "q.jpg")});
  gallery_.images.emplace("p", "picture");
  gallery_.images.emplace("q", "picture");
  look("b");
  news({file("p", "b", "q.jpg"), file("q", "b", "p.jpg")});
  EXPECT_THAT(shown(), IsEmpty());
  look("b");
  EXPECT_THAT(shown(), SizeIs(2));
}

TEST_F(ThumbnailsTest, ManyMovesInARowAllCount) {
  fill("b", 80);
  look("b");
  for (int i = 0; i < 80; ++i) tree_->applyDeletions({{fmt::format("b-{}", i)}}, [] {});
  scheduler_.runUntilIdle();
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(ThumbnailsTest, AHundredAreAskedForAtATime) {
  fill("b", 210);
  gallery_.isHolding = true;
  look("b");
  EXPECT_THAT(gallery_.requests, SizeIs(1));
  gallery_.isHolding = false;
  gallery_.answer();
  scheduler_.runUntilIdle();
  EXPECT_THAT(gallery_.requests, ElementsAre(SizeIs(100), SizeIs(100), SizeIs(10)));
  EXPECT_THAT(shown(), SizeIs(210));
}

TEST_F(ThumbnailsTest, NothingMoreIsAskedForWhilePicturesPileUp) {
  fill("b", 210);
  scaler_.isHolding = true;
  look("b");
  EXPECT_THAT(gallery_.requests, SizeIs(1));
  scaler_.letGo();
  scheduler_.runUntilIdle();
  EXPECT_THAT(gallery_.requests, SizeIs(3));
}

TEST_F(ThumbnailsTest, FilesGoInTheOrderOfTheirNames) {
  list("b", {file("2", "b", "b.jpg"), file("1", "b", "a.jpg"), file("3", "b", "c.jpg")});
  look("b");
  EXPECT_THAT(gallery_.requests.at(0), ElementsAre(ItemIdentifier{"1"}, ItemIdentifier{"2"}, ItemIdentifier{"3"}));
}

TEST_F(ThumbnailsTest, TheFolderListedLastGoesFirst) {
  fill("b", 150);
  gallery_.isHolding = true;
  look("b");
  look("a");
  gallery_.answer();
  scheduler_.runUntilIdle();
  ASSERT_THAT(gallery_.requests, SizeIs(2));
  EXPECT_THAT(gallery_.requests[1], testing::Contains(ItemIdentifier{"x"}));
}

TEST_F(ThumbnailsTest, FiveThousandWaitAndTheFoldersListedLongestAgoAreDropped) {
  gallery_.isHolding = true;
  look("a");  // is asked for at once
  std::vector<Item> folders = {folder("a", ROOT, "A"), folder("b", ROOT, "B")};
  for (int i = 0; i < 3; ++i) folders.push_back(folder(fmt::format("f{}", i), ROOT, fmt::format("F{}", i)));
  news(folders);
  for (int i = 0; i < 3; ++i) {
    fill(fmt::format("f{}", i), 2'000);
    look(fmt::format("f{}", i));
  }
  gallery_.isHolding = false;
  gallery_.images.clear();
  gallery_.answer();
  scheduler_.runUntilIdle();
  EXPECT_EQ(asked(), 2u + 4'000u);
  EXPECT_TRUE(gallery_.requests[1][0].text.starts_with("f2-"));
  EXPECT_TRUE(gallery_.requests.back()[0].text.starts_with("f1-"));
}

TEST_F(ThumbnailsTest, OfALargerFolderTheRestComesWhenItIsListedAgain) {
  fill("b", Thumbnails::MAX_WAITING + 10);
  gallery_.images.clear();
  look("b");
  EXPECT_EQ(asked(), Thumbnails::MAX_WAITING);
  lookLater("b");
  EXPECT_EQ(asked(), Thumbnails::MAX_WAITING + 10);
}

TEST_F(ThumbnailsTest, WhatTheServerHasNoneOfIsLeftAloneForAWhile) {
  gallery_.images.erase("x");
  look("a");
  lookLater("a");
  EXPECT_EQ(asked(), 2u);
  EXPECT_FALSE(fs::exists(cache_ + "/fail")) << "and is not written down";
  news({file("x", "a", "x.jpg", 2)});
  look("a");
  EXPECT_EQ(asked(), 3u) << "other contents are asked for";
  scheduler_.advance(Thumbnails::LEAVE_ALONE);
  look("a");
  EXPECT_EQ(asked(), 4u);
}

TEST_F(ThumbnailsTest, IfWantedItIsWrittenDownWhatHasNone) {
  start(true);
  gallery_.images.erase("x");
  look("a");
  EXPECT_THAT(shown("fail"), ElementsAre("file:///M/A/x.jpg"));
  start(true);
  look("a");
  EXPECT_EQ(asked(), 2u) << "so that another start does not ask";
}

TEST_F(ThumbnailsTest, OnesStillBeingMadeAreAskedForWhenTheFolderIsListedAgain) {
  const Error unavailable(COCOA_ERROR_DOMAIN, 1, "the server could not deliver");
  gallery_.images.insert_or_assign("x", failure(unavailable));
  look("a");
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/y.mp4"));
  scheduler_.advance(seconds(30));
  look("a");
  EXPECT_EQ(asked(), 2u);
  gallery_.images.insert_or_assign("x", "picture");
  lookLater("a");
  EXPECT_THAT(shown(), SizeIs(2));
}

TEST_F(ThumbnailsTest, WhenNothingCanBeHadTheRestIsLeftForLater) {
  fill("b", 1'000);
  for (auto& [id, image] : gallery_.images) image = failure(Error(URL_ERROR_DOMAIN, -1009, "offline"));
  look("b");
  EXPECT_THAT(gallery_.requests, SizeIs(1));
  EXPECT_THAT(log_.messages(), ElementsAre("no thumbnails can be had now: 100 failed, leaving 900 for later"));
}

TEST_F(ThumbnailsTest, WhatIsNoPictureIsRefusedAndNotAskedForAgain) {
  for (const std::string bad : {"<html>", "", "evil ones"}) {
    gallery_.images.insert_or_assign("x", bad);
    news({file("x", "a", "x.jpg", static_cast<int>(bad.size()) + 2)});
    const auto before = asked();
    lookLater("a");
    lookLater("a");
    EXPECT_EQ(shown().count("file:///M/A/x.jpg"), 0u) << bad;
    EXPECT_EQ(asked(), before + (before == 0 ? 2 : 1)) << bad;
  }
  EXPECT_THAT(log_.messages(), testing::Each("the thumbnail of /A/x.jpg is no picture"));
}

TEST_F(ThumbnailsTest, MoreThanThereIsRoomForWaitsForAnotherListing) {
  fill("b", 20);
  for (auto& [id, image] : gallery_.images) image = "picture" + std::string(PictureScaler::MAX_PICTURE_BYTES - 7, 'x');
  scaler_.isHolding = true;
  look("b");
  EXPECT_EQ(scaler_.count, static_cast<int>(Thumbnails::MAX_BYTES / PictureScaler::MAX_PICTURE_BYTES));
  scaler_.letGo();
  scheduler_.runUntilIdle();
  lookLater("b");
  EXPECT_THAT(shown(), SizeIs(20));
}

TEST_F(ThumbnailsTest, AnAnswerThatNobodyAskedForIsDropped) {
  gallery_.images.erase("y");
  gallery_.unasked = {{"t", "picture"}, {"x", "picture"}, {"nobody", "picture"}, {"y", "picture"}};
  look("a");
  EXPECT_EQ(scaler_.count, 1) << "not for other items, nor twice";
  EXPECT_THAT(shown(), ElementsAre("file:///M/A/x.jpg"));
}

TEST_F(ThumbnailsTest, ACacheThatCannotBeWrittenIsSaidOnceAndLeftAlone) {
  fill("b", 210);
  fs::create_directories(fs::path(cache_).parent_path());
  std::ofstream(cache_) << "no folder";
  look("b");
  EXPECT_LE(asked(), 200u);
  const auto before = asked();
  for (int i = 0; i < 5; ++i) lookLater("b");
  EXPECT_EQ(asked(), before);
  scheduler_.advance(Thumbnails::REST);
  look("b");
  EXPECT_GT(asked(), before);
  EXPECT_THAT(log_.messages(LogLevel::error), ElementsAre(HasSubstr("thumbnails cannot be kept")));
  fs::remove(cache_);
  scheduler_.advance(Thumbnails::REST);
  look("b");
  EXPECT_THAT(shown(), SizeIs(210));
}

TEST_F(ThumbnailsTest, AFolderThatHasGoneOrIsNoneIsNothing) {
  thumbnails_->folderListed(12'345);
  look("x");
  news({}, {{"a"}});
  look("a");
  EXPECT_THAT(gallery_.requests, IsEmpty());
}

TEST_F(ThumbnailsTest, StoppedItCancelsAndBeginsNothingMore) {
  fill("b", 150);
  gallery_.isHolding = true;
  look("b");
  thumbnails_->stop();
  scheduler_.runUntilIdle();
  EXPECT_TRUE(gallery_.progress->isCancelled());
  gallery_.answer();
  scheduler_.runUntilIdle();
  look("a");
  EXPECT_THAT(gallery_.requests, SizeIs(1));
  EXPECT_THAT(shown(), IsEmpty());
}

}  // namespace
}  // namespace vondle
