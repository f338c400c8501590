#include "provider/fetch_thumbnails.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "fileprovider/error_codes.h"
#include "testing/captured.h"
#include "testing/provider_rig.h"

namespace vondle {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

const std::string UNAVAILABLE = "Vondle couldn't download “";

struct FetchThumbnailsTest : testing::Test, ProviderRig {
  using Answer = Captured<std::optional<Error>>;
  using Image = Result<std::optional<std::string>>;

  // A file of the server's; asked for by nobody yet.
  void serveItem(const std::string& id, bool hasThumb) {
    answerAPI("item?id=" + id,
              json::serialize(json::Object{{"id", id}, {"name", id + ".jpg"}, {"has_thumb", hasThumb}}));
  }
  // The same, known to the extension by now.
  void know(const std::string& id, bool hasThumb = true) {
    serveItem(id, hasThumb);
    Captured<Result<Item>> item;
    extension().itemForIdentifier({id}, {}, item.completion());
    scheduler.runUntilIdle();
    ASSERT_TRUE(item.value());
  }
  static std::string addressOf(const std::string& id) { return "https://store.example/" + id; }
  static std::string ready(const std::vector<std::string>& ids, const std::vector<std::string>& pending = {}) {
    json::Object urls;
    for (const auto& id : ids) urls[id] = addressOf(id);
    return json::serialize(json::Object{{"urls", urls}, {"pending", json::Array(pending.begin(), pending.end())}});
  }
  static std::string pending(const std::vector<std::string>& ids) { return ready({}, ids); }

  // What the server answers to requests for addresses, one after the other; the last for ever. Notes what was asked for
  // and when.
  void answerAddresses(std::vector<ScriptedReply> replies) {
    machine.urlLoading.onRequest(
        std::string(API) + "thumb-urls", [this, replies = std::move(replies)](const URLRequest& request) {
          const auto count = asked.size();
          asked.emplace_back(inSeconds(scheduler.monotonic() - startedAt), request.body.value_or(""));
          return replies[std::min(count, replies.size() - 1)];
        });
  }
  void serveImages() {
    machine.urlLoading.onRequest("https://store.example/", [](const URLRequest& request) {
      return reply("image of " + request.url.substr(request.url.rfind('/') + 1));
    });
  }
  std::shared_ptr<Progress> start(const std::vector<std::string>& ids, Answer& answer) {
    startedAt = scheduler.monotonic();
    machine.urlLoading.onRequest("https://store.example/", [this](const URLRequest&) -> std::optional<ScriptedReply> {
      imagesAskedAt.push_back(inSeconds(scheduler.monotonic() - startedAt));
      return std::nullopt;
    });
    std::vector<ItemIdentifier> identifiers;
    for (const auto& id : ids) identifiers.push_back({id});
    return extension().fetchThumbnails(
        identifiers, {.width = 64, .height = 48},
        [this](const ItemIdentifier& identifier, Image image) {
          EXPECT_FALSE(completed);
          images.emplace_back(identifier.text, std::move(image));
        },
        [this, completion = answer.completion()](std::optional<Error> error) mutable {
          completed = true;
          std::move(completion)(std::move(error));
        });
  }
  std::optional<Error> fetch(const std::vector<std::string>& ids) {
    Answer answer;
    start(ids, answer);
    EXPECT_TRUE(scheduler.runUntil([&] { return answer.hasValue(); }));
    return answer.value();
  }
  // Of an item that was answered once.
  Image imageOf(const std::string& id) {
    EXPECT_EQ(std::ranges::count(images, id, [](const auto& each) { return each.first; }), 1) << id;
    return std::ranges::find(images, id, [](const auto& each) { return each.first; })->second;
  }
  static Error unavailable(const std::string& id) {
    return {FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE,
            UNAVAILABLE + id + ".jpg”: " + Error(APIError::badResponse(503)).localizedDescription()};
  }
  void expectNothingPending() {
    log.clear();
    scheduler.advance(seconds(120));
    EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("still waiting"))));
  }

  MonotonicTime startedAt;
  std::vector<std::pair<double, std::string>> asked;
  std::vector<double> imagesAskedAt;
  std::vector<std::pair<std::string, Image>> images;
  bool completed = false;
};

