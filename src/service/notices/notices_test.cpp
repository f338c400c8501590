#include "service/notices/notices.h"

#include <memory>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "testing/simulated_desktop_notices.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

const Error FULL(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA,
                 "Vondle is full. “a” will upload once there is room; open the Vondle menu to get more space.");
const Error REFUSED(API_ERROR_DOMAIN, 401);

class NoticesTest : public testing::Test {
 protected:
  void went(EditID id) {
    notices_->went([id](EditID each) { return each == id; });
  }
  void wait(Duration duration) { scheduler_.advance(duration); }

  VirtualScheduler scheduler_;
  std::shared_ptr<SimulatedDesktopNotices> desktop_ = std::make_shared<SimulatedDesktopNotices>();
  std::shared_ptr<Notices> notices_ = std::make_shared<Notices>(desktop_, "Work", scheduler_, scheduler_);
};

TEST_F(NoticesTest, AFullAccountIsToldOfOnceAndUntilThereIsRoomForAll) {
  notices_->failed(FULL, 1);
  EXPECT_THAT(desktop_->shown, ElementsAre(FULL.description));
  notices_->failed(FULL, 2);
  notices_->failed(FULL, 1);
  EXPECT_THAT(desktop_->shown, SizeIs(1));
  went(1);
  went(3);
  EXPECT_THAT(desktop_->visible, SizeIs(1)) << "there is still no room for 2";
  wait(NoticeRules::SOON * 2);
  notices_->failed(FULL, 2);
  EXPECT_THAT(desktop_->shown, SizeIs(1));
  went(2);
  EXPECT_THAT(desktop_->visible, IsEmpty());
}

TEST_F(NoticesTest, TheAccountMayTurnOutToBeFullWhenTheBytesCome) {
  notices_->failed(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "Vondle's server answered HTTP 507 for “a”.")
                       .withUnderlying({TRANSFER_ERROR_DOMAIN, 507}),
                   1);
  EXPECT_THAT(desktop_->shown, ElementsAre("Vondle is full."));
}

TEST_F(NoticesTest, WhatBeginsAgainSoonIsNoNewsAndLaterIs) {
  notices_->failed(FULL, 1);
  went(1);
  wait(NoticeRules::SOON - seconds(1));
  notices_->failed(FULL, 2);
  EXPECT_THAT(desktop_->shown, SizeIs(1));
  went(2);
  wait(seconds(1));
  notices_->failed(FULL, 3);
  EXPECT_THAT(desktop_->shown, SizeIs(2));
  went(3);
  wait(NoticeRules::SOON - seconds(1));
  notices_->failed(FULL, 4);
  EXPECT_THAT(desktop_->shown, SizeIs(2));
}

TEST_F(NoticesTest, NothingIsWithdrawnThatIsNotOver) {
  notices_->answered();
  went(1);
  notices_->failed(FULL, 1);
  notices_->answered();
  went(2);
  EXPECT_EQ(desktop_->withdrawals, 0);
}

TEST_F(NoticesTest, ARefusedKeyIsToldOfOnceAndUntilTheServerLetsUsIn) {
  for (int i = 0; i < 3; ++i) {
    notices_->failed(REFUSED);
    wait(NoticeRules::SOON);
  }
  EXPECT_THAT(desktop_->shown, ElementsAre("Vondle needs to be signed in again."));
  notices_->answered();
  EXPECT_THAT(desktop_->visible, IsEmpty());
  wait(NoticeRules::SOON);
  notices_->failed(
      Error(FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED, "Vondle needs to be signed in again to download “a”."));
  EXPECT_EQ(desktop_->shown.back(), "Vondle needs to be signed in again to download “a”.");
}

TEST_F(NoticesTest, EachCauseIsOneOfItsOwn) {
  notices_->failed(REFUSED);
  notices_->failed(FULL, 1);
  EXPECT_THAT(desktop_->visible, SizeIs(2));
  notices_->answered();
  EXPECT_THAT(desktop_->visible, ElementsAre(Pair("full", FULL.description)));
}

TEST_F(NoticesTest, OtherFailuresAreNoNewsAndCausesAreFoundBehindOthers) {
  for (const auto& error :
       {Error(URL_ERROR_DOMAIN, URL_TIMED_OUT), Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "away"),
        Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM), Error(API_ERROR_DOMAIN, 403), Error(API_ERROR_DOMAIN, 500),
        Error(API_ERROR_DOMAIN, API_NOT_CONFIGURED), Error::posix(EEXIST, "x")})
    notices_->failed(error, 1);
  EXPECT_THAT(desktop_->shown, IsEmpty());
  notices_->failed(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no").withUnderlying(REFUSED));
  EXPECT_THAT(desktop_->shown, SizeIs(1));
}

TEST_F(NoticesTest, ABurstOfConflictedCopiesIsOneNoticeThatCounts) {
  for (int i = 1; i <= 30; ++i) notices_->conflicted(fmt::format("{}.txt", i));
  EXPECT_THAT(desktop_->shown, IsEmpty()) << "gathered";
  wait(Notices::GATHER_TIME);
  EXPECT_THAT(desktop_->shown, ElementsAre("30 files, “1.txt” the first, were changed on the server too; what was "
                                           "changed here is kept beside each as a conflicted copy."));
  for (int i = 31; i <= 33; ++i) {
    wait(NoticeRules::BURST - Notices::GATHER_TIME - seconds(1));
    notices_->conflicted(fmt::format("{}.txt", i));
    wait(Notices::GATHER_TIME);
    EXPECT_THAT(desktop_->visible, ElementsAre(Pair("conflict", HasSubstr(fmt::format("{} files, “1.txt”", i)))));
  }
  wait(NoticeRules::BURST - Notices::GATHER_TIME);
  notices_->conflicted("again.txt");
  wait(Notices::GATHER_TIME);
  EXPECT_EQ(desktop_->shown.back(),
            "“again.txt” was changed on the server too; what was changed here is kept beside it as a conflicted copy.");
}

TEST_F(NoticesTest, NamesAreShownAsTheyAreButForWhatCannotBeSeen) {
  const std::string odd = "Für \"Zoë\" #1 (100%)? [draft] 'x' <b>&amp;";
  notices_->conflicted(odd + "\n\x1b[31m");
  wait(Notices::GATHER_TIME);
  EXPECT_THAT(desktop_->shown, ElementsAre(testing::StartsWith("“" + odd + "\\n\\x1b[31m” was changed")));
  notices_->failed(Error(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA, "“" + odd + "\x07” waits"), 1);
  EXPECT_EQ(desktop_->shown.back(), "“" + odd + "\\x07” waits");
}

}  // namespace
}  // namespace vondle
