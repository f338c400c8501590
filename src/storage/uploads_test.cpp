#include "storage/uploads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/captured_log.h"
#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class UploadsTest : public testing::Test {
 protected:
  Reply contentUrl(const Reply& file, std::int64_t baseVersion) {
    return rig_.post("content-url", {{"id", file.text("id")}, {"base_version", baseVersion}, {"thumb", true}});
  }
  Reply commit(const Reply& file, std::int64_t baseVersion, const std::string& key, bool thumb = false) {
    json::Object body{{"id", file.text("id")}, {"base_version", baseVersion}, {"key", key}};
    if (thumb) body["thumb"] = true;
    return rig_.post("content-commit", body);
  }
  // Sends contents for a file without committing them; answers their key.
  std::string sendFor(const Reply& file, std::string_view bytes) {
    const auto place = contentUrl(file, 1);
    EXPECT_TRUE(rig_.put(place.text("upload_url"), bytes));
    return place.text("key");
  }
  std::string contentsOf(const std::string& path) {
    return rig_.download(rig_.at(path).text("download_url")).value_or("(nothing)");
  }
  json::Object idsOf(const Reply& target) {
    return {{"key", target.text("key")}, {"upload_id", target.text("upload_id")}};
  }
  std::string partUrl(const Reply& target, std::int64_t number) {
    auto body = idsOf(target);
    body["parts"] = json::Array{number};
    return rig_.post("upload-parts", body).first("parts").text("url");
  }
  Reply complete(const Reply& target, const std::vector<std::string>& etags) {
    auto body = idsOf(target);
    json::Array parts;
    for (std::size_t i = 0; i < etags.size(); ++i) parts.push_back({{"part", i + 1}, {"etag", etags[i]}});
    body["parts"] = parts;
    return rig_.post("upload-complete", body);
  }
  // A file of one full part and three bytes more, without the memory for both.
  static constexpr std::int64_t SIZE = PART_SIZE + 3;
  std::string firstPart() const { return std::string(PART_SIZE, 'a'); }

  StorageRig rig_;
};

TEST_F(UploadsTest, ANewFileAppearsWhenAllItsBytesAreThere) {
  const auto place = rig_.target("", "f", 5);
  EXPECT_EQ(place.text("content_type"), "application/octet-stream");
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_THAT(rig_.changesSince(0), IsEmpty());
  const auto etag = rig_.put(place.text("upload_url"), "hello");
  EXPECT_EQ(etag, "\"" + hexadecimal(sha256("hello")) + "\"");
  EXPECT_THAT(rig_.tree(), ElementsAre("f"));
  EXPECT_EQ(rig_.at("f").text("key"), place.text("key"));
  EXPECT_EQ(contentsOf("f"), "hello");
  EXPECT_EQ(rig_.post("notify-upload", {{"keys", {place.text("key")}}}).status, 200);
}

TEST_F(UploadsTest, ContentsOfAnotherSizeThanAnnouncedAreRefused) {
  const auto place = rig_.target("", "f", 5);
  for (const char* bytes : {"", "four", "sixsix"}) {
    const auto refused = rig_.put(place.text("upload_url"), bytes);
    ASSERT_FALSE(refused) << bytes;
    EXPECT_EQ(refused.error().status, 400);
  }
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_EQ(rig_.storedFiles(), 0U);
}

TEST_F(UploadsTest, ABrokenTransferLeavesNothing) {
  const auto place = rig_.target("", "f", 5);
  {
    auto receiver = rig_.contentHandlers().upload(rig_.parse("PUT", place.text("upload_url")), 5, "");
    ASSERT_TRUE(receiver);
    ASSERT_TRUE((*receiver)->write("hel"));
  }
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_EQ(rig_.storedFiles(), 0U);
  EXPECT_TRUE(rig_.put(place.text("upload_url"), "hello")) << "and can be done again";
}