TEST_F(FetchThumbnailsTest, AnswersWhatHasNoneAtOnceAndAsksForTheOthersInOneRequest) {
  know("a");
  know("b", false);
  know("c");
  serveImages();
  machine.urlLoading.hold();
  Answer answer;
  const auto progress = start({"a", "b", "c"}, answer);
  EXPECT_THAT(images, ElementsAre(Pair("b", Image(std::nullopt))));
  EXPECT_EQ(progress->totalUnitCount(), 3);
  EXPECT_EQ(progress->completedUnitCount(), 1);

  answerAddresses({reply(ready({"a", "c"}))});
  machine.urlLoading.release();
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.hasValue());
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_THAT(asked, ElementsAre(Pair(0, R"({"ids":["a","c"]})")));
  EXPECT_THAT(images, UnorderedElementsAre(Pair("a", Image("image of a")), Pair("b", Image(std::nullopt)),
                                           Pair("c", Image("image of c"))));
  EXPECT_EQ(progress->completedUnitCount(), 3);
  EXPECT_THAT(log.messages(LogLevel::info),
              AllOf(Contains("thumbnail a.jpg: 10 bytes"), Contains("thumbnail c.jpg: 10 bytes"),
                    Contains("thumbnails: 3 requested at 64x48")));
  expectNothingPending();
}

TEST_F(FetchThumbnailsTest, FetchesAThumbnailThatIsReadyAfterThreeRetries) {
  know("a");
  serveImages();
  answerAddresses({reply(pending({"a"})), reply(pending({"a"})), reply(pending({"a"})), reply(ready({"a"}))});
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_THAT(asked, ElementsAre(Pair(0, testing::_), Pair(2, testing::_), Pair(5, testing::_), Pair(10, testing::_)));
  EXPECT_THAT(imagesAskedAt, ElementsAre(10));
  EXPECT_EQ(imageOf("a"), Image("image of a"));
}

TEST_F(FetchThumbnailsTest, CountsTheDelayFromThePreviousAnswer) {
  know("a");
  serveImages();
  auto slow = reply(pending({"a"}));
  slow.delay = seconds(4);
  answerAddresses({slow, reply(ready({"a"}))});
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_THAT(asked, ElementsAre(Pair(0, testing::_), Pair(6, testing::_)));
}

TEST_F(FetchThumbnailsTest, GivesUpWhatIsStillPendingAfterFiveRetries) {
  know("a");
  know("b");
  answerAddresses({reply(pending({"a", "b"}))});
  EXPECT_EQ(fetch({"a", "b"}), std::nullopt);
  std::vector<double> times;
  for (const auto& [time, body] : asked) times.push_back(time);
  EXPECT_THAT(times, ElementsAre(0, 2, 5, 10, 18, 30));
  EXPECT_EQ(imageOf("a"), Image(failure(unavailable("a"))));
  EXPECT_EQ(imageOf("b"), Image(failure(unavailable("b"))));
  EXPECT_EQ(APIError::from(*imageOf("a").error().underlying), APIError::badResponse(503));
  const auto infos = log.messages(LogLevel::info);
  EXPECT_EQ(std::ranges::count(infos, "thumbnails: 2 still being made, leaving them for later"), 1);
  EXPECT_THAT(requests(), Not(Contains(testing::StartsWith("https://"))));
  expectNothingPending();
}

TEST_F(FetchThumbnailsTest, AsksAgainOnlyForWhatIsPending) {
  for (const auto* id : {"a", "b", "c"}) know(id);
  serveImages();
  answerAddresses({reply(ready({"b"}, {"a", "c"})), reply(ready({"a"}, {"c"})), reply(ready({"c"}))});
  EXPECT_EQ(fetch({"a", "b", "c"}), std::nullopt);
  EXPECT_THAT(asked, ElementsAre(Pair(0, R"({"ids":["a","b","c"]})"), Pair(2, R"({"ids":["a","c"]})"),
                                 Pair(5, R"({"ids":["c"]})")));
  EXPECT_THAT(imagesAskedAt, ElementsAre(0, 2, 5));
  for (const std::string id : {"a", "b", "c"}) EXPECT_EQ(imageOf(id), Image("image of " + id));
}

