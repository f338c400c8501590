// The service's queue over the real extension, before a server that answers badly: each edit stays in the queue with
// its reason, or ends as the extension's operations say, and goes up when the server is well again. In virtual time,
// with private files and databases on a real disk.

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/json.h"
#include "fileprovider/error_codes.h"
#include "platform/linux/linux_files.h"
#include "provider/process.h"
#include "service/edits/edit_sender.h"
#include "service/listing/folder_listing.h"
#include "testing/captured_log.h"
#include "testing/scripted_manager.h"
#include "testing/simulated_platform.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr std::string_view API = "https://api.example/vondle/api/";
constexpr std::string_view STORE = "https://store.example/";

ScriptedReply reply(std::string body, int status = 200) {
  ScriptedReply made;
  made.status = status;
  made.body = std::move(body);
  return made;
}

ScriptedReply reply(const json::Object& object) {
  return reply(json::serialize(object));
}

// An account as the storage service keeps it, in so far as edits need it.
class Account {
 public:
  struct Node {
    std::string id;
    std::string parent = "root";
    std::string name;
    bool isFolder = false;
    std::string key;
    std::int64_t version = 1;
    bool isTrashed = false;
  };

  void add(const Node& node, const std::string& bytes = "") {
    nodes_[node.id] = node;
    if (!node.isFolder) stored_[node.key] = bytes;
  }
  // What the endpoint, or the store ("PUT"), answers instead.
  void answerBadly(const std::string& endpoint, std::function<ScriptedReply(const URLRequest&)> answer) {
    bad_[endpoint] = std::move(answer);
  }
  void beWell() { bad_.clear(); }

  ScriptedReply answer(const URLRequest& request) {
    const bool isOfAPI = request.url.starts_with(API);
    auto endpoint = isOfAPI ? request.url.substr(API.size()) : request.method;
    endpoint = endpoint.substr(0, endpoint.find('?'));
    asked_.push_back(endpoint);
    if (const auto bad = bad_.find(endpoint); bad != bad_.end()) return bad->second(request);
    if (!isOfAPI) return request.method == "PUT" ? take(request) : reply(stored_.at(keyOf(request)));
    if (request.method == "GET")
      return endpoint == "item" ? item(request.url.substr(request.url.find('=') + 1)) : browse(request.url);
    return change(endpoint, json::parseObject(request.body.value()).value());
  }

  // Names with contents, folders with "/"; what lies in the trash is not there.
  [[nodiscard]] std::vector<std::string> tree() const {
    std::vector<std::string> lines;
    for (const auto& [id, node] : nodes_)
      if (!node.isTrashed) lines.push_back(node.isFolder ? node.name + "/" : node.name + "=" + stored_.at(node.key));
    std::ranges::sort(lines);
    return lines;
  }
  [[nodiscard]] bool holds(const std::string& bytes) const {
    return std::ranges::any_of(nodes_, [&](const auto& each) {
      return !each.second.isFolder && !each.second.isTrashed && stored_.at(each.second.key) == bytes;
    });
  }
  [[nodiscard]] std::size_t countOf(const std::string& endpoint) const {
    return static_cast<std::size_t>(std::ranges::count(asked_, endpoint));
  }

 private:
  static json::Object record(const Node& node, std::size_t size) {
    json::Object object{{"id", node.id},     {"parent_id", node.parent},   {"name", node.name},
                        {"path", node.name}, {"is_folder", node.isFolder}, {"version", node.version}};
    if (!node.isFolder) object["key"] = node.key;
    if (!node.isFolder) object["size"] = size;
    if (!node.isFolder) object["download_url"] = std::string(STORE) + node.key;
    if (node.isTrashed) object["trashed"] = true;
    return object;
  }
  [[nodiscard]] json::Object record(const Node& node) const {
    return record(node, node.isFolder ? 0 : stored_.at(node.key).size());
  }
  Node* find(const std::function<bool(const Node&)>& isWanted) {
    const auto found = std::ranges::find_if(nodes_, [&](const auto& each) { return isWanted(each.second); });
    return found == nodes_.end() ? nullptr : &found->second;
  }
  bool isTaken(const std::string& name) {
    return find([&](const Node& node) { return node.name == name && !node.isTrashed; }) != nullptr;
  }

