#include "api/vondle_api.h"

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/api_rig.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

std::vector<std::pair<std::string, std::string>> headersOf(const URLRequest& request) {
  std::vector<std::pair<std::string, std::string>> headers;
  for (const auto& header : request.headers) headers.emplace_back(header.name, header.value);
  return headers;
}

struct VondleAPITest : testing::Test, ApiRig {
  template <class T>
  using Answer = Captured<Result<T>>;

  Result<json::Object> post(std::string path, json::Object body = {}) {
    Answer<json::Object> answer;
    api.post(std::move(path), std::move(body), answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
  Result<std::vector<Entry>> browse(std::string id) {
    Answer<std::vector<Entry>> answer;
    api.browse(std::move(id), answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
  Result<Entry> item(std::string id) {
    Answer<Entry> answer;
    api.item(std::move(id), answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
  Result<ChangeSet> changes(std::int64_t since, std::int64_t limit) {
    Answer<ChangeSet> answer;
    api.changes(since, limit, answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
  Result<ContentTarget> contentURL(std::int64_t size) {
    Answer<ContentTarget> answer;
    api.contentURL("7", 3, size, answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
  Result<ThumbURLs> thumbURLs(std::vector<std::string> ids) {
    Answer<ThumbURLs> answer;
    api.thumbURLs(std::move(ids), answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
  // What was posted last: the endpoint and the body.
  [[nodiscard]] std::pair<std::string, json::Value> posted() const {
    const URLRequest& request = loading.tasks().back()->originalRequest();
    EXPECT_EQ(request.method, "POST");
    return {requests().back(), json::parse(request.body.value()).value()};
  }
  Result<std::vector<Entry>> trash() {
    Answer<std::vector<Entry>> answer;
    api.trash(answer.completion());
    scheduler.runUntilIdle();
    return std::move(answer.value());
  }
};

// The request core.

TEST_F(VondleAPITest, SendsNothingWithoutAConfiguration) {
  ASSERT_TRUE(files.remove(configPath));
  EXPECT_EQ(post("move").error(), Error(APIError::notConfigured()));
  EXPECT_EQ(browse("root").error(), Error(APIError::notConfigured()));
  EXPECT_EQ(item("7").error(), Error(APIError::notConfigured()));
  EXPECT_EQ(changes(1, 2).error(), Error(APIError::notConfigured()));
  EXPECT_EQ(trash().error(), Error(APIError::notConfigured()));
  EXPECT_THAT(loading.tasks(), IsEmpty());
}

TEST_F(VondleAPITest, TakesAServerThatIsNoAddressAsNotConfigured) {
  for (const char* server : {"https://", "https://exa mple", "api.example", "://x"}) {
    configure(server);
    EXPECT_EQ(browse("root").error(), Error(APIError::notConfigured())) << server;
  }
  EXPECT_THAT(loading.tasks(), IsEmpty());
}

TEST_F(VondleAPITest, NeverSendsTheKeyOverPlainHTTPToAnotherMachine) {
  configure("http://other.example");
  EXPECT_EQ(item("7").error(), Error(APIError::notConfigured()));
  EXPECT_THAT(loading.tasks(), IsEmpty());
}

TEST_F(VondleAPITest, ReadsTheConfigurationAgainForEveryRequest) {
  answer("item", R"({"id":"7"})");
  EXPECT_TRUE(item("7"));
  configure("https://other.example:8080");
  loading.onRequest([](const URLRequest&) { return reply(R"({"id":"7"})"); });
  EXPECT_TRUE(item("7"));
  EXPECT_EQ(loading.tasks().back()->url(), "https://other.example:8080/vondle/api/item?id=7");
}

TEST_F(VondleAPITest, NamesTheAccountAndTheClientInEveryRequest) {
  answer("item", R"({"id":"7"})");
  ASSERT_TRUE(item("7"));
  const URLRequest& request = loading.tasks().back()->originalRequest();
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.url, "https://api.example/vondle/api/item?id=7");
  EXPECT_EQ(request.body, std::nullopt);
  EXPECT_EQ(request.timeout, seconds(60));
  EXPECT_THAT(headersOf(request), UnorderedElementsAre(Pair("X-API-Key", KEY), Pair("X-Vondle-Client", CLIENT)));
  EXPECT_EQ(loading.tasks().back()->configuration().timeoutForRequest, seconds(30));
  EXPECT_EQ(loading.tasks().back()->configuration().timeoutForResource, seconds(300));
}

TEST_F(VondleAPITest, SendsABodyAsJSON) {
  answer("", "{}");
  ASSERT_TRUE(post("move"));
  const URLRequest& request = loading.tasks().back()->originalRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://api.example/vondle/api/move");
  EXPECT_EQ(request.body, "{}");
  EXPECT_THAT(headersOf(request), UnorderedElementsAre(Pair("X-API-Key", KEY), Pair("X-Vondle-Client", CLIENT),
                                                       Pair("Content-Type", "application/json")));
}

TEST_F(VondleAPITest, EncodesTheQuery) {
  answer("item", R"({"id":"7"})");
  ASSERT_TRUE(item("a b&c=d/é+#?"));
  EXPECT_THAT(requests(), ElementsAre("item?id=a%20b%26c%3Dd/%C3%A9%2B%23?"));
}

TEST_F(VondleAPITest, LeavesTheAddressWithoutAQuestionMarkWhenThereIsNoQuery) {
  answer("", R"({"items":[]})");
  ASSERT_TRUE(trash());
  EXPECT_THAT(requests(), ElementsAre("trash"));
}

TEST_F(VondleAPITest, GivesTheReplyObjectAsItIs) {
  answer("", R"({"a":[1,{"b":null}],"c":"d"})");
  const auto reply = post("move");
  ASSERT_TRUE(reply);
  EXPECT_EQ(json::serialize(*reply), R"({"a":[1,{"b":null}],"c":"d"})");
}

TEST_F(VondleAPITest, TakesOnlyAnObjectWithStatus200AsSuccess) {
  const struct {
    int status;
    const char* body;
  } cases[] = {
      {204, ""},       {201, "{}"}, {200, "[]"}, {200, ""},   {200, "{"}, {200, "null"},
      {200, "<html>"}, {400, "{}"}, {401, "{}"}, {404, "{}"}, {500, ""},  {507, R"({"error":"full"})"},
  };
  for (const auto& c : cases) {
    log.clear();
    answer("", c.body, c.status);
    const auto reply = post("folders");
    ASSERT_FALSE(reply) << c.status << c.body;
    EXPECT_EQ(reply.error(), Error(APIError::badResponse(c.status))) << c.body;
    EXPECT_THAT(log.messages(LogLevel::error), ElementsAre("folders -> HTTP " + std::to_string(c.status)));
  }
}

TEST_F(VondleAPITest, LogsOnlyThePathOfAFailure) {
  answer("", "", 500);
  EXPECT_FALSE(item("private"));
  EXPECT_THAT(log.messages(), ElementsAre("item -> HTTP 500"));
}

TEST_F(VondleAPITest, PassesTransportErrorsUnchanged) {
  for (const Error& error :
       {Error(URL_ERROR_DOMAIN, URL_TIMED_OUT, "late"), Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST, "refused"),
        Error(URL_ERROR_DOMAIN, URL_DATA_LENGTH_EXCEEDS_MAXIMUM, "not ours")}) {
    fail("", error);
    EXPECT_EQ(post("move").error(), error);
  }
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(VondleAPITest, FailsAfterSixtySecondsOfSilence) {
  Answer<Entry> answer;
  api.item("7", answer.completion());
  scheduler.advance(seconds(59.9));
  EXPECT_FALSE(answer.hasValue());
  scheduler.advance(seconds(0.2));
  ASSERT_TRUE(answer.hasValue());
  EXPECT_TRUE(answer.value().error().is(URL_ERROR_DOMAIN, URL_TIMED_OUT));
}

TEST_F(VondleAPITest, RefusesAReplyThatIsTooLong) {
  for (const int status : {200, 500}) {
    Answer<Entry> answer;
    api.item("7", answer.completion());
    scheduler.runUntilIdle();
    loading.tasks().back()->respond(status, {}, MAX_REPLY_BYTES + 1);
    scheduler.runUntilIdle();
    ASSERT_TRUE(answer.hasValue());
    EXPECT_EQ(answer.value().error(), Error(APIError::badResponse(status)));
  }
  EXPECT_THAT(log.messages(LogLevel::error), ElementsAre("item -> HTTP 200", "item -> HTTP 500"));
}

TEST_F(VondleAPITest, RunsRequestsSideBySide) {
  Answer<Entry> first;
  Answer<Entry> second;
  api.item("1", first.completion());
  api.item("2", second.completion());
  scheduler.runUntilIdle();
  loading.task("id=2").reply(reply(R"({"id":"2"})"));
  scheduler.runUntilIdle();
  EXPECT_TRUE(second.hasValue());
  EXPECT_FALSE(first.hasValue());
  loading.task("id=1").reply(reply(R"({"id":"1"})"));
  scheduler.runUntilIdle();
  EXPECT_EQ(first.value()->id, "1");
}

TEST_F(VondleAPITest, CancelsWhatRunsWhenItStopsAndRefusesTheRest) {
  Answer<Entry> running;
  Answer<Entry> later;
  Answer<Entry> followUp;
  api.item("1", [&](Result<Entry> entry) {
    running.completion()(std::move(entry));
    api.item("2", followUp.completion());
  });
  scheduler.runUntilIdle();
  api.stop();
  api.item("3", later.completion());
  scheduler.runUntilIdle();
  for (auto* answer : {&running, &later, &followUp}) {
    ASSERT_TRUE(answer->hasValue());
    EXPECT_TRUE(answer->value().error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
  }
}

// Folder listings.

TEST_F(VondleAPITest, ListsFoldersBeforeFilesEachInOrder) {
  answer("browse", R"({"subpath":"docs","role":"read",
    "files":[{"id":"3","filename":"c","name":"other"},{"id":"4","filename":"a","role":"owner"}],
    "folders":[{"id":"2","name":"z"},{"id":"1","name":"b","is_folder":false}]})");
  const auto entries = browse("9");
  ASSERT_TRUE(entries);
  ASSERT_EQ(entries->size(), 4u);
  const struct {
    const char* id;
    const char* path;
    bool isFolder;
    const char* role;
  } expected[] = {{"2", "docs/z", true, "read"},
                  {"1", "docs/b", true, "read"},
                  {"3", "docs/c", false, "read"},
                  {"4", "docs/a", false, "owner"}};
  for (std::size_t i = 0; i < 4; ++i) {
    const Entry& entry = (*entries)[i];
    EXPECT_EQ(entry.id, expected[i].id);
    EXPECT_EQ(entry.path, expected[i].path);
    EXPECT_EQ(entry.isFolder, expected[i].isFolder);
    EXPECT_EQ(entry.role, expected[i].role);
    EXPECT_EQ(entry.fetchedAt, scheduler.now());
  }
  EXPECT_THAT(requests(), ElementsAre("browse?id=9&lite=1"));
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("browse docs -> 4 items"));
}

TEST_F(VondleAPITest, NamesTheRootInTheLogByASlash) {
  answer("browse", R"({"folders":[],"files":[]})");
  EXPECT_THAT(browse("root").value(), IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("browse / -> 0 items"));
}

TEST_F(VondleAPITest, AssumesTheOwnerOnlyForListingsByPath) {
  answer("browse", R"({"folders":[{"id":"1","name":"a"}],"files":[]})");
  EXPECT_EQ(browse("root")->at(0).role, std::nullopt);
  Answer<std::vector<Entry>> byPath;
  api.browsePath("a/b c", byPath.completion());
  scheduler.runUntilIdle();
  EXPECT_EQ(byPath.value()->at(0).role, "owner");
  EXPECT_THAT(requests(), ElementsAre("browse?id=root&lite=1", "browse?path=a/b%20c"));

  answer("browse", R"({"role":"read","folders":[{"id":"1","name":"a"}],"files":[]})");
  Answer<std::vector<Entry>> told;
  api.browsePath("a", told.completion());
  scheduler.runUntilIdle();
  EXPECT_EQ(told.value()->at(0).role, "read");
}

TEST_F(VondleAPITest, NamesAFileByItsFileNameThenByItsName) {
  answer("browse", R"({"folders":[],"files":[
    {"id":"1","filename":"","name":"x"},{"id":"2","filename":"y","name":"x"},{"id":"3","filename":5,"name":"x"},
    {"id":"4"},{"id":"5","name":7}]})");
  std::vector<std::string> names;
  const auto entries = browse("root");
  for (const Entry& entry : *entries) names.push_back(entry.name);
  EXPECT_THAT(names, ElementsAre("x", "y", "x", "", ""));
}

TEST_F(VondleAPITest, LeavesOutEntriesThatDoNotParse) {
  answer("browse", R"({"folders":[{"name":"no id"},{"id":"1"},{"id":"2","name":"a"}],"files":[{"filename":"x"}]})");
  const auto entries = browse("root");
  ASSERT_EQ(entries->size(), 1u);
  EXPECT_EQ(entries->at(0).id, "2");
  EXPECT_THAT(log.messages(LogLevel::info), ElementsAre("browse / -> 1 items"));
}

TEST_F(VondleAPITest, RefusesAListingWithoutBothLists) {
  for (const char* body : {R"({"folders":[]})", R"({"files":[]})", R"({"folders":[],"files":{}})",
                           R"({"folders":[1],"files":[]})", R"({"folders":[],"files":[{},"x"]})", "{}"}) {
    answer("browse", body);
    EXPECT_EQ(browse("root").error(), Error(APIError::malformed())) << body;
  }
}

// Single items.

TEST_F(VondleAPITest, ReadsAnItemWithoutAParentPath) {
  answer("item", R"({"id":"7","name":"a","prefix":"x"})");
  const auto entry = item("7");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->path, "a");
  EXPECT_TRUE(entry->isFolder);
  EXPECT_EQ(entry->role, std::nullopt);
  answer("item", R"({"id":"7","name":"a","path":"x/a"})");
  EXPECT_EQ(item("7")->path, "x/a");
}

TEST_F(VondleAPITest, ForgivesAnItemItsMissingNameButNotItsMissingId) {
  answer("item", R"({"id":"7"})");
  EXPECT_EQ(item("7")->name, "");
  answer("item", R"({"name":"a"})");
  EXPECT_EQ(item("7").error(), Error(APIError::malformed()));
}

// The change feed.

TEST_F(VondleAPITest, ReadsAPageOfChanges) {
  answer("changes", R"({"changes":[{"id":"9","deleted":true},{"id":"8","deleted":false,"name":"a"},
    {"deleted":true},{"id":"7","name":"b","trashed":true},{"id":"6"},{"id":"5","deleted":"true","name":"c"}],
    "seq":15,"head":20,"more":true})");
  const auto page = changes(10, 1000);
  ASSERT_TRUE(page);
  EXPECT_THAT(requests(), ElementsAre("changes?since=10&limit=1000"));
  EXPECT_THAT(page->deleted, ElementsAre("9"));
  ASSERT_EQ(page->entries.size(), 3u);
  EXPECT_EQ(page->entries[0].id, "8");
  EXPECT_FALSE(page->entries[0].deleted);
  EXPECT_EQ(page->entries[1].id, "7");
  EXPECT_TRUE(page->entries[1].deleted);
  EXPECT_EQ(page->entries[2].id, "5");
  EXPECT_EQ(page->seq, 15);
  EXPECT_EQ(page->head, 20);
  EXPECT_TRUE(page->more);
}

TEST_F(VondleAPITest, KeepsTheCursorWhenAPageDoesNotTellIt) {
  answer("changes", R"({"changes":[]})");
  const auto page = changes(42, 0);
  ASSERT_TRUE(page);
  EXPECT_EQ(page->seq, 42);
  EXPECT_EQ(page->head, 0);
  EXPECT_FALSE(page->more);
}

TEST_F(VondleAPITest, RefusesAPageWithoutAListOfObjects) {
  for (const char* body : {"{}", R"({"changes":{}})", R"({"changes":[1]})", R"({"changes":null})"}) {
    answer("changes", body);
    EXPECT_EQ(changes(1, 2).error(), Error(APIError::malformed())) << body;
  }
}

// The trash.

TEST_F(VondleAPITest, ListsTheTrashWithTheRestorePaths) {
  answer("trash", R"({"items":[{"id":"1","name":"a","path":"old/a","restore_path":"docs/a","deleted":false},
    {"id":"2","name":"b","path":"old/b"},{"name":"no id"},{"id":"3","name":"c","path":"old/c","restore_path":null}]})");
  const auto entries = trash();
  ASSERT_TRUE(entries);
  ASSERT_EQ(entries->size(), 3u);
  EXPECT_EQ(entries->at(0).path, "docs/a");
  EXPECT_EQ(entries->at(1).path, "b");
  EXPECT_EQ(entries->at(2).path, "c");
  for (const Entry& entry : *entries) EXPECT_TRUE(entry.deleted);
}

TEST_F(VondleAPITest, RefusesATrashWithoutItems) {
  for (const char* body : {"{}", R"({"items":null})", R"({"items":["a"]})"}) {
    answer("trash", body);
    EXPECT_EQ(trash().error(), Error(APIError::malformed())) << body;
  }
}

// Writes.

TEST_F(VondleAPITest, SendsWritesWithTheirBodies) {
  using Reply = Completion<Result<json::Object>>;
  const struct {
    std::function<void(Reply)> call;
    const char* path;
    const char* body;
  } cases[] = {
      {[&](Reply r) { api.move("k/1", "a/b", std::move(r)); }, "move", R"({"source_key":"k/1","dest_key":"a/b"})"},
      {[&](Reply r) { api.moveFolder("a/b", "c", std::move(r)); }, "move-folder",
       R"({"source_prefix":"a/b/","dest_prefix":"c/"})"},
      {[&](Reply r) { api.createFolder("n", "a/b", std::move(r)); }, "folders", R"({"name":"n","path":"a/b"})"},
      {[&](Reply r) { api.createFolder("n", "", std::move(r)); }, "folders", R"({"name":"n","path":""})"},
      {[&](Reply r) { api.registerContents("k/1", "a/b", std::move(r)); }, "register", R"({"key":"k/1","path":"a/b"})"},
      {[&](Reply r) { api.deleteFile("k/1", std::move(r)); }, "delete-files", R"({"keys":["k/1"]})"},
      {[&](Reply r) { api.deleteFolder("a/b", std::move(r)); }, "delete-folder", R"({"prefix":"a/b/"})"},
      {[&](Reply r) { api.deleteFolder("", std::move(r)); }, "delete-folder", R"({"prefix":"/"})"},
      {[&](Reply r) { api.restore("7", std::move(r)); }, "restore", R"({"id":"7"})"},
      {[&](Reply r) { api.purge("7", std::move(r)); }, "purge", R"({"id":"7"})"},
  };
  answer("", R"({"any":"thing"})");
  for (const auto& c : cases) {
    Answer<json::Object> reply;
    c.call(reply.completion());
    scheduler.runUntilIdle();
    ASSERT_TRUE(reply.hasValue() && reply.value()) << c.path;
    EXPECT_EQ(json::serialize(*reply.value()), R"({"any":"thing"})");
    const URLRequest& request = loading.tasks().back()->originalRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.url, std::string(API) + c.path);
    EXPECT_EQ(json::parse(*request.body).value(), json::parse(c.body).value()) << *request.body;
  }
}

// Contents.

TEST_F(VondleAPITest, TellsTheServerASizeOnlyFromTheThresholdOn) {
  answer("content-url", R"({"key":"k","upload_url":"https://store.example/k"})");
  const auto small = json::parse(R"({"id":"7","base_version":3,"thumb":true})").value();
  for (const std::int64_t size : {std::int64_t{0}, std::int64_t{1}, std::int64_t{104'857'599}}) {
    ASSERT_TRUE(contentURL(size));
    EXPECT_EQ(posted(), std::pair(std::string("content-url"), small)) << size;
  }
  ASSERT_TRUE(contentURL(104'857'600));
  EXPECT_EQ(posted().second,
            json::parse(R"({"id":"7","base_version":3,"thumb":true,"size":104857600,"multipart":true})").value());
}

TEST_F(VondleAPITest, LetsTheServerDecideTheFormOfAnUpload) {
  answer("content-url", R"({"key":"k","upload_id":"u1","part_size":8388608,"upload_url":"x"})");
  EXPECT_EQ(contentURL(1)->uploadID, "u1");
  answer("content-url", R"({"key":"k","upload_url":"https://store.example/k"})");
  EXPECT_EQ(contentURL(104'857'600)->uploadURL, "https://store.example/k");
}

TEST_F(VondleAPITest, RefusesATargetThatCannotBeUsed) {
  for (const char* body : {R"({})", R"({"upload_url":"https://store.example/k"})",
                           R"({"key":"k","upload_id":"u1","part_size":0})", R"({"key":"k","upload_url":"x"})"}) {
    answer("content-url", body);
    EXPECT_EQ(contentURL(1).error(), Error(APIError::malformed())) << body;
  }
}

TEST_F(VondleAPITest, PassesARefusedTargetUnchanged) {
  for (const int status : {401, 403, 404, 409, 413, 429, 500, 507}) {
    answer("content-url", R"({"key":"k","upload_url":"https://store.example/k"})", status);
    EXPECT_EQ(contentURL(1).error(), Error(APIError::badResponse(status)));
  }
  for (const char* garbage : {"", "{", "[]", "<html>", "\xFF\xFE", "null", "{\"key\":\"k\"}{}"}) {
    answer("content-url", garbage);
    EXPECT_EQ(contentURL(1).error(), Error(APIError::badResponse(200))) << garbage;
  }
  fail("content-url", {URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST});
  EXPECT_EQ(contentURL(1).error(), Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST));
}

TEST_F(VondleAPITest, CommitsContentsWithAndWithoutAPreview) {
  answer("content-commit", R"({"any":"thing"})");
  for (const bool thumb : {false, true}) {
    Answer<json::Object> reply;
    api.contentCommit("7", 3, "k", thumb, reply.completion());
    scheduler.runUntilIdle();
    EXPECT_EQ(json::serialize(*reply.value()), R"({"any":"thing"})");
    EXPECT_EQ(posted(), std::pair(std::string("content-commit"),
                                  json::parse(thumb ? R"({"id":"7","base_version":3,"key":"k","thumb":true})"
                                                    : R"({"id":"7","base_version":3,"key":"k"})")
                                      .value()));
  }
}

TEST_F(VondleAPITest, NotifiesTheServerOfAnUploadAndForgetsIt) {
  answer("notify-upload", "", 500);
  api.notifyUpload("k");
  scheduler.runUntilIdle();
  EXPECT_EQ(posted(), std::pair(std::string("notify-upload"), json::parse(R"({"keys":["k"]})").value()));
}

TEST_F(VondleAPITest, TellsWhenANotificationIsOverHoweverItEnds) {
  for (const int status : {200, 500}) {
    for (const bool thumb : {false, true}) {
      answer("notify-upload", "{}", status);
      int answered = 0;
      api.notifyUpload("k", thumb, [&] { ++answered; });
      EXPECT_EQ(answered, 0);
      scheduler.runUntilIdle();
      EXPECT_EQ(answered, 1);
      EXPECT_EQ(posted().second, json::parse(thumb ? R"({"keys":["k"],"thumbs":["k"]})" : R"({"keys":["k"]})").value());
    }
  }
}

TEST_F(VondleAPITest, AsksForTheAddressesOfThumbnails) {
  answer("thumb-urls", R"({"urls":{"a":"https://t/a","b":""},"pending":["c","d","c"]})");
  const auto thumbs = thumbURLs({"a", "b", "c", "d", "e"});
  EXPECT_EQ(posted(), std::pair(std::string("thumb-urls"), json::parse(R"({"ids":["a","b","c","d","e"]})").value()));
  ASSERT_TRUE(thumbs);
  EXPECT_THAT(thumbs->urls, ElementsAre(Pair("a", "https://t/a"), Pair("b", "")));
  EXPECT_THAT(thumbs->pending, ElementsAre("c", "d"));
}

TEST_F(VondleAPITest, ReadsThumbnailsWithoutAnyPending) {
  for (const char* body : {R"({"urls":{}})", R"({"urls":{},"pending":null})", R"({"urls":{},"pending":"a"})",
                           R"({"urls":{},"pending":[7]})"}) {
    answer("thumb-urls", body);
    const auto thumbs = thumbURLs({});
    ASSERT_TRUE(thumbs) << body;
    EXPECT_THAT(thumbs->urls, IsEmpty());
    EXPECT_THAT(thumbs->pending, IsEmpty());
  }
}

TEST_F(VondleAPITest, RefusesThumbnailsWithoutAMapOfTexts) {
  for (const char* body :
       {R"({"pending":["a"]})", "{}", R"({"urls":[]})", R"({"urls":{"a":7}})", R"({"urls":{"a":"x","b":null}})"}) {
    answer("thumb-urls", body);
    EXPECT_EQ(thumbURLs({"a"}).error(), Error(APIError::malformed())) << body;
  }
}

}  // namespace
}  // namespace vondle
