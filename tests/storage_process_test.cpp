// The storage service as a program: started, killed at any moment, started again.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/json.h"
#include "base/mutex.h"
#include "platform/linux/sqlite.h"
#include "preview/preview_samples.h"
#include "storage_program.h"
#include "testing/raw_http_client.h"
#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// Counts up to what is waited for; a worker that ends early ends the waiting.
class Counter {
 public:
  void add() {
    ++count_;
    count_.notify_all();
  }
  void giveUp() {
    count_ = 1'000'000;
    count_.notify_all();
  }
  void waitFor(int enough) const {
    for (int seen = count_; seen < enough; seen = count_) count_.wait(seen);
  }

 private:
  std::atomic<int> count_ = 0;
};

class StorageProcessTest : public testing::Test {
 protected:
  StorageProcessTest() { key_ = folder_.write("key", KEY); }

  std::string root() const { return folder_.path() + "/state"; }
  std::vector<std::string> arguments(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> all{"--root", root(), "--listen", "127.0.0.1:0", "--account", "ann:" + key_};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  static constexpr const char* KEY = "key-of-ann-0123456789";
  TemporaryFolder folder_;
  std::string key_;
};

// A client of the service that gives up on the first failure, as when the service dies.
class Client {
 public:
  explicit Client(int port) : client_(port) {}

  std::optional<json::Object> call(const std::string& method, const std::string& target, const std::string& body = "") {
    const auto reply = client_.request(method, "/vondle/api/" + target, "X-API-Key: key-of-ann-0123456789\r\n", body);
    status = reply.status;
    return reply.status == 200 ? json::parseObject(reply.body) : std::nullopt;
  }
  std::optional<json::Object> post(const std::string& endpoint, const json::Value& body) {
    return call("POST", endpoint, json::serialize(body));
  }
  static std::string targetOf(std::string_view url) { return std::string(url.substr(url.find("/vondle/"))); }

  // The place for a new file.
  std::optional<json::Object> place(const std::string& name, std::size_t size, bool inParts = false) {
    json::Object file{{"filename", name}, {"size", size}};
    if (inParts) file["multipart"] = true;
    const auto reply = post("upload-urls", {{"path", ""}, {"files", {file}}});
    const auto* urls = reply ? json::listOfObjects(*reply, "urls") : nullptr;
    return urls ? std::optional(urls->front().get_object()) : std::nullopt;
  }
  // The ETag.
  std::optional<std::string> put(std::string_view url, std::string_view bytes) {
    const auto reply = client_.request("PUT", targetOf(url), "", bytes);
    status = reply.status;
    return reply.status == 200 ? std::optional(reply.header("etag")) : std::nullopt;
  }
  bool makeFile(const std::string& name, std::string_view bytes) {
    const auto target = place(name, bytes.size());
    return target && put(*json::text(*target, "upload_url"), bytes);
  }
  std::optional<std::string> partUrl(const json::Object& target, int number) {
    const auto reply =
        post("upload-parts", {{"key", target.at("key")}, {"upload_id", target.at("upload_id")}, {"parts", {number}}});
    const auto* parts = reply ? json::listOfObjects(*reply, "parts") : nullptr;
    return parts ? std::optional(std::string(*json::text(parts->front().get_object(), "url"))) : std::nullopt;
  }
  // With the tags of all parts, in order.
  bool complete(const json::Object& target, const std::vector<std::string>& tags) {
    json::Array parts;
    for (const auto& tag : tags) parts.push_back({{"part", parts.size() + 1}, {"etag", tag}});
    return post("upload-complete", {{"key", target.at("key")}, {"upload_id", target.at("upload_id")}, {"parts", parts}})
        .has_value();
  }
  std::string get(std::string_view url) { return client_.request("GET", targetOf(url)).body; }
  // Name to entry, of the top folder.
  std::map<std::string, json::Object> list() {
    std::map<std::string, json::Object> entries;
    const auto listing = call("GET", "browse?path=");
    if (!listing) return entries;
    for (const char* kind : {"folders", "files"})
      for (const auto& entry : *json::listOfObjects(*listing, kind))
        entries[std::string(*json::text(entry.get_object(), "name"))] = entry.get_object();
    return entries;
  }

  int status = 0;