TEST_F(UploadsTest, ANameThatWasTakenMeanwhileIsAClash) {
  const auto first = rig_.target("", "f", 1);
  const auto second = rig_.target("", "f", 1);
  EXPECT_TRUE(rig_.put(first.text("upload_url"), "1"));
  const auto refused = rig_.put(second.text("upload_url"), "2");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().status, 409);
  EXPECT_EQ(contentsOf("f"), "1");
}

TEST_F(UploadsTest, ContentsMayBeSentAgainButNotOthersToTheSameAddress) {
  const auto file = rig_.makeFile("old", "old");
  for (const auto& place : {rig_.target("", "new", 5), contentUrl(file, 1)}) {
    const auto url = place.text("upload_url");
    const auto tag = rig_.put(url, "hello");
    ASSERT_TRUE(tag);
    EXPECT_EQ(rig_.put(url, "hello"), tag) << "the answer may have been lost";
    EXPECT_EQ(rig_.put(url, "other").error().status, 409);
    EXPECT_EQ(rig_.put(url, "longer").error().status, 409);
  }
  EXPECT_EQ(contentsOf("new"), "hello");
  EXPECT_EQ(rig_.tree().size(), 2U);
  EXPECT_EQ(rig_.storedFiles(), 3U);
}

TEST_F(UploadsTest, OfTwoTransfersToOneAddressTheFirstToEndCounts) {
  const auto place = rig_.target("", "f", 5);
  const auto request = rig_.parse("PUT", place.text("upload_url"));
  auto slow = rig_.contentHandlers().upload(request, 5, "");
  auto same = rig_.contentHandlers().upload(request, 5, "");
  ASSERT_TRUE((*slow)->write("slow!"));
  ASSERT_TRUE((*same)->write("quick"));
  const auto tag = rig_.put(place.text("upload_url"), "quick");
  EXPECT_EQ((*slow)->finish().error().status, 404);
  EXPECT_EQ((*same)->finish().error().status, 404);
  EXPECT_EQ(contentsOf("f"), "quick");

  const auto edit = contentUrl(rig_.at("f"), 1);
  auto late = rig_.contentHandlers().upload(rig_.parse("PUT", edit.text("upload_url")), 4, "");
  ASSERT_TRUE((*late)->write("late"));
  ASSERT_TRUE(rig_.put(edit.text("upload_url"), "first"));
  EXPECT_EQ((*late)->finish().error().status, 409);
  EXPECT_EQ(commit(rig_.at("f"), 1, edit.text("key")).number("size"), 5);
  EXPECT_EQ(contentsOf("f"), "first");
}

TEST_F(UploadsTest, AFolderThatWentAwayMeanwhileTakesNothing) {
  const auto d = rig_.makeFolder("d").text("id");
  const auto place = rig_.target("d", "f", 1);
  rig_.post("delete-folder", {{"prefix", "d/"}});
  EXPECT_EQ(rig_.put(place.text("upload_url"), "1").error().status, 404);
  rig_.post("purge", {{"id", d}});
  EXPECT_EQ(rig_.put(place.text("upload_url"), "1").error().status, 404);
}

TEST_F(UploadsTest, CommittedContentsAreTheNextVersion) {
  const auto file = rig_.makeFile("f", "old");
  rig_.clock().advance(10);
  const auto place = contentUrl(file, 1);
  const auto head = rig_.head();
  ASSERT_TRUE(rig_.put(place.text("upload_url"), "new one"));
  EXPECT_EQ(contentsOf("f"), "old") << "not before the commit";
  EXPECT_THAT(rig_.changesSince(head), IsEmpty());
  const auto committed = commit(file, 1, place.text("key"));
  EXPECT_EQ(committed.status, 200);
  EXPECT_EQ(committed.number("version"), 2);
  EXPECT_EQ(committed.number("size"), 7);
  EXPECT_EQ(committed.text("key"), place.text("key"));
  EXPECT_NE(committed.text("mtime"), file.text("mtime"));
  EXPECT_EQ(committed.text("id"), file.text("id"));
  EXPECT_EQ(contentsOf("f"), "new one");
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(file.text("id")));
  EXPECT_EQ(rig_.storedFiles(), 1U) << "the old contents are gone";
  EXPECT_EQ(rig_.download(file.text("download_url")).error().status, 404);
}