TEST_F(FetchThumbnailsTest, WaitsForAThumbnailThatIsPendingThoughItHasAnAddress) {
  know("a");
  serveImages();
  answerAddresses({reply(ready({"a"}, {"a"})), reply(ready({"a"}))});
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_THAT(imagesAskedAt, ElementsAre(2));
}

TEST_F(FetchThumbnailsTest, UsesARecordOfLessThanADay) {
  know("a");
  serveImages();
  answerAddresses({reply(ready({"a"}))});
  scheduler.advance(std::chrono::hours(23));
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_EQ(std::ranges::count(requests(), "item?id=a"), 1);
}

TEST_F(FetchThumbnailsTest, LooksARecordOfADayUpAgain) {
  know("a", false);
  serveItem("a", true);
  serveImages();
  answerAddresses({reply(ready({"a"}))});
  scheduler.advance(std::chrono::hours(24));
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_EQ(std::ranges::count(requests(), "item?id=a"), 2);
  EXPECT_EQ(imageOf("a"), Image("image of a"));
}

TEST_F(FetchThumbnailsTest, LooksUpWhatItDoesNotKnowSideBySide) {
  for (const auto* id : {"a", "b", "c"}) serveItem(id, true);
  serveImages();
  answerAddresses({reply(ready({"a", "b", "c"}))});
  machine.urlLoading.hold();
  Answer answer;
  start({"a", "b", "c"}, answer);
  scheduler.runUntilIdle();
  EXPECT_THAT(requests(), UnorderedElementsAre("item?id=a", "item?id=b", "item?id=c"));
  machine.urlLoading.release();
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_EQ(asked.size(), 1u);
  EXPECT_EQ(images.size(), 3u);
}

TEST_F(FetchThumbnailsTest, HasNoneOfItemsThatCannotBeLookedUp) {
  know("a");
  answerAPI("item?id=b", "", 404);
  serveImages();
  answerAddresses({reply(ready({"a"}))});
  EXPECT_EQ(fetch({"a", "b"}), std::nullopt);
  EXPECT_EQ(imageOf("a"), Image("image of a"));
  EXPECT_EQ(imageOf("b"), Image(std::nullopt));
  EXPECT_THAT(asked, ElementsAre(Pair(0, R"({"ids":["a"]})")));
}

TEST_F(FetchThumbnailsTest, HasNoneOfItemsThatTheServerDoesNotMention) {
  know("a");
  know("b");
  serveImages();
  answerAddresses({reply(ready({"b"}))});
  EXPECT_EQ(fetch({"a", "b"}), std::nullopt);
  EXPECT_EQ(imageOf("a"), Image(std::nullopt));
  EXPECT_EQ(imageOf("b"), Image("image of b"));
}

TEST_F(FetchThumbnailsTest, AsksForNoAddressesWhenNothingHasAThumbnail) {
  know("a", false);
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_EQ(imageOf("a"), Image(std::nullopt));
  EXPECT_THAT(requests(), ElementsAre("item?id=a"));
}

TEST_F(FetchThumbnailsTest, FailsAllThatWereAskedForWhenTheAddressesAreNotToBeHad) {
  know("a");
  know("b", false);
  know("c");
  answerAddresses({reply("", 401)});
  EXPECT_EQ(fetch({"a", "b", "c"}), std::nullopt);
  EXPECT_EQ(imageOf("b"), Image(std::nullopt));
  for (const std::string id : {"a", "c"}) {
    const auto image = imageOf(id);
    ASSERT_FALSE(image);
    EXPECT_TRUE(image.error().isIn(FILE_PROVIDER_ERROR_DOMAIN));
    EXPECT_THAT(image.error().localizedDescription(), HasSubstr("“" + id + ".jpg”"));
    EXPECT_EQ(APIError::from(*image.error().underlying), APIError::badResponse(401));
  }
  expectNothingPending();
}