  ScriptedReply item(const std::string& id) {
    const auto found = nodes_.find(id);
    return found == nodes_.end() ? reply("{}", 404) : reply(record(found->second));
  }
  ScriptedReply browse(const std::string& url) {
    const auto id = url.substr(url.find('=') + 1, url.find('&') - url.find('=') - 1);
    json::Array folders, files;
    for (const auto& [_, node] : nodes_)
      if (node.parent == id && !node.isTrashed) (node.isFolder ? folders : files).push_back(record(node));
    return reply(json::Object{{"subpath", ""}, {"role", "owner"}, {"folders", folders}, {"files", files}});
  }
  static std::string keyOf(const URLRequest& request) { return request.url.substr(request.url.rfind('/') + 1); }
  ScriptedReply take(const URLRequest& request) {
    const auto key = keyOf(request);
    stored_[key] = request.body.value_or("");
    if (const auto place = reserved_.find(key); place != reserved_.end() && !isTaken(place->second))
      add({.id = "made-" + key, .name = place->second, .key = key}, stored_[key]);
    auto taken = reply("");
    taken.headers = {{"ETag", "tag"}};
    return taken;
  }
  json::Object target() {
    const auto key = fmt::format("new{}", ++lastKey_);
    return {{"key", key}, {"upload_url", std::string(STORE) + key}};
  }
  static std::string text(const json::Object& body, const char* key) {
    return std::string(json::text(body, key).value_or(""));
  }

  ScriptedReply change(const std::string& endpoint, const json::Object& body) {
    if (endpoint == "content-url") return reply(target());
    if (endpoint == "content-commit") return commit(body);
    if (endpoint == "register") return makeFile(text(body, "path"), text(body, "key"));
    if (endpoint == "upload-urls") return newFile(body.at("files").at(0).get_object());
    if (endpoint == "folders") {
      if (isTaken(text(body, "name"))) return reply("{}", 409);
      add({.id = "made-" + text(body, "name"), .name = text(body, "name"), .isFolder = true, .key = ""});
      return reply(record(nodes_.at("made-" + text(body, "name"))));
    }
    if (endpoint == "move") {
      auto* node = find([&](const Node& each) { return each.key == text(body, "source_key"); });
      if (!node) return reply("{}", 404);
      if (isTaken(text(body, "dest_key"))) return reply("{}", 409);
      node->name = text(body, "dest_key");
      return reply(record(*node));
    }
    if (endpoint == "delete-files") {
      auto* node = find([&](const Node& each) { return each.key == body.at("keys").at(0).as_string(); });
      if (!node) return reply("{}", 404);
      node->isTrashed = true;
    }
    if (endpoint == "upload-parts") {
      const auto part = body.at("parts").at(0).as_int64();
      const auto url = fmt::format("{}{}-{:03}", STORE, text(body, "key"), part);
      return reply(json::Object{{"parts", json::Array{json::Object{{"url", url}}}}});
    }
    if (endpoint == "upload-complete") {
      std::string whole;
      for (const auto& [key, bytes] : stored_)
        if (key.starts_with(text(body, "key") + "-")) whole += bytes;
      stored_[text(body, "key")] = whole;
    }
    return reply("{}");
  }
  ScriptedReply commit(const json::Object& body) {
    auto& node = nodes_.at(text(body, "id"));
    if (json::integer(body, "base_version") != node.version || !stored_.contains(text(body, "key")))
      return reply("{}", 409);
    node.key = text(body, "key");
    ++node.version;
    return reply("{}");
  }
  ScriptedReply makeFile(const std::string& name, const std::string& key) {
    if (isTaken(name) || !stored_.contains(key)) return reply("{}", 409);
    add({.id = "made-" + key, .name = name, .key = key}, stored_[key]);
    return reply("{}");
  }
  ScriptedReply newFile(const json::Object& file) {
    const auto name = text(file, "filename");
    if (isTaken(name)) return reply("{}", 409);
    auto made = target();
    reserved_[text(made, "key")] = name;
    return reply(json::Object{{"urls", json::Array{std::move(made)}}});
  }