TEST_F(UploadsTest, ACommitOnAnOldVersionIsRefusedAndTheBytesStay) {
  const auto file = rig_.makeFile("f", "one");
  const auto late = sendFor(file, "late");
  commit(file, 1, sendFor(file, "two"));
  const auto refused = commit(file, 1, late);
  EXPECT_EQ(refused.status, 409);
  EXPECT_EQ(contentsOf("f"), "two");
  EXPECT_EQ(rig_.at("f").number("version"), 2);
  const auto copy = rig_.post("register", {{"key", late}, {"path", "f (conflicted copy)"}});
  EXPECT_EQ(copy.status, 200);
  EXPECT_EQ(contentsOf("f (conflicted copy)"), "late");
  EXPECT_EQ(copy.number("version"), 1);
}

TEST_F(UploadsTest, AnAddressForAnOldVersionIsStillHandedOut) {
  const auto file = rig_.makeFile("f", "one");
  commit(file, 1, sendFor(file, "two"));
  EXPECT_EQ(contentUrl(file, 1).status, 200);
}

TEST_F(UploadsTest, ACommitIsRepeatedWithoutHarm) {
  const auto file = rig_.makeFile("f", "one");
  const auto key = sendFor(file, "two");
  commit(file, 1, key);
  const auto again = commit(file, 1, key);
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.number("version"), 2);
}

TEST_F(UploadsTest, OnlyWholeContentsOfTheSameFileAreCommitted) {
  const auto f = rig_.makeFile("f", "f");
  const auto g = rig_.makeFile("g", "g");
  EXPECT_EQ(commit(f, 1, contentUrl(f, 1).text("key")).status, 409) << "nothing was sent";
  EXPECT_EQ(commit(g, 1, sendFor(f, "x")).status, 409) << "meant for another file";
  EXPECT_EQ(commit(f, 1, "no such key").status, 404);
  EXPECT_EQ(commit(f, 1, g.text("key")).status, 404);
  const auto folder = rig_.makeFolder("d");
  EXPECT_EQ(contentUrl(folder, 1).status, 400);
  EXPECT_EQ(commit(folder, 1, "k").status, 400);
  const auto key = sendFor(f, "x");
  rig_.post("delete-files", {{"keys", {f.text("key")}}});
  EXPECT_EQ(contentUrl(f, 1).status, 409) << "it is in the trash";
  EXPECT_EQ(commit(f, 1, key).status, 409);
}

TEST_F(UploadsTest, AnotherAccountsUploadsAreNotThere) {
  const auto file = rig_.makeFile("f", "f");
  const auto key = sendFor(file, "x");
  const auto parts = rig_.target("", "big", SIZE, true);
  rig_.as("bob");
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "stolen"}}).status, 404);
  EXPECT_EQ(rig_.post("upload-status", idsOf(parts)).status, 404);
  EXPECT_EQ(rig_.post("upload-abort", idsOf(parts)).status, 404);
  EXPECT_EQ(complete(parts, {}).status, 404);
}

TEST_F(UploadsTest, RegisteringNeedsStoredContentsAndAFreeName) {
  const auto file = rig_.makeFile("f", "f");
  const auto waiting = contentUrl(file, 1).text("key");
  EXPECT_EQ(rig_.post("register", {{"key", waiting}, {"path", "g"}}).status, 409);
  EXPECT_EQ(rig_.post("register", {{"key", "no such key"}, {"path", "g"}}).status, 404);
  const auto key = sendFor(file, "x");
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "f"}}).status, 409);
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "nowhere/g"}}).status, 404);
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "g"}}).text("path"), "g");
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "g"}}).status, 200) << "the same again";
  EXPECT_EQ(rig_.post("register", {{"key", key}, {"path", "h"}}).status, 409) << "they are a file already";
}