 private:
  RawHttpClient client_;
};

TEST_F(StorageProcessTest, ItStartsServesAndStopsCleanly) {
  for (const int number : {SIGTERM, SIGINT}) {
    StorageProgram program(arguments());
    const int port = program.port();
    ASSERT_GT(port, 0) << program.errors();
    EXPECT_TRUE(Client(port).call("GET", "browse?path="));
    EXPECT_EQ(program.end(number), 0);
    EXPECT_EQ(program.errors(), "");
  }
}

TEST_F(StorageProcessTest, HelpAndVersionAreTold) {
  StorageProgram help({"--help"});
  EXPECT_EQ(help.wait(), 0);
  EXPECT_THAT(help.output(), HasSubstr("--import"));
  StorageProgram version({"--version"});
  EXPECT_EQ(version.wait(), 0);
  EXPECT_THAT(version.output(), StartsWith("vondle-storage "));
}

TEST_F(StorageProcessTest, AWrongCallEndsWith2AndAFailureWith1) {
  const auto open = folder_.write("open-key", KEY, 0644);
  const struct {
    std::vector<std::string> arguments;
    int code;
  } cases[] = {
      {{}, 2},
      {{"--root"}, 2},
      {{"--root", root(), "--no-such-option"}, 2},
      {{"--root", root(), "--listen", "somewhere"}, 2},
      {{"--root", root(), "--listen", "127.0.0.1:70000"}, 2},
      {{"--root", root(), "--account", "ann"}, 2},
      {{"--root", root(), "--quota", "ann:many"}, 2},
      {{"--root", root(), "--import", folder_.path()}, 2},
      {{"--root", root(), "--import", folder_.path() + "/nowhere"}, 2},
      {{"--root", root(), "--url-lifetime", "0"}, 2},
      {{"--root", root(), "--account", "ann:" + folder_.path() + "/nowhere"}, 1},
      {{"--root", root(), "--account", "ann:" + open}, 1},
      {{"--root", root(), "--account", "a/b:" + key_}, 1},
      {{"--root", root(), "--quota", "nobody:5"}, 1},
      {{"--root", "/proc/nowhere/state"}, 1},
      {{"--root", root(), "--listen", "192.0.2.1:0"}, 1},
  };
  for (const auto& [given, code] : cases) {
    StorageProgram program(given);
    EXPECT_EQ(program.wait(), code) << testing::PrintToString(given);
    EXPECT_NE(program.errors(), "") << testing::PrintToString(given);
    EXPECT_EQ(program.output(), "") << testing::PrintToString(given);
  }
}

TEST_F(StorageProcessTest, OneFolderOrPortIsServedOnce) {
  StorageProgram first(arguments());
  const int port = first.port();
  ASSERT_GT(port, 0);
  StorageProgram sameFolder(arguments());
  EXPECT_EQ(sameFolder.wait(), 1);
  EXPECT_THAT(sameFolder.errors(), HasSubstr("another vondle-storage"));
  StorageProgram samePort({"--root", root() + "2", "--listen", "127.0.0.1:" + std::to_string(port)});
  EXPECT_EQ(samePort.wait(), 1);
}

TEST_F(StorageProcessTest, TheKeyIsReadFromItsFileAndShownNowhere) {
  StorageProgram program(arguments());
  const int port = program.port();
  ASSERT_GT(port, 0);
  RawHttpClient client(port);
  EXPECT_EQ(client.request("GET", "/vondle/api/trash", "X-API-Key: wrong-0123456789\r\n").status, 401);
  EXPECT_EQ(program.end(SIGTERM), 0);
  EXPECT_THAT(program.output() + program.errors(), testing::Not(HasSubstr(KEY)));
}

TEST_F(StorageProcessTest, ImportingTwiceIsTheSameAsOnce) {
  std::filesystem::create_directories(folder_.path() + "/tree/d");
  folder_.write("tree/a", "hello");
  folder_.write("tree/d/b", "");
  for (int i = 0; i < 2; ++i) {
    StorageProgram program(arguments({"--import", folder_.path() + "/tree"}));
    const int port = program.port();
    ASSERT_GT(port, 0) << program.errors();
    Client client(port);
    const auto entries = client.list();
    EXPECT_EQ(entries.size(), 2U);
    EXPECT_EQ(client.get(*json::text(entries.at("a"), "download_url")), "hello");
    EXPECT_EQ(json::integer(*client.call("GET", "changes?since=0&limit=0"), "head"), 3);
    EXPECT_EQ(program.end(SIGTERM), 0);
  }
}

TEST_F(StorageProcessTest, NothingThatWasAnsweredIsLostWhenTheServiceIsKilled) {
  std::mt19937 random(20240501);
  std::map<std::string, std::string> acknowledged;  // name to contents
  std::set<std::string> tried;
  Mutex lock;
  const auto contentsOf = [](const std::string& name) {
    std::string bytes;
    for (int i = 0; i < 3000; ++i) bytes += name + "\n";
    return bytes;
  };

  for (int round = 0; round < 6; ++round) {
    StorageProgram program(arguments());
    const int port = program.port();
    ASSERT_GT(port, 0) << program.errors();

    Client looking(port);
    const auto entries = looking.list();
    for (const auto& [name, contents] : acknowledged) {
      ASSERT_TRUE(entries.contains(name)) << name << " was answered and is not there in round " << round;
      EXPECT_TRUE(looking.get(*json::text(entries.at(name), "download_url")) == contents) << name;
    }
    for (const auto& [name, entry] : entries) {
      EXPECT_TRUE(tried.contains(name)) << name;
      EXPECT_TRUE(looking.get(*json::text(entry, "download_url")) == contentsOf(name)) << name << " is not whole";
    }

    Counter done;
    const int enough = 10 + static_cast<int>(random() % 30);
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
      writers.emplace_back([&, w] {
        Client client(port);
        for (int i = 0; i < 1000; ++i) {
          const auto name = fmt::format("{}-{}-{}", round, w, i);
          {
            const MutexLock held(lock);
            tried.insert(name);
          }
          if (!client.makeFile(name, contentsOf(name))) return done.giveUp();
          const MutexLock held(lock);
          acknowledged[name] = contentsOf(name);
          done.add();
        }
      });
    done.waitFor(enough);
    EXPECT_EQ(program.end(SIGKILL), -SIGKILL);
    for (auto& writer : writers) writer.join();
  }

  auto database = sqlite::Database::open(root() + "/metadata.db");
  ASSERT_TRUE(database);
  auto check = database->prepare("PRAGMA integrity_check");
  ASSERT_TRUE(check->step().value_or(false));
  EXPECT_EQ(check->text(0), "ok");
  auto use = database->prepare("SELECT used - (SELECT sum(size) FROM items) FROM accounts");
  ASSERT_TRUE(use->step().value_or(false));
  EXPECT_EQ(use->integer(0), 0);
}

TEST_F(StorageProcessTest, AnEditIsOldOrNewWhenTheServiceIsKilled) {
  std::string current = "version 1";
  std::int64_t version = 1;
  {
    StorageProgram program(arguments());
    ASSERT_TRUE(Client(program.port()).makeFile("thesis", current));
    program.end(SIGKILL);
  }
  for (int round = 0; round < 5; ++round) {
    StorageProgram program(arguments());
    const int port = program.port();
    ASSERT_GT(port, 0);
    Counter commits;
    std::string sent = current;
    std::thread writer([&] {
      Client client(port);
      const auto id = std::string(*json::text(client.list().at("thesis"), "id"));
      for (;;) {
        const auto target = client.post("content-url", {{"id", id}, {"base_version", version}});
        if (!target) return commits.giveUp();
        sent = fmt::format("version {}", version + 1);
        if (!client.put(*json::text(*target, "upload_url"), sent)) return commits.giveUp();
        const auto committed = client.post(
            "content-commit", {{"id", id}, {"base_version", version}, {"key", *json::text(*target, "key")}});
        if (!committed) return commits.giveUp();
        version = *json::integer(*committed, "version");
        current = sent;
        commits.add();
      }
    });
    commits.waitFor(5 + round);
    program.end(SIGKILL);
    writer.join();

    StorageProgram again(arguments());
    Client client(again.port());
    const auto entry = client.list().at("thesis");
    const auto bytes = client.get(*json::text(entry, "download_url"));
    const auto now = *json::integer(entry, "version");
    EXPECT_TRUE((now == version && bytes == current) || (now == version + 1 && bytes == sent))
        << now << " after " << version << ": " << bytes;
    version = now;
    current = bytes;
    EXPECT_EQ(again.end(SIGTERM), 0);
  }
}

TEST_F(StorageProcessTest, AnUploadInPartsGoesOnAfterTheServiceWasKilled) {
  const std::string first(PART_SIZE, 'a');
  const std::string second = "the end";
  json::Object target;
  std::optional<std::string> firstTag;
  {
    StorageProgram program(arguments());
    const int port = program.port();
    Client client(port);
    target = client.place("film", first.size() + second.size(), true).value_or(json::Object());
    ASSERT_TRUE(target.contains("upload_id"));
    firstTag = client.put(*client.partUrl(target, 1), first);
    ASSERT_TRUE(firstTag);
    RawHttpClient half(port);
    half.send("PUT " + Client::targetOf(*client.partUrl(target, 2)) +
              " HTTP/1.1\r\nHost: x\r\nContent-Length: 7\r\n\r\nthe");
    RawHttpClient again(port);
    again.send("PUT " + Client::targetOf(*client.partUrl(target, 1)) +
               " HTTP/1.1\r\nHost: x\r\nContent-Length: 33554432\r\n\r\n" + std::string(4 << 20, 'x'));
    program.end(SIGKILL);
  }
  StorageProgram program(arguments());
  Client client(program.port());
  const auto status = client.post("upload-status", {{"key", target["key"]}, {"upload_id", target["upload_id"]}});
  ASSERT_TRUE(status);
  EXPECT_EQ(json::integer(*status, "part_size"), PART_SIZE);
  EXPECT_EQ(json::list(*status, "parts")->size(), 1U);
  const auto secondTag = client.put(*client.partUrl(target, 2), second);
  ASSERT_TRUE(secondTag);
  EXPECT_TRUE(client.complete(target, {*firstTag, *secondTag}));
  EXPECT_TRUE(client.get(*json::text(client.list().at("film"), "download_url")) == first + second);
}

TEST_F(StorageProcessTest, JoiningPartsCanBeRepeatedWhenTheServiceIsKilled) {
  std::map<std::string, std::string> acknowledged;  // name to contents
  for (int round = 0; round < 5; ++round) {
    StorageProgram program(arguments());
    const int port = program.port();
    ASSERT_GT(port, 0) << program.errors();
    Counter done;
    json::Object target;
    std::optional<std::string> tag;
    std::string name;
    std::thread writer([&] {
      Client client(port);
      for (int i = 0;; ++i) {
        tag.reset();
        name = fmt::format("{}-{}", round, i);
        const auto contents = "contents of " + name;
        const auto place = client.place(name, contents.size(), true);
        if (!place) return done.giveUp();
        target = *place;
        const auto url = client.partUrl(target, 1);
        if (url) tag = client.put(*url, contents);
        if (!tag || !client.complete(target, {*tag})) return done.giveUp();
        acknowledged[name] = contents;
        done.add();
      }
    });
    done.waitFor(5 + 3 * round);
    EXPECT_EQ(program.end(SIGKILL), -SIGKILL);
    writer.join();

    StorageProgram again(arguments());
    Client client(again.port());
    if (tag) {
      EXPECT_TRUE(client.complete(target, {*tag})) << name;
      acknowledged[name] = "contents of " + name;
    }
    const auto entries = client.list();
    EXPECT_EQ(entries.size(), acknowledged.size());
    for (const auto& [each, contents] : acknowledged) {
      ASSERT_TRUE(entries.contains(each)) << each;
      EXPECT_EQ(client.get(*json::text(entries.at(each), "download_url")), contents);
    }
    EXPECT_EQ(again.end(SIGTERM), 0);
  }
}

// KiB. The address sanitizer keeps what was freed for a while.
#ifdef __SANITIZE_ADDRESS__
constexpr long ALLOWED_GROWTH = 400 << 10;
#else
constexpr long ALLOWED_GROWTH = 16 << 10;
#endif

TEST_F(StorageProcessTest, ContentsAreNotHeldInMemory) {
  StorageProgram program(arguments());
  Client client(program.port());
  ASSERT_TRUE(client.makeFile("small", "x"));
  const long before = program.peakMemory();
  const std::string bytes(64 << 20, 'x');
  EXPECT_TRUE(client.makeFile("large", bytes));
  EXPECT_TRUE(client.get(*json::text(client.list().at("large"), "download_url")) == bytes);
  EXPECT_LT(program.peakMemory() - before, ALLOWED_GROWTH);
}

TEST_F(StorageProcessTest, TransfersAreSaidWithoutKeysAndSignatures) {
  StorageProgram program(arguments());
  Client client(program.port());
  ASSERT_TRUE(client.makeFile("f", "hello"));
  const auto target = client.place("film", 3, true);
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(client.put(*client.partUrl(*target, 1), "abc"));
  EXPECT_FALSE(client.put("/vondle/uploads/0123456789abcdef0123456789abcdef?expires=1&signature=forged", "x"));
  EXPECT_EQ(program.end(SIGTERM), 0);
  const auto part =
      "received part 1 of upload " + std::string(*json::text(*target, "upload_id")).substr(0, 8) + ": 3 bytes\n";
  EXPECT_EQ(program.errors(),
            "received contents: 5 bytes\n" + part + part +
                "refused a transfer: 403 the address is not signed for this request, or has expired\n");
}

TEST_F(StorageProcessTest, PreviewsOfPicturesAndVideosAreMadeByTheService) {
  makeQuarters("photo.png", 1200, 800);
  run("vips copy photo.png photo.jpg");
  run("ffmpeg -nostdin -y -v error -bitexact -f lavfi -i color=red:s=1280x720:r=5 -t 2 -c:v libx264 -preset ultrafast "
      "-pix_fmt yuv420p clip.mp4");
  StorageProgram program(arguments());
  Client client(program.port());
  for (const char* name : {"photo.png", "photo.jpg", "clip.mp4"}) ASSERT_TRUE(client.makeFile(name, readSample(name)));
  ASSERT_TRUE(client.makeFile("broken.jpg", "\xff\xd8\xff no picture"));
  ASSERT_TRUE(client.makeFile("letter.txt", "no picture"));

  std::map<std::string, std::string> names;  // by id
  json::Array ids;
  for (const auto& [name, entry] : client.list()) {
    EXPECT_EQ(json::boolean(entry, "has_thumb"), name != "letter.txt") << name;
    names[std::string(*json::text(entry, "id"))] = name;
    ids.emplace_back(*json::text(entry, "id"));
  }
  json::Object reply;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  do reply = client.post("thumb-urls", {{"ids", ids}}).value_or(json::Object());
  while (!json::list(reply, "pending")->empty() && std::chrono::steady_clock::now() < deadline);
  ASSERT_TRUE(json::list(reply, "pending")->empty());

  std::map<std::string, std::string> sizes;
  for (const auto& [id, url] : *json::object(reply, "urls")) {
    writeSample("made.jpg", client.get(std::string_view(url.get_string())));
    run("vipsheader -f width made.jpg; vipsheader -f height made.jpg");
    sizes[names.at(std::string(id))] = readSample("log");
  }
  EXPECT_THAT(sizes, ElementsAre(std::pair("clip.mp4", "960\n540\n"), std::pair("photo.jpg", "400\n267\n"),
                                 std::pair("photo.png", "400\n267\n")));
  const auto entries = client.list();
  EXPECT_EQ(json::boolean(entries.at("broken.jpg"), "has_thumb"), false);
  EXPECT_EQ(client.get(*json::text(entries.at("photo.png"), "thumb_url")).substr(0, 3), "\xff\xd8\xff");
}

TEST_F(StorageProcessTest, PreviewsBeingMadeAreGivenUpAtTheEndAndNotTakenForImpossible) {
  run("ffmpeg -nostdin -y -v error -bitexact -f lavfi -i testsrc2=s=1920x1080:r=10 -t 2 -c:v libx264 -preset ultrafast "
      "-pix_fmt yuv420p large.mp4");
  const auto bytes = readSample("large.mp4");
  {
    StorageProgram program(arguments());
    Client client(program.port());
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(client.makeFile(fmt::format("{}.mp4", i), bytes));
    json::Array ids;
    for (const auto& [name, entry] : client.list()) ids.emplace_back(*json::text(entry, "id"));
    ASSERT_TRUE(client.post("thumb-urls", {{"ids", ids}}));
    EXPECT_EQ(program.end(SIGTERM), 0);
  }
  StorageProgram program(arguments());
  Client client(program.port());
  for (const auto& [name, entry] : client.list()) EXPECT_EQ(json::boolean(entry, "has_thumb"), true) << name;
}

}  // namespace
}  // namespace vondle::storage