  std::map<std::string, Node> nodes_;
  std::map<std::string, std::string> stored_;    // by key
  std::map<std::string, std::string> reserved_;  // names of new files, by key
  std::map<std::string, std::function<ScriptedReply(const URLRequest&)>> bad_;
  std::vector<std::string> asked_;
  int lastKey_ = 0;
};

// The account with "a.txt", and a service before it on a machine of its own.
class World {
 public:
  World() {
    account.add({.id = "7", .name = "a.txt", .key = "k7", .version = 4}, "as it was");
    loading_.onRequest([this](const URLRequest& request) { return std::optional(account.answer(request)); });
    begin();
  }
  ~World() {
    sender_->stop();
    scheduler.advance(seconds(2));
    listing_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    contents_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    scheduler.runUntilIdle();
    sender_.reset();
    edited_.reset();
    listing_.reset();
    contents_.reset();
    edits_.reset();
    tree_.reset();
    replica_.reset();
    std::filesystem::remove_all(folder_);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // What programs do.
  void create(const std::string& name, std::string_view bytes) {
    const auto file = edited_->makeEmpty().value();
    put(*file, bytes);
    edits_->createFile(ROOT_INODE, name, file->number(), 0600, [&](const Result<ItemAttributes>& made) {
      edited_->keep(made.value().inode, file);
      edits_->touchContents(made->inode, file->size(), file->modified());
    });
    scheduler.runUntilIdle();
  }
  void write(const std::string& name, std::string_view bytes) {
    const auto inode = replica_->lookup(ROOT_INODE, name)->inode;
    edited_->require(inode, false, {}, nullptr, [&](const Result<std::shared_ptr<EditedFile>>& file) {
      put(*file.value(), bytes);
      edits_->touchContents(inode, (*file)->size(), (*file)->modified());
    });
    scheduler.runUntilIdle();
  }
  void makeFolder(const std::string& name) {
    edits_->createFolder(ROOT_INODE, name, 0700, [](const Result<ItemAttributes>& made) { EXPECT_TRUE(made); });
    scheduler.runUntilIdle();
  }
  void rename(const std::string& from, const std::string& to) {
    edits_->rename(ROOT_INODE, from, ROOT_INODE, to, false, [](const Result<void>& done) { EXPECT_TRUE(done); });
    scheduler.runUntilIdle();
  }
  void remove(const std::string& name) {
    edits_->removeFile(ROOT_INODE, name, [](const Result<void>& done) { EXPECT_TRUE(done); });
    scheduler.runUntilIdle();
  }

  [[nodiscard]] std::vector<Edit> pending() const { return edits_->pending(); }
  // What the programs' bytes are in here, as long as they are not on the server.
  [[nodiscard]] std::optional<std::string> privateBytes() const {
    for (const auto& edit : edits_->pending())
      if (const auto file = edited_->find(edits_->inodeOf(edit.id))) {
        std::ifstream stream(file->path(), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(stream), {});
      }
    return std::nullopt;
  }
  [[nodiscard]] const std::vector<std::shared_ptr<ScriptedTask>>& tasks() const { return loading_.tasks(); }

 private:
  static void put(EditedFile& file, std::string_view bytes) {
    ASSERT_EQ(::ftruncate(file.descriptor(), 0), 0);
    ASSERT_EQ(::pwrite(file.descriptor(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  static std::string makeHome(SimulatedUserDatabase& users) {
    const std::filesystem::path memory = "/dev/shm";
    const auto place = std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
    std::string home = place / "vondle-sending-XXXXXX";
    users.home = ::mkdtemp(home.data());
    std::filesystem::create_directories(home + "/.vondle");
    std::filesystem::create_directories(home + "/.local/share/vondle/temporary");
    std::ofstream(home + "/.vondle/config.json") << R"({"server":"https://api.example","api_key":"secret-key"})";
    return home;
  }
  void begin() {
    extension_ = process_.makeExtension({"domain", "Ann's files"}, [this](const Domain&) { return manager_; });
    replica_ = Replica::open(folder_ + "/replica.db").value();
    tree_ = std::make_unique<Tree>(*replica_, scheduler);
    edits_ = LocalEdits::open(folder_ + "/edits.db", *tree_, scheduler, machine_.random).value();
    contents_ = ContentStore::open(folder_ + "/contents", *tree_, *extension_, errors_, scheduler, scheduler).value();
    tree_->subscribe([this](const auto& changes) { contents_->apply(changes); });
    edited_ = EditedContents::open(folder_ + "/edits", contents_, edits_, *tree_, scheduler, scheduler).value();
    listing_ = std::make_shared<FolderListing>(*tree_, *extension_, errors_, scheduler, scheduler);
    sender_ = EditSender::make({.services = {.extension = *extension_,
                                             .edits = edits_,
                                             .contents = edited_,
                                             .sync = [](auto completion) { std::move(completion)(std::nullopt); },
                                             .scheduler = scheduler},
                                .tree = *tree_,
                                .errors = errors_,
                                .clock = scheduler,
                                .temporaryNames = TemporaryNames()});
    sender_->start();
    listing_->require(ROOT_INODE, {}, nullptr, [](const std::optional<Error>& error) { EXPECT_FALSE(error); });
    scheduler.runUntilIdle();
  }

  CapturedLog log_;
  SimulatedPlatform machine_;
  const std::string folder_ = makeHome(machine_.users);

 public:
  VirtualScheduler& scheduler = machine_.scheduler;
  Account account;

 private:
  LinuxFiles files_{machine_.users};
  ScriptedURLLoading loading_{machine_.scheduler, files_};
  Process process_{{machine_.scheduler, machine_.scheduler, loading_, files_, machine_.keychain, machine_.notifyCentre,
                    machine_.users, machine_.process, machine_.random, machine_.previews, machine_.bundle}};
  std::shared_ptr<ScriptedManager> manager_ = std::make_shared<ScriptedManager>(machine_.scheduler.global());
  std::shared_ptr<VondleFileProvider> extension_;
  LastErrors errors_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<LocalEdits> edits_;
  std::shared_ptr<ContentStore> contents_;
  std::shared_ptr<EditedContents> edited_;
  std::shared_ptr<FolderListing> listing_;
  std::shared_ptr<EditSender> sender_;
};

struct BadAnswer {
  std::string name;
  ScriptedReply answer;
};

// What a server, a proxy or a bad line may answer to anything.
std::vector<BadAnswer> badAnswers() {
  std::vector<BadAnswer> answers;
  for (const int status : {401, 403, 404, 409, 413, 429, 500, 507})
    answers.push_back({fmt::format("HTTP {}", status), reply(R"({"error":"no"})", status)});
  answers.push_back({"no JSON", reply("<html>")});
  answers.push_back({"a list", reply("[]")});
  auto cut = reply(R"({"key":"k)");
  cut.announcedLength = 100;
  cut.error = Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "the connection was closed early");
  answers.push_back({"closed early", cut});
  ScriptedReply reset;
  reset.status = 0;
  reset.error = Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "the connection was reset");
  answers.push_back({"reset", reset});
  return answers;
}

struct Change {
  const char* name;
  std::function<void(World&)> make;
  std::vector<const char*> endpoints;  // that answer badly, all of them at once
  std::vector<std::string> after;      // the account when the change is there; other files may be beside it
  const char* bytes = nullptr;         // that must not be lost
  const char* gone = nullptr;          // that no file has afterwards
};

const std::vector<Change> CHANGES = {
    {"new contents", [](World& world) { world.write("a.txt", "my edit"); }, {"content-url"}, {}, "my edit"},
    {"new contents", [](World& world) { world.write("a.txt", "my edit"); }, {"PUT"}, {}, "my edit"},
    {"new contents", [](World& world) { world.write("a.txt", "my edit"); }, {"content-commit"}, {}, "my edit"},
    {"new contents",
     [](World& world) { world.write("a.txt", "my edit"); },
     {"content-commit", "register"},
     {},
     "my edit"},
    {"new contents", [](World& world) { world.write("a.txt", "my edit"); }, {"item"}, {}, "my edit"},
    {"a new file", [](World& world) { world.create("n.txt", "draft"); }, {"upload-urls"}, {"n.txt=draft"}, "draft"},
    {"a new file", [](World& world) { world.create("n.txt", "draft"); }, {"PUT"}, {"n.txt=draft"}, "draft"},
    {"a new file", [](World& world) { world.create("n.txt", "draft"); }, {"notify-upload"}, {"n.txt=draft"}, "draft"},
    {"a new file", [](World& world) { world.create("n.txt", "draft"); }, {"browse"}, {"n.txt=draft"}, "draft"},
    {"a new folder", [](World& world) { world.makeFolder("papers"); }, {"folders"}, {"papers/"}, nullptr, nullptr},
    {"a move", [](World& world) { world.rename("a.txt", "b.txt"); }, {"move"}, {"b.txt=as it was"}, nullptr, nullptr},
    {"a deletion", [](World& world) { world.remove("a.txt"); }, {"delete-files"}, {}, nullptr, "as it was"},
};

TEST(Sending, NothingIsLostWhateverIsAnsweredAndAllGoesUpAfterwards) {
  for (const auto& change : CHANGES) {
    for (const auto& bad : badAnswers()) {
      const auto what = fmt::format("{}, {} answers {}", change.name, fmt::join(change.endpoints, " and "), bad.name);
      SCOPED_TRACE(what);
      World world;
      for (const auto* endpoint : change.endpoints)
        world.account.answerBadly(endpoint, [&](const URLRequest&) { return bad.answer; });
      change.make(world);
      world.scheduler.advance(seconds(3));
      for (const auto& edit : world.pending()) EXPECT_NE(edit.lastError, "") << "the reason";
      if (change.bytes && !world.account.holds(change.bytes)) {
        EXPECT_EQ(world.privateBytes(), change.bytes);
      }

      world.account.beWell();
      world.scheduler.advance(seconds(700));
      EXPECT_THAT(world.pending(), IsEmpty());
      for (const auto& line : change.after) EXPECT_THAT(world.account.tree(), Contains(line));
      if (change.bytes) {
        EXPECT_TRUE(world.account.holds(change.bytes));
      }
      if (change.gone) {
        EXPECT_FALSE(world.account.holds(change.gone));
      }
    }
  }
}

TEST(Sending, AnEditStaysWhileTheServerAnswersBadlyForAnHour) {
  for (const auto& bad : badAnswers()) {
    SCOPED_TRACE(bad.name);
    World world;
    for (const auto* endpoint : {"content-url", "PUT", "upload-urls", "register"})
      world.account.answerBadly(endpoint, [&](const URLRequest&) { return bad.answer; });
    world.write("a.txt", "my edit");
    world.create("n.txt", "draft");
    world.scheduler.advance(std::chrono::hours(1));
    EXPECT_EQ(world.pending().size(), 2U);
    EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=as it was"));
    EXPECT_GT(world.account.countOf("content-url") + world.account.countOf("upload-urls"), 10U) << "asked again";
    world.account.beWell();
    world.scheduler.advance(seconds(700));
    EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=my edit", "n.txt=draft"));
  }
}

TEST(Sending, ATargetIsUsedAsFarAsItMakesSense) {
  const std::string whole = R"("upload_url":"https://store.example/kx")";
  const struct {
    std::string target;
    bool isUsable;
  } cases[] = {
      {R"({"key":"kx",)" + whole + "}", true},
      {R"({"key":"kx",)" + whole + R"(,"upload_id":"u","part_size":0})", true},
      {R"({"key":"kx",)" + whole + R"(,"upload_id":"u","part_size":-1})", true},
      {R"({"key":"kx",)" + whole + R"(,"upload_id":7,"part_size":1})", true},
      {R"({"key":"kx","upload_id":"u","part_size":1})", true},
      {R"({"key":"kx","upload_id":"u","part_size":4611686018427387904})", true},
      {R"({"key":"kx","upload_url":"http://elsewhere.example/kx"})", true},
      {R"({"key":"kx","upload_id":"u","part_size":0})", false},
      {R"({"key":"kx","upload_id":"u","part_size":1e300})", false},
      {R"({"key":"kx","upload_url":"ftp://store.example/kx"})", false},
      {R"({"key":"kx","upload_url":"file:///etc/passwd"})", false},
      {R"({"key":"kx","upload_url":"kx"})", false},
      {R"({"key":"kx","upload_url":7})", false},
      {R"({"key":7,)" + whole + "}", false},
      {"{}", false},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.target);
    World world;
    world.account.answerBadly("content-url", [&](const URLRequest&) { return reply(each.target); });
    world.account.answerBadly("upload-urls",
                              [&](const URLRequest&) { return reply(R"({"urls":[)" + each.target + "]}"); });
    world.write("a.txt", "my edit");
    world.scheduler.advance(seconds(3));
    if (each.isUsable) {
      EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=my edit"));
      EXPECT_THAT(world.pending(), IsEmpty());
    } else {
      EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=as it was"));
      EXPECT_EQ(world.privateBytes(), "my edit");
      EXPECT_NE(world.pending().at(0).lastError, "");
      EXPECT_EQ(world.account.countOf("PUT"), 0U);
      world.account.beWell();
      world.scheduler.advance(seconds(10));
      EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=my edit"));
    }
    for (const auto& task : world.tasks()) {
      if (task->url().starts_with(API)) continue;
      for (const auto& header : task->originalRequest().headers) EXPECT_NE(header.name, "X-API-Key");
    }
  }
}

// "ETag" is what the parts are joined by.
TEST(Sending, PartsWithoutATagAreSentAgain) {
  World world;
  world.account.answerBadly("content-url",
                            [](const URLRequest&) { return reply(R"({"key":"kx","upload_id":"u","part_size":4})"); });
  world.account.answerBadly("PUT", [](const URLRequest&) { return reply(""); });
  world.write("a.txt", "my edit");
  world.scheduler.advance(std::chrono::minutes(20));
  EXPECT_EQ(world.privateBytes(), "my edit");
  EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=as it was"));
  EXPECT_EQ(world.account.countOf("upload-complete"), 0U);
  EXPECT_GT(world.account.countOf("PUT"), 9U);
  world.account.beWell();
  world.scheduler.advance(std::chrono::minutes(20));
  EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=my edit"));
  EXPECT_THAT(world.pending(), IsEmpty());
}

TEST(Sending, ANameThatIsRefusedWaitsForAnother) {
  const auto refuseColons = [](const URLRequest& request) {
    return reply("{}", request.body->find(':', request.body->find("\"name")) == std::string::npos ? 500 : 400);
  };
  World world;
  for (const auto* endpoint : {"upload-urls", "folders", "move"}) world.account.answerBadly(endpoint, refuseColons);
  world.create("a:b.txt", "draft");
  world.makeFolder("c:d");
  world.rename("a.txt", "e:f.txt");
  world.scheduler.advance(seconds(100));
  ASSERT_EQ(world.pending().size(), 3U);
  for (const auto& edit : world.pending()) EXPECT_THAT(edit.lastError, Not(IsEmpty()));
  EXPECT_THAT(world.account.tree(), ElementsAre("a.txt=as it was"));

  world.account.beWell();
  world.rename("a:b.txt", "ab.txt");
  world.rename("c:d", "cd");
  world.rename("e:f.txt", "ef.txt");
  world.scheduler.advance(seconds(3));
  EXPECT_THAT(world.account.tree(), ElementsAre("ab.txt=draft", "cd/", "ef.txt=as it was"));
  EXPECT_THAT(world.pending(), IsEmpty());
}

}  // namespace
}  // namespace vondle