TEST_F(UploadsTest, PartsInAnyOrderBecomeTheFile) {
  const auto target = rig_.target("", "big", SIZE, true);
  EXPECT_EQ(target.number("part_size"), PART_SIZE);
  EXPECT_FALSE(json::find(target.body, "upload_url"));
  const auto second = rig_.put(partUrl(target, 2), "end");
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  ASSERT_TRUE(first && second);
  EXPECT_NE(*first, *second);
  const auto status = rig_.post("upload-status", idsOf(target));
  EXPECT_EQ(status.number("part_size"), PART_SIZE);
  EXPECT_EQ(status.list("parts").size(), 2U);
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_EQ(complete(target, {*first, *second}).text("path"), "big");
  EXPECT_EQ(rig_.at("big").number("size"), SIZE);
  EXPECT_TRUE(contentsOf("big") == firstPart() + "end");
  EXPECT_EQ(complete(target, {*first, *second}).status, 200) << "the answer may have been lost";
}

TEST_F(UploadsTest, PartsMustBeCompleteAndTaggedAsAnswered) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto second = rig_.put(partUrl(target, 2), "end");
  EXPECT_EQ(complete(target, {"\"x\"", *second}).status, 400) << "part 1 was not sent";
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  EXPECT_EQ(complete(target, {}).status, 400);
  EXPECT_EQ(complete(target, {*first}).status, 400);
  EXPECT_EQ(complete(target, {*first, *second, *second}).status, 400);
  EXPECT_EQ(complete(target, {*second, *first}).status, 400) << "tags of other parts";
  auto body = idsOf(target);
  body["parts"] = json::Array{{{"part", 2}, {"etag", *second}}, {{"part", 1}, {"etag", *first}}};
  EXPECT_EQ(rig_.post("upload-complete", body).status, 400) << "not in order";
  EXPECT_THAT(rig_.tree(), IsEmpty());
  EXPECT_EQ(complete(target, {*first, *second}).status, 200);
}

TEST_F(UploadsTest, APartHasItsLengthAndItsNumber) {
  const auto target = rig_.target("", "big", SIZE, true);
  for (const char* bytes : {"", "en", "long"})
    EXPECT_EQ(rig_.put(partUrl(target, 2), bytes).error().status, 400) << bytes;
  for (const std::int64_t number : {0, 3, -1}) {
    auto body = idsOf(target);
    body["parts"] = json::Array{number};
    EXPECT_EQ(rig_.post("upload-parts", body).status, 400) << number;
  }
  auto wrong = idsOf(target);
  wrong["upload_id"] = "another";
  EXPECT_EQ(rig_.post("upload-status", wrong).status, 404);
}

TEST_F(UploadsTest, APartThatIsSentAgainReplacesItself) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  const auto old = rig_.put(partUrl(target, 2), "old");
  const auto fresh = rig_.put(partUrl(target, 2), "new");
  EXPECT_EQ(complete(target, {*first, *old}).status, 400);
  EXPECT_EQ(complete(target, {*first, *fresh}).status, 200);
  EXPECT_TRUE(contentsOf("big").ends_with("anew"));
}

TEST_F(UploadsTest, AnInterruptedPartCountsAsNotSent) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  {
    auto receiver = rig_.contentHandlers().upload(rig_.parse("PUT", partUrl(target, 2)), 3, "");
    ASSERT_TRUE((*receiver)->write("n"));
  }
  EXPECT_EQ(rig_.post("upload-status", idsOf(target)).list("parts").size(), 1U);
  EXPECT_EQ(complete(target, {*first, "\"\""}).status, 400);
}

TEST_F(UploadsTest, APartThatWasAnsweredStaysWhenSendingItAgainBreaksOff) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  const auto second = rig_.put(partUrl(target, 2), "old");
  {
    auto receiver = rig_.contentHandlers().upload(rig_.parse("PUT", partUrl(target, 2)), 3, "");
    ASSERT_TRUE((*receiver)->write("n"));
  }
  EXPECT_EQ(complete(target, {*first, *second}).status, 200);
  EXPECT_TRUE(contentsOf("big").ends_with("aold"));
  EXPECT_EQ(rig_.storedFiles(), 1U);
}