TEST_F(FetchThumbnailsTest, FailsOnlyWhatIsAskedForAgainWhenARetryFails) {
  know("a");
  know("b");
  serveImages();
  answerAddresses({reply(ready({"a"}, {"b"})), reply("{}")});
  EXPECT_EQ(fetch({"a", "b"}), std::nullopt);
  EXPECT_EQ(imageOf("a"), Image("image of a"));
  ASSERT_FALSE(imageOf("b"));
  EXPECT_EQ(APIError::from(*imageOf("b").error().underlying), APIError::malformed());
}

TEST_F(FetchThumbnailsTest, TellsOfImagesThatCannotBeFetched) {
  know("a");
  know("b");
  serveImages();
  answer("https://store.example/a", "", 404);
  answerAddresses({reply(ready({"a", "b"}))});
  EXPECT_EQ(fetch({"a", "b"}), std::nullopt);
  EXPECT_EQ(imageOf("a"),
            Image(failure({COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE,
                           "“a.jpg” couldn't be downloaded from Vondle storage (HTTP 404): the file is missing there, "
                           "or access to it was refused."})));
  EXPECT_EQ(imageOf("b"), Image("image of b"));
  EXPECT_THAT(log.messages(LogLevel::error), Contains("thumbnail a.jpg failed: HTTP 404"));
}

