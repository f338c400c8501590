#include "service/listing/folder_listing.h"

#include <filesystem>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/fake_extension.h"
#include "testing/read_only_extension.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

const std::string ROOT = ROOT_CONTAINER.text;
constexpr Request VIEWER{.isFileViewerRequest = true};

class FolderListingTest : public testing::Test {
 protected:
  FolderListingTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vondle-listing-XXXXXX").native();
    folder_ = ::mkdtemp(pattern.data());
    replica_ = *Replica::open(folder_ + "/replica.sqlite");
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    listing_ = std::make_shared<FolderListing>(*tree_, extension_, errors_, scheduler_, scheduler_);
  }
  ~FolderListingTest() override {
    listing_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    extension_.letAnswersGo();
    scheduler_.runUntilIdle();
    std::filesystem::remove_all(folder_);
  }

  // Set once the answer has come: an error or none.
  using Answer = std::shared_ptr<std::optional<std::optional<Error>>>;
  Answer require(Inode folder = ROOT_INODE, const std::shared_ptr<Progress>& wait = nullptr) {
    auto answer = std::make_shared<std::optional<std::optional<Error>>>();
    listing_->require(folder, VIEWER, wait, [answer](std::optional<Error> error) { *answer = std::move(error); });
    return answer;
  }
  std::optional<Error> list(Inode folder = ROOT_INODE) {
    const auto answer = require(folder);
    scheduler_.runUntilIdle();
    EXPECT_TRUE(*answer);
    return answer->value_or(std::nullopt);
  }

  std::string folder_;
  VirtualScheduler scheduler_;
  FakeExtension extension_{"/nowhere"};
  LastErrors errors_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<FolderListing> listing_;
};

TEST_F(FolderListingTest, AFolderIsListedOnceForTheOneWhoLooks) {
  extension_.addFile("1", ROOT, "a", "");
  EXPECT_EQ(list(), std::nullopt);
  EXPECT_TRUE(extension_.lastRequest().isFileViewerRequest);
  EXPECT_TRUE(replica_->lookup(ROOT_INODE, "a"));
  EXPECT_TRUE(*require()) << "the second answer comes at once";
  EXPECT_EQ(extension_.listingsOf(ROOT), 1);
}

TEST_F(FolderListingTest, AllPagesAreRead) {
  extension_.setPageSize(10);
  for (int i = 0; i < 35; ++i) extension_.addFile(fmt::format("{}", i), ROOT, fmt::format("n{}", i), "");
  EXPECT_EQ(list(), std::nullopt);
  EXPECT_EQ(replica_->children(ROOT_INODE).size(), 35U);
}

TEST_F(FolderListingTest, ThoseWhoNeedTheSameFolderShareOneListing) {
  extension_.holdAnswers();
  const auto first = require();
  const auto second = require();
  EXPECT_EQ(listing_->waitersFor(ROOT_INODE), 2U);
  EXPECT_FALSE(*first);
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(first->value(), std::nullopt);
  EXPECT_EQ(second->value(), std::nullopt);
  EXPECT_EQ(extension_.listingsOf(ROOT), 1);
}

TEST_F(FolderListingTest, AFailureReachesEveryoneIsRememberedAndTriedAgain) {
  const Error error(API_ERROR_DOMAIN, 500);
  extension_.failListings(error);
  EXPECT_EQ(list(), error);
  EXPECT_EQ(errors_.of(ROOT_INODE)->error, error);
  EXPECT_EQ(errors_.of(ROOT_INODE)->when, VirtualScheduler::START);
  extension_.failListings(std::nullopt);
  EXPECT_EQ(list(), std::nullopt);
  EXPECT_FALSE(errors_.of(ROOT_INODE));
}

TEST_F(FolderListingTest, AWaitCanBeCancelledAndTheListingGoesOn) {
  extension_.addFile("1", ROOT, "a", "");
  extension_.holdAnswers();
  const auto wait = Progress::make();
  const auto answer = require(ROOT_INODE, wait);
  wait->cancel();
  EXPECT_EQ(answer->value(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  const auto late = require();
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(late->value(), std::nullopt);
  EXPECT_EQ(extension_.listingsOf(ROOT), 1);
}

TEST_F(FolderListingTest, OnlyFoldersOfTheTreeAreListed) {
  extension_.addFile("1", ROOT, "a", "");
  list();
  EXPECT_EQ(list(*replica_->inodeOf({"1"}))->code, NO_SUCH_ITEM);
  EXPECT_EQ(list(999)->code, NO_SUCH_ITEM);
}

TEST_F(FolderListingTest, NewsThatArrivesDuringTheListingIsNotLost) {
  extension_.addFile("1", ROOT, "old name", "");
  extension_.holdAnswers();
  const auto answer = require();
  tree_->applyNews({FakeExtension::file("1", ROOT, "new name", ""), FakeExtension::file("2", ROOT, "new", "")}, {},
                   [] {});
  scheduler_.runUntilIdle();
  extension_.letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(answer->value(), std::nullopt);
  EXPECT_TRUE(replica_->lookup(ROOT_INODE, "new name"));
  EXPECT_TRUE(replica_->lookup(ROOT_INODE, "new"));
}

// An extension that never comes to an end.
class EndlessExtension final : public ReadOnlyExtension {
 public:
  explicit EndlessExtension(bool samePage) : samePage_(samePage) {}
  class Pages final : public Enumerator {
   public:
    explicit Pages(bool samePage) : samePage_(samePage) {}
    void enumerateItems(std::shared_ptr<EnumerationObserver> observer, Page page) override {
      observer->finishEnumeratingUpToPage(samePage_ ? "again" : page + "x");
    }
    void enumerateChanges(std::shared_ptr<ChangeObserver> observer, SyncAnchor from) override {
      observer->finishEnumeratingChangesUpToSyncAnchor(std::move(from), false);
    }
    void currentSyncAnchor(Completion<std::optional<SyncAnchor>> completion) override {
      std::move(completion)(std::nullopt);
    }
    void invalidate() override {}

   private:
    bool samePage_;
  };
  void invalidate() override {}
  std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier, Request, Completion<Result<Item>> completion) override {
    std::move(completion)(failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}));
    return Progress::make();
  }
  std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier, Request) override {
    return std::make_shared<Pages>(samePage_);
  }
  std::shared_ptr<Progress> fetchContents(ItemIdentifier, std::optional<ItemVersion>, Request,
                                          Completion<Result<FetchedContents>> completion) override {
    std::move(completion)(failure({FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}));
    return Progress::make();
  }

 private:
  bool samePage_;
};

TEST_F(FolderListingTest, AListingWithoutEndFails) {
  for (const bool samePage : {true, false}) {
    EndlessExtension endless(samePage);
    const auto listing = std::make_shared<FolderListing>(*tree_, endless, errors_, scheduler_, scheduler_);
    std::optional<Error> answer;
    listing->require(ROOT_INODE, VIEWER, nullptr, [&](std::optional<Error> error) { answer = std::move(error); });
    scheduler_.runUntilIdle();
    EXPECT_TRUE(answer);
    EXPECT_FALSE(replica_->isListed(ROOT_INODE));
  }
}

TEST_F(FolderListingTest, ClosingEndsEveryWait) {
  extension_.holdAnswers();
  const auto answer = require();
  const Error closing("Test", 1);
  listing_->close(closing);
  EXPECT_EQ(answer->value(), closing);
  EXPECT_EQ(list(), closing);
}

}  // namespace
}  // namespace vondle