TEST_F(UploadsTest, APartSentAgainWithTheSameBytesKeepsItsTag) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  const auto second = rig_.put(partUrl(target, 2), "end");
  EXPECT_EQ(rig_.put(partUrl(target, 1), firstPart()), first);
  EXPECT_EQ(complete(target, {*first, *second}).status, 200);
  EXPECT_TRUE(contentsOf("big") == firstPart() + "end");
}

TEST_F(UploadsTest, PartsThatWereJoinedInVainAreStillThere) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  const auto old = rig_.put(partUrl(target, 2), "old");
  // As when the service dies before the answer.
  ASSERT_TRUE(rig_.contents().assemble(target.text("key"), SIZE));
  rig_.start();
  const auto fresh = rig_.put(partUrl(target, 2), "new");
  ASSERT_TRUE(fresh);
  EXPECT_EQ(complete(target, {*first, *old}).status, 400);
  EXPECT_EQ(complete(target, {*first, *fresh}).status, 200);
  EXPECT_TRUE(contentsOf("big") == firstPart() + "new");

  const auto other = rig_.target("", "other", 3, true);
  const auto only = rig_.put(partUrl(other, 1), "one");
  ASSERT_TRUE(rig_.contents().assemble(other.text("key"), 3));
  EXPECT_EQ(complete(other, {*only}).status, 200);
  EXPECT_EQ(contentsOf("other"), "one");
}

TEST_F(UploadsTest, EachTransferOfAPartIsALineInTheLogWithoutKeyOrSignature) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto upload = target.text("upload_id").substr(0, 8);
  const auto url = partUrl(target, 2);
  const CapturedLog log;
  rig_.put(url, "old");
  rig_.put(url, "old");
  rig_.put(url, "new");
  rig_.put(url, "longer");
  {
    EXPECT_TRUE(rig_.contentHandlers().upload(rig_.parse("PUT", url), 3, "").value()->write("x"));
  }
  const auto received = "received part 2 of upload " + upload + ": 3 bytes";
  EXPECT_THAT(log.messages(), ElementsAre(received, received, received,
                                          "refused a transfer: 400 the part has not the length that it has to have",
                                          "part 2 of upload " + upload + " broke off after 1 of 3 bytes"));
}

TEST_F(UploadsTest, TheSlowerOfTwoTransfersOfAPartIsRefused) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  auto slow = rig_.contentHandlers().upload(rig_.parse("PUT", partUrl(target, 2)), 3, "");
  ASSERT_TRUE((*slow)->write("old"));
  const auto quick = rig_.put(partUrl(target, 2), "new");
  ASSERT_TRUE(quick);
  EXPECT_EQ((*slow)->finish().error().status, 409);
  EXPECT_EQ(complete(target, {*first, *quick}).status, 200);
  EXPECT_TRUE(contentsOf("big").ends_with("anew"));
}

TEST_F(UploadsTest, PartsSurviveARestart) {
  const auto target = rig_.target("", "big", SIZE, true);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  rig_.start();
  const auto second = rig_.put(partUrl(target, 2), "end");
  EXPECT_EQ(complete(target, {*first, *second}).status, 200);
  EXPECT_EQ(rig_.at("big").number("size"), SIZE);
}

TEST_F(UploadsTest, AnAbortedUploadIsGone) {
  const auto target = rig_.target("", "big", SIZE, true);
  rig_.put(partUrl(target, 2), "end");
  const auto url = partUrl(target, 1);
  EXPECT_EQ(rig_.storedFiles(), 1U);
  EXPECT_EQ(rig_.post("upload-abort", idsOf(target)).status, 200);
  EXPECT_EQ(rig_.storedFiles(), 0U);
  EXPECT_EQ(rig_.post("upload-status", idsOf(target)).status, 404);
  EXPECT_EQ(rig_.put(url, firstPart()).error().status, 404);
  EXPECT_EQ(rig_.post("upload-abort", idsOf(target)).status, 404);
}