TEST_F(FetchThumbnailsTest, EncodesAnAddressThatIsNoneAsItStandsAndPassesOverOneThatNeverIs) {
  know("a");
  know("b");
  answer("https://store.example/a%20b", "encoded");
  answerAddresses({reply(R"({"urls":{"a":"https://store.example/a b","b":"no address"}})")});
  EXPECT_EQ(fetch({"a", "b"}), std::nullopt);
  EXPECT_EQ(imageOf("a"), Image("encoded"));
  EXPECT_EQ(imageOf("b"), Image(std::nullopt));
}

TEST_F(FetchThumbnailsTest, SendsTheKeyToTheAPIOnly) {
  know("a");
  serveImages();
  answerAddresses({reply(ready({"a"}))});
  EXPECT_EQ(fetch({"a"}), std::nullopt);
  EXPECT_FALSE(findHeader(machine.urlLoading.task("https://store.example/a").originalRequest().headers, "X-API-Key"));
}

TEST_F(FetchThumbnailsTest, GivesWayToADownloadThatSomebodyWaitsFor) {
  std::vector<std::string> ids;
  for (int i = 0; i < 7; ++i) ids.push_back(std::to_string(i));
  for (const auto& id : ids) know(id);
  answerAddresses({reply(ready(ids))});
  Answer answer;
  start(ids, answer);
  scheduler.runUntilIdle();
  const auto imageTasks = [&] {
    std::vector<std::shared_ptr<ScriptedTask>> tasks;
    for (const auto& task : machine.urlLoading.running())
      if (task->url().starts_with("https://store.example/")) tasks.push_back(task);
    return tasks;
  };
  EXPECT_EQ(imageTasks().size(), 5u);  // the others wait for their turn

  Captured<Result<std::string>> download;
  process.transfers().download("https://viewed.example/", Progress::make(), 5, ThrottledTransfer::viewerPriority,
                               download.completion());
  scheduler.runUntilIdle();
  for (const auto& task : imageTasks()) EXPECT_TRUE(task->isSuspended());
  machine.urlLoading.task("https://viewed.example/").reply(reply("hello"));
  scheduler.runUntilIdle();
  ASSERT_TRUE(download.hasValue());
  while (!imageTasks().empty()) {
    EXPECT_FALSE(imageTasks().front()->isSuspended());
    imageTasks().front()->reply(reply("image"));
    scheduler.runUntilIdle();
  }
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_EQ(images.size(), 7u);
}

TEST_F(FetchThumbnailsTest, RegistersWhatItDoesWithItsProgress) {
  know("a");
  know("b", false);
  know("c");
  serveImages();
  auto late = reply("image");
  late.delay = seconds(50);
  machine.urlLoading.onRequest("https://store.example/c", [late](const URLRequest&) { return late; });
  answerAddresses({reply(ready({"a", "c"}))});
  Answer answer;
  const auto progress = start({"a", "b", "c"}, answer);
  scheduler.advance(seconds(46));
  EXPECT_THAT(log.messages(LogLevel::standard),
              Contains("still waiting after 45s: thumbnails (2 of 3 done, 1 in flight)"));
  EXPECT_EQ(progress->completedUnitCount(), 2);
  scheduler.advance(seconds(10));
  ASSERT_TRUE(answer.hasValue());
  EXPECT_THAT(log.messages(LogLevel::standard), Contains("thumbnails finished after 50s"));
  expectNothingPending();
}

TEST_F(FetchThumbnailsTest, CancelledMidwayFetchesNoMoreImagesAndEndsWithTheCancellation) {
  for (const auto* id : {"a", "b", "c"}) know(id);
  serveImages();
  answerAddresses({reply(ready({"a"}, {"b", "c"})), reply(ready({"b"}, {"c"}))});
  Answer answer;
  const auto progress = start({"a", "b", "c"}, answer);
  scheduler.advance(seconds(1));
  EXPECT_EQ(imageOf("a"), Image("image of a"));
  progress->cancel();
  EXPECT_TRUE(scheduler.runUntil([&] { return answer.hasValue(); }));
  EXPECT_EQ(answer.value(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_EQ(images.size(), 3u);
  EXPECT_EQ(imageOf("b"), Image(std::nullopt));
  EXPECT_EQ(imageOf("c"), Image(failure(unavailable("c"))));
  EXPECT_THAT(imagesAskedAt, ElementsAre(0));
  EXPECT_EQ(progress->completedUnitCount(), 3);
}

TEST_F(FetchThumbnailsTest, CancelledDuringTheLookupsAsksForNoAddresses) {
  for (const auto* id : {"a", "b"}) serveItem(id, true);
  machine.urlLoading.hold();
  Answer answer;
  const auto progress = start({"a", "b"}, answer);
  scheduler.runUntilIdle();
  progress->cancel();
  machine.urlLoading.release();
  scheduler.runUntilIdle();
  ASSERT_TRUE(answer.hasValue());
  EXPECT_EQ(answer.value(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_THAT(images, UnorderedElementsAre(Pair("a", Image(std::nullopt)), Pair("b", Image(std::nullopt))));
  EXPECT_THAT(requests(), UnorderedElementsAre("item?id=a", "item?id=b"));
}

TEST_F(FetchThumbnailsTest, KeepsTheImageThatIsUnderWayWhenItIsCancelled) {
  know("a");
  auto late = reply("image");
  late.delay = seconds(5);
  machine.urlLoading.onRequest("https://store.example/a", [late](const URLRequest&) { return late; });
  answerAddresses({reply(ready({"a"}))});
  Answer answer;
  const auto progress = start({"a"}, answer);
  scheduler.advance(seconds(1));
  progress->cancel();
  scheduler.advance(seconds(5));
  ASSERT_TRUE(answer.hasValue());
  EXPECT_EQ(answer.value(), Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
  EXPECT_EQ(imageOf("a"), Image("image"));
}

TEST_F(FetchThumbnailsTest, TakesAnEmptyRequest) {
  EXPECT_EQ(fetch({}), std::nullopt);
  EXPECT_THAT(images, IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::info), Contains("thumbnails: 0 requested at 64x48"));
}

TEST_F(FetchThumbnailsTest, CountsAnIdentifierThatIsGivenTwiceOnce) {
  know("a");
  serveImages();
  answerAddresses({reply(ready({"a"}))});
  Answer answer;
  const auto progress = start({"a", "a"}, answer);
  scheduler.runUntilIdle();
  EXPECT_EQ(answer.value(), std::nullopt);
  EXPECT_EQ(imageOf("a"), Image("image of a"));
  EXPECT_EQ(progress->totalUnitCount(), 1);
  EXPECT_EQ(progress->completedUnitCount(), 1);
}

TEST_F(FetchThumbnailsTest, KnowsTheRootByTheServersName) {
  answerAPI("item?id=root", R"({"id":"root","name":"root"})");
  EXPECT_EQ(fetch({ROOT_CONTAINER.text}), std::nullopt);
  EXPECT_EQ(imageOf(ROOT_CONTAINER.text), Image(std::nullopt));
}

}  // namespace
}  // namespace vondle
