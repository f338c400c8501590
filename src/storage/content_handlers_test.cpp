#include "storage/content_handlers.h"

#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

TEST(ContentHandlersTest, RangesAreCutToWhatExists) {
  using Range = std::optional<std::pair<std::int64_t, std::int64_t>>;
  const struct {
    const char* header;
    Range expected;
  } cases[] = {
      {"", {}},
      {"bytes=0-4", std::pair(0, 4)},
      {"bytes=5-", std::pair(5, 9)},
      {"bytes=5-1000", std::pair(5, 9)},
      {"bytes=-3", std::pair(7, 9)},
      {"bytes=-1000", std::pair(0, 9)},
      {"bytes=9-9", std::pair(9, 9)},
      {"bytes=0-1,3-4", {}},
      {"bytes=4-2", {}},
      {"bytes=x-2", {}},
      {"bytes=2-x", {}},
      {"bytes=--2", {}},
      {"items=0-4", {}},
      {"bytes=", {}},
      {"bytes=-", {}},
      {"bytes=99999999999999999999-", {}},
  };
  for (const auto& [header, expected] : cases) {
    const auto range = rangeOf(header, 10);
    ASSERT_TRUE(range) << header;
    EXPECT_EQ(*range, expected) << header;
  }
  for (const char* header : {"bytes=10-", "bytes=10-20", "bytes=-0"}) {
    const auto range = rangeOf(header, 10);
    ASSERT_FALSE(range) << header;
    EXPECT_EQ(range.error().status, 416);
  }
  EXPECT_EQ(rangeOf("bytes=0-", 0).error().status, 416);
  EXPECT_EQ(rangeOf("bytes=-5", 0).error().status, 416);
}

class ContentAddressTest : public testing::Test {
 protected:
  int download(ContentRequest request) {
    const auto found = rig_.contentHandlers().download(request);
    return found ? 200 : found.error().status;
  }
  int upload(ContentRequest request, std::optional<std::int64_t> length = 1) {
    const auto receiver = rig_.contentHandlers().upload(request, length, "");
    return receiver ? 200 : receiver.error().status;
  }

  StorageRig rig_;
};

TEST_F(ContentAddressTest, AnAddressServesUntilItExpires) {
  const auto url = rig_.makeFile("f", "x").text("download_url");
  EXPECT_EQ(download(rig_.parse("GET", url)), 200);
  EXPECT_EQ(download(rig_.parse("HEAD", url)), 200);
  rig_.clock().advance(3599);
  EXPECT_EQ(download(rig_.parse("GET", url)), 200);
  rig_.clock().advance(1);
  EXPECT_EQ(download(rig_.parse("GET", url)), 403);
}

TEST_F(ContentAddressTest, AddressesForSendingExpireAndCannotBeForged) {
  const auto place = rig_.target("", "f", 1);
  const auto parts = rig_.target("", "big", 1, true);
  const json::Value ask = {{"key", parts.text("key")}, {"upload_id", parts.text("upload_id")}, {"parts", {1}}};
  const auto part = rig_.post("upload-parts", ask).first("parts").text("url");
  const auto statusOf = [&](const ContentRequest& request) {
    const auto receiver = rig_.contentHandlers().upload(request, 1, "image/jpeg");
    return receiver ? 200 : receiver.error().status;
  };
  for (const auto& url : {place.text("upload_url"), place.text("thumb_upload_url"), part}) {
    const auto request = rig_.parse("PUT", url);
    EXPECT_EQ(statusOf(request), 200) << url;
    auto forged = request;
    auto& signature = forged.query.find("signature")->second;
    signature.front() = signature.front() == '0' ? '1' : '0';
    EXPECT_EQ(statusOf(forged), 403) << url;
    forged = request;
    forged.query.find("expires")->second += "0";
    EXPECT_EQ(statusOf(forged), 403) << url;
    forged = request;
    forged.path += "/2";
    EXPECT_EQ(statusOf(forged), 403) << url;
  }
  rig_.clock().advance(3600);
  for (const auto& url : {place.text("upload_url"), place.text("thumb_upload_url"), part})
    EXPECT_EQ(statusOf(rig_.parse("PUT", url)), 403) << url;
  EXPECT_EQ(rig_.storedFiles(), 0U + 1U) << "the place of the part that was begun";
}

TEST_F(ContentAddressTest, TheAccountKeyMustNotBeSentAlong) {
  auto request = rig_.parse("GET", rig_.makeFile("f", "x").text("download_url"));
  request.hasApiKey = true;
  EXPECT_EQ(download(request), 400);
  auto put = rig_.parse("PUT", rig_.target("", "g", 1).text("upload_url"));
  put.hasApiKey = true;
  EXPECT_EQ(upload(put), 400);
}

TEST_F(ContentAddressTest, AnAddressThatWasChangedIsForbidden) {
  const auto url = rig_.makeFile("f", "x").text("download_url");
  const auto other = rig_.makeFile("g", "x").text("key");
  auto request = rig_.parse("GET", url);
  request.path = contentsPath(other);
  EXPECT_EQ(download(request), 403) << "another file";
  request = rig_.parse("GET", url);
  request.query.erase("signature");
  EXPECT_EQ(download(request), 403);
  request = rig_.parse("GET", url);
  request.query.emplace("signature", "another");
  EXPECT_EQ(download(request), 403);
  request = rig_.parse("GET", url);
  request.query.emplace("more", "1");
  EXPECT_EQ(download(request), 403);
  request = rig_.parse("GET", url);
  request.query.find("expires")->second = "99999999999";
  EXPECT_EQ(download(request), 403);
  request.query.clear();
  EXPECT_EQ(download(request), 403);
  request.path = "/vondle/contents/../metadata.db";
  EXPECT_EQ(download(request), 403);
}

TEST_F(ContentAddressTest, AnAddressForSendingDoesNotReadAndOneForReadingDoesNotSend) {
  EXPECT_EQ(download(rig_.parse("GET", rig_.target("", "g", 1).text("upload_url"))), 403);
  EXPECT_EQ(upload(rig_.parse("PUT", rig_.makeFile("f", "x").text("download_url"))), 403);
}

TEST_F(ContentAddressTest, ABodyOfUnknownLengthIsNotTaken) {
  EXPECT_EQ(upload(rig_.parse("PUT", rig_.target("", "g", 1).text("upload_url")), std::nullopt), 411);
}

TEST_F(ContentAddressTest, TheTagNamesTheContents) {
  const auto file = rig_.makeFile("f", "x");
  const auto found = rig_.contentHandlers().download(rig_.parse("GET", file.text("download_url")));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->etag, "\"" + file.text("key") + "\"");
  EXPECT_EQ(found->contentType, "application/octet-stream");
}

TEST_F(ContentAddressTest, ContentsThatTheDiskLostAreAFailureOfTheService) {
  const auto file = rig_.makeFile("f", "x");
  ASSERT_TRUE(rig_.contents().remove(file.text("key")));
  EXPECT_EQ(download(rig_.parse("GET", file.text("download_url"))), 500);
}

}  // namespace
}  // namespace vondle::storage