TEST_F(UploadsTest, ALargeEditGoesInPartsAndIsCommitted) {
  const auto file = rig_.makeFile("f", "old");
  const auto target =
      rig_.post("content-url",
                {{"id", file.text("id")}, {"base_version", 1}, {"thumb", true}, {"size", SIZE}, {"multipart", true}});
  ASSERT_EQ(target.status, 200);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  const auto second = rig_.put(partUrl(target, 2), "end");
  EXPECT_EQ(commit(file, 1, target.text("key")).status, 409) << "not joined yet";
  EXPECT_EQ(complete(target, {*first, *second}).status, 200);
  EXPECT_EQ(rig_.at("f").number("version"), 1);
  EXPECT_EQ(complete(target, {*first, *second}).status, 200) << "the answer may have been lost";
  EXPECT_EQ(commit(file, 1, target.text("key")).number("version"), 2);
  EXPECT_EQ(rig_.at("f").number("size"), SIZE);
}

TEST_F(UploadsTest, UploadsThatAreTouchedAreNotAbandoned) {
  const auto target = rig_.target("", "big", SIZE, true);
  for (int day = 0; day < 20; day += 5) {
    EXPECT_TRUE(rig_.put(partUrl(target, 2), "end")) << day;
    rig_.clock().advance(5 * 24 * 3600);
    rig_.target("", "g", 1);
  }
  EXPECT_EQ(rig_.post("upload-status", idsOf(target)).status, 200);
}

TEST_F(UploadsTest, AbandonedUploadsAreSweptAtTheStartAndBeforeARefusal) {
  rig_.setQuota("ann", SIZE);
  for (int i = 0; i < 2; ++i) {
    const auto target = rig_.target("", "big", SIZE, true);
    rig_.put(partUrl(target, 2), "end");
    EXPECT_EQ(rig_.storedFiles(), 1U);
    rig_.clock().advance(UPLOAD_LIFETIME_MS / 1000.0 + 1);
    if (i == 0)
      rig_.start();
    else
      EXPECT_EQ(rig_.target("", "too much", SIZE + 1).status, 507);
    EXPECT_EQ(rig_.storedFiles(), 0U);
  }
}

TEST_F(UploadsTest, AbandonedUploadsAreSweptAfterAWeek) {
  const auto file = rig_.makeFile("f", "f");
  const auto stored = sendFor(file, "x");
  const auto target = rig_.target("", "big", SIZE, true);
  rig_.put(partUrl(target, 2), "end");
  EXPECT_EQ(rig_.storedFiles(), 3U);
  rig_.clock().advance(UPLOAD_LIFETIME_MS / 1000.0);
  rig_.target("", "g", 1);
  EXPECT_EQ(rig_.storedFiles(), 3U);
  rig_.clock().advance(1);
  rig_.target("", "h", 1);
  EXPECT_EQ(rig_.storedFiles(), 1U);
  EXPECT_EQ(commit(file, 1, stored).status, 404);
  EXPECT_EQ(rig_.post("upload-status", idsOf(target)).status, 404);
  EXPECT_EQ(contentsOf("f"), "f");
}

TEST_F(UploadsTest, PartsGrowSoThatThereAreNeverTooMany) {
  for (const std::int64_t size :
       {std::int64_t{1}, PART_SIZE, PART_SIZE * MAX_PARTS, PART_SIZE * MAX_PARTS + 1, MAX_FILE_SIZE}) {
    const Upload upload{.size = size, .partSize = partSizeFor(size)};
    EXPECT_GE(upload.partSize, PART_SIZE);
    EXPECT_LE(partCount(upload), MAX_PARTS);
    std::int64_t sum = 0;
    for (std::int64_t n = 1; n <= partCount(upload); ++n) {
      EXPECT_GT(partLength(upload, n), 0);
      sum += partLength(upload, n);
    }
    EXPECT_EQ(sum, size);
  }
}

TEST_F(UploadsTest, AnUploadInPartsNeedsItsSize) {
  EXPECT_EQ(rig_.target("", "f", 0, true).status, 400);
  EXPECT_EQ(rig_.target("", "f", MAX_FILE_SIZE + 1, true).status, 400);
  const auto file = rig_.makeFile("f", "f");
  EXPECT_EQ(rig_.post("content-url", {{"id", file.text("id")}, {"base_version", 1}, {"multipart", true}}).status, 400);
}

TEST_F(UploadsTest, AFullAccountTakesNothingMore) {
  rig_.setQuota("ann", 10);
  const auto file = rig_.makeFile("f", "12345678");
  EXPECT_EQ(rig_.target("", "g", 3).status, 507);
  EXPECT_EQ(rig_.target("", "g", 2).status, 200);
  const auto edit = contentUrl(file, 1);
  EXPECT_EQ(edit.status, 200);
  EXPECT_EQ(rig_.put(edit.text("upload_url"), "12345678901").error().status, 507) << "the size is known only now";
  EXPECT_TRUE(rig_.put(edit.text("upload_url"), "1234567890"));
  EXPECT_EQ(commit(file, 1, edit.text("key")).status, 200);
  EXPECT_EQ(contentUrl(file, 2).status, 507);
  EXPECT_EQ(rig_.post("content-url", {{"id", file.text("id")}, {"base_version", 2}, {"size", 10}}).status, 200);
}

TEST_F(UploadsTest, TrashCountsUntilItIsPurged) {
  rig_.setQuota("ann", 10);
  const auto file = rig_.makeFile("f", "1234567890");
  rig_.post("delete-files", {{"keys", {file.text("key")}}});
  EXPECT_EQ(rig_.target("", "g", 1).status, 507);
  rig_.post("purge", {{"id", file.text("id")}});
  EXPECT_EQ(rig_.target("", "g", 10).status, 200);
}

TEST_F(UploadsTest, UploadsUnderWayCountToo) {
  rig_.setQuota("ann", SIZE + 5);
  const auto target = rig_.target("", "big", SIZE, true);
  EXPECT_EQ(rig_.target("", "g", 6).status, 507);
  const auto first = rig_.put(partUrl(target, 1), firstPart());
  const auto second = rig_.put(partUrl(target, 2), "end");
  EXPECT_EQ(complete(target, {*first, *second}).status, 200);
  EXPECT_EQ(rig_.target("", "g", 6).status, 507);
  EXPECT_EQ(rig_.target("", "g", 5).status, 200);
}

TEST_F(UploadsTest, BodiesOnTheirWayInCountUntilTheyBreakOff) {
  rig_.setQuota("ann", 10);
  const auto place = rig_.target("", "f", 6);
  const auto other = rig_.target("", "g", 6);
  {
    auto receiver = rig_.contentHandlers().upload(rig_.parse("PUT", place.text("upload_url")), 6, "");
    ASSERT_TRUE(receiver);
    EXPECT_EQ(rig_.target("", "h", 5).status, 507);
    EXPECT_EQ(rig_.target("", "h", 4).status, 200);
    EXPECT_EQ(rig_.put(other.text("upload_url"), "123456").error().status, 507);
    EXPECT_TRUE(rig_.contentHandlers().upload(rig_.parse("PUT", place.text("upload_url")), 6, ""))
        << "the same again needs no more room";
  }
  EXPECT_TRUE(rig_.put(other.text("upload_url"), "123456"));
  EXPECT_EQ(rig_.put(place.text("upload_url"), "123456").error().status, 507);
}

TEST_F(UploadsTest, FilesAskedForTogetherMustFitTogether) {
  rig_.setQuota("ann", 10);
  const auto ask = [&](std::int64_t second) {
    return rig_
        .post("upload-urls",
              {{"path", ""}, {"files", {{{"filename", "f"}, {"size", 6}}, {{"filename", "g"}, {"size", second}}}}})
        .status;
  };
  EXPECT_EQ(ask(5), 507);
  EXPECT_EQ(ask(4), 200);
}

TEST_F(UploadsTest, WhatIsPutInASharedFolderCountsForItsOwner) {
  const auto d = rig_.makeFolder("d").text("id");
  rig_.post("share", {{"id", d}, {"account", "bob"}, {"role", "write"}});
  rig_.setQuota("ann", 1);
  rig_.as("bob");
  EXPECT_EQ(rig_.target("Shared with me/d", "f", 2).status, 507);
  rig_.setQuota("ann", 2);
  EXPECT_EQ(rig_.makeFile("Shared with me/d/f", "12").status, 200);
  EXPECT_EQ(rig_.target("Shared with me/d", "g", 1).status, 507);
  EXPECT_EQ(rig_.target("", "g", 1).status, 200);
}

constexpr std::string_view JPEG = "\xff\xd8\xff\xe0 a picture";

TEST_F(UploadsTest, APreviewIsShownWhenItWasAnnounced) {
  const auto place = rig_.target("", "page.pdf", 1);
  rig_.put(place.text("upload_url"), "x");
  EXPECT_TRUE(rig_.put(place.text("thumb_upload_url"), JPEG, "image/jpeg"));
  auto file = rig_.at("page.pdf");
  EXPECT_FALSE(file.flag("has_thumb"));
  const auto head = rig_.head();
  EXPECT_EQ(rig_.post("notify-upload", {{"keys", {place.text("key")}}, {"thumbs", {place.text("key")}}}).status, 200);
  file = rig_.at("page.pdf");
  EXPECT_TRUE(file.flag("has_thumb"));
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(file.text("id")));
  EXPECT_EQ(rig_.download(file.text("thumb_url")), JPEG);
  const auto urls = rig_.post("thumb-urls", {{"ids", {file.text("id"), "999"}}});
  EXPECT_EQ(urls.status, 200);
  EXPECT_EQ(json::object(urls.body, "urls")->size(), 1U);
  EXPECT_TRUE(json::list(urls.body, "pending")->empty());
}

TEST_F(UploadsTest, APreviewThatWasAnnouncedButNotSentIsNotShown) {
  const auto place = rig_.target("", "page.pdf", 1);
  rig_.put(place.text("upload_url"), "x");
  rig_.post("notify-upload", {{"keys", {place.text("key")}}, {"thumbs", {place.text("key")}}});
  EXPECT_FALSE(rig_.at("page.pdf").flag("has_thumb"));
}

TEST_F(UploadsTest, APreviewGoesWithTheVersionItWasMadeOf) {
  const auto place = rig_.target("", "page.pdf", 1);
  rig_.put(place.text("upload_url"), "x");
  rig_.put(place.text("thumb_upload_url"), JPEG, "image/jpeg");
  rig_.post("notify-upload", {{"keys", {place.text("key")}}, {"thumbs", {place.text("key")}}});
  const auto file = rig_.at("page.pdf");
  const auto edit = contentUrl(file, 1);
  rig_.put(edit.text("upload_url"), "y");
  EXPECT_FALSE(commit(file, 1, edit.text("key")).flag("has_thumb"));
  EXPECT_EQ(rig_.storedFiles(), 1U);
  const auto again = contentUrl(file, 2);
  rig_.put(again.text("upload_url"), "z");
  rig_.put(again.text("thumb_upload_url"), JPEG, "image/jpeg");
  EXPECT_TRUE(commit(file, 2, again.text("key"), true).flag("has_thumb"));
}

TEST_F(UploadsTest, OnlySmallJpegPicturesAreTakenAsPreviews) {
  const auto place = rig_.target("", "page.pdf", 1);
  const auto url = place.text("thumb_upload_url");
  EXPECT_EQ(rig_.put(url, JPEG, "image/png").error().status, 415);
  for (const char* bytes : {"", "\xff", "\xff\xd8", "GIF89a", "\xff\xd8GIF"})
    EXPECT_EQ(rig_.put(url, bytes, "image/jpeg").error().status, 400) << bytes;
  EXPECT_EQ(rig_.put(url, std::string(MAX_THUMB_BYTES + 1, '\xff'), "image/jpeg").error().status, 413);
  EXPECT_TRUE(rig_.put(url, JPEG, "image/jpeg")) << "before the contents";
}

}  // namespace
}  // namespace vondle::storage
