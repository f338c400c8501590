#include <array>
#include <map>
#include <set>

#include <fmt/format.h>

#include "base/utf8.h"
#include "fuzzing.h"
#include "storage/accounts.h"
#include "storage/api_handlers.h"
#include "storage/content_handlers.h"
#include "storage/crypto.h"
#include "storage/names.h"
#include "testing/virtual_scheduler.h"

// Requests of two accounts to the storage service, decoded from the bytes: every reply is a proper one, no address that
// was not signed is served, and the trees stay sound.
namespace vondle::storage {
namespace {

constexpr std::array ENDPOINTS = {
    "browse",       "item",          "changes",       "trash",          "move",         "move-folder",
    "folders",      "delete-files",  "delete-folder", "restore",        "purge",        "share",
    "unshare",      "register",      "upload-urls",   "upload-status",  "upload-parts", "upload-complete",
    "upload-abort", "notify-upload", "content-url",   "content-commit", "thumb-urls",   "unknown",
    "folders",      "folders",       "upload-urls",   "register",       "share"};
constexpr std::array READS = {"browse", "item", "changes", "trash"};
constexpr std::array PATHS = {"",          "a",  "b",    "a/b", "a/b/c",          "a/",
                              "/a",        "..", "a/..", "//",  "Shared with me", "Shared with me/a",
                              "a\xc3\xa9", "b/a"};
constexpr std::array FILE_NAMES = {"a", "b", "f", "", "..", "a/b", "Shared with me"};
constexpr std::array IDS = {"root", "shared", "1", "2", "3", "4", "5", "6", "7", "8", "-1", "0", "99999999999999999999",
                            ""};
const std::array KEYS = {std::string(32, 'a'), std::string(32, 'b'), std::string("wrong"), std::string()};
constexpr std::array COUNTS = {std::int64_t{0},       std::int64_t{1},       std::int64_t{2}, std::int64_t{-1},
                               std::int64_t{1} << 40, std::int64_t{1} << 50, INT64_MAX,       INT64_MIN};

// The rows of a new service, made once: making them takes longer than all the rest.
class Template {
 public:
  Template() {
    auto stores = StorePool::open(path());
    REQUIRE(stores.has_value());
    auto store = (*stores)->writer();
    for (std::size_t i = 0; i < 2; ++i) REQUIRE(setAccount(*store, i == 0 ? "ann" : "bob", KEYS[i], 1).has_value());
  }
  [[nodiscard]] const std::string& folder() const { return folder_; }
  void copyTo(const std::string& target) const {
    for (const auto* suffix : {"", "-wal", "-shm"}) {
      std::filesystem::remove(target + suffix);
      if (std::filesystem::exists(path() + suffix) && *suffix != '-') std::filesystem::copy(path(), target);
    }
  }

 private:
  [[nodiscard]] std::string path() const { return folder_ + "/template.db"; }
  const MemoryFolder memory_;
  const std::string folder_ = memory_.path();
};

class Run {
 public:
  Run(FuzzedDataProvider& input, StorePool& stores, const ContentStore& contents)
      : input_(input), api_(stores, contents, signer_, scheduler_), contents_(stores, contents, signer_, scheduler_) {}

  void go() {
    for (int step = 0; step < 40 && input_.remaining_bytes() > 0; ++step) {
      switch (input_.ConsumeIntegralInRange(0, 7)) {
        case 0:
          sendContents();
          break;
        case 1:
          askForContents();
          break;
        case 2:
          scheduler_.advance(seconds(input_.ConsumeIntegralInRange(0, 4000)));
          break;
        default:
          askAPI();
      }
    }
    for (std::size_t account = 0; account < 2; ++account) {
      requireSoundTree(account);
      requireSoundFeed(account);
    }
  }

 private:
  template <class Values>
  auto pick(const Values& values) {
    return values[input_.ConsumeIntegralInRange<std::size_t>(0, values.size() - 1)];
  }

  std::string anyPath() {
    return input_.ConsumeIntegralInRange(0, 9) == 0 ? input_.ConsumeRandomLengthString(20) : std::string(pick(PATHS));
  }
  std::string anyName() {
    return input_.ConsumeIntegralInRange(0, 9) == 0 ? input_.ConsumeRandomLengthString(20)
                                                    : std::string(pick(FILE_NAMES));
  }
  std::string anyKey() {
    if (keys_.empty() || input_.ConsumeIntegralInRange(0, 9) == 0) return input_.ConsumeRandomLengthString(33);
    return pick(keys_);
  }
  std::string anyTag() { return tags_.empty() ? "none" : pick(tags_); }
  std::string anyUploadID() { return uploadIDs_.empty() ? "none" : pick(uploadIDs_); }

  // JSON texts are UTF-8; other bytes could not have arrived.
  static json::Value text(std::string text) { return isUTF8(text) ? json::Value(text) : json::Value(nullptr); }

  json::Object anyBody() {
    json::Object body;
    const auto put = [&](const char* key, json::Value value) {
      const auto choice = input_.ConsumeIntegralInRange(0, 31);
      if (choice == 0) return;
      if (choice == 1) value = json::Value(pick(COUNTS));
      if (choice == 2) value = json::Value(json::Array{std::move(value)});
      body[key] = std::move(value);
    };
    put("path", text(anyPath()));
    put("name", text(anyName()));
    put("id", text(std::string(pick(IDS))));
    put("key", text(anyKey()));
    put("source_key", text(anyKey()));
    put("dest_key", text(anyPath()));
    put("source_prefix", text(anyPath() + "/"));
    put("dest_prefix", text(anyPath() + "/"));
    put("prefix", text(anyPath() + "/"));
    put("keys", json::Array{text(anyKey())});
    put("ids", json::Array{text(std::string(pick(IDS)))});
    put("account", input_.ConsumeBool() ? "ann" : "bob");
    put("role", input_.ConsumeBool() ? "read" : "write");
    put("upload_id", text(anyUploadID()));
    put("base_version", pick(COUNTS));
    put("size", pick(COUNTS));
    put("multipart", input_.ConsumeBool());
    put("thumb", input_.ConsumeBool());
    put("has_thumb", input_.ConsumeBool());
    put("thumbs", json::Array{text(anyKey())});
    const auto part = pick(COUNTS);
    if (input_.ConsumeBool())
      put("parts", json::Array{part});
    else
      put("parts", json::Array{json::Object{{"part", part}, {"etag", text(anyTag())}}});
    json::Object file{{"filename", text(anyName())}, {"size", pick(COUNTS)}, {"multipart", input_.ConsumeBool()}};
    put("files", json::Array{std::move(file)});
    return body;
  }

  void askAPI() {
    ApiRequest request;
    request.endpoint = pick(ENDPOINTS);
    request.base = "http://127.0.0.1:1";
    const bool reads = std::ranges::find(READS, request.endpoint) != READS.end();
    request.method = input_.ConsumeIntegralInRange(0, 31) == 0 ? "PUT" : reads ? "GET" : "POST";
    const auto account = input_.ConsumeIntegralInRange<std::size_t>(0, 15);
    request.key = KEYS[account < 14 ? account % 2 : account - 12];
    if (reads) {
      if (input_.ConsumeBool()) request.query.emplace("id", pick(IDS));
      if (input_.ConsumeBool()) request.query.emplace("path", anyPath());
      if (input_.ConsumeBool()) request.query.emplace("lite", "1");
      if (input_.ConsumeBool()) request.query.emplace("since", std::to_string(pick(COUNTS)));
      if (input_.ConsumeBool()) request.query.emplace("limit", std::to_string(pick(COUNTS)));
    } else {
      request.body = input_.ConsumeIntegralInRange(0, 31) == 0 ? input_.ConsumeRandomLengthString(100)
                                                               : json::serialize(anyBody());
    }
    const auto reply = api_.handle(request);
    const auto object = json::parseObject(reply.body);
    REQUIRE(object.has_value());
    constexpr std::array STATUSES = {200, 400, 401, 403, 404, 405, 409, 413, 507};
    REQUIRE(std::ranges::find(STATUSES, reply.status) != STATUSES.end());
    REQUIRE((reply.status == 200) != json::text(*object, "error").has_value());
    REQUIRE((reply.status == 401) == (account >= 14) || reply.status == 405 || reply.status == 400);
    if (reply.status == 200) learn(*object);
  }

  // Keys and addresses that a reply hands out, to be used later.
  void learn(const json::Value& value) {
    if (const auto* list = value.if_array())
      for (const auto& member : *list) learn(member);
    const auto* object = value.if_object();
    if (!object) return;
    if (const auto key = json::text(*object, "key")) keys_.emplace_back(*key);
    if (const auto id = json::text(*object, "upload_id")) uploadIDs_.emplace_back(*id);
    for (const auto* name : {"upload_url", "thumb_upload_url", "download_url", "thumb_url", "url"})
      if (const auto url = json::text(*object, name)) urls_.emplace_back(*url);
    for (const auto& member : *object) learn(member.value());
  }

  struct Address {
    ContentRequest request;
    bool isForged = false;
  };
  Address anyAddress(const std::string& method) {
    Address address;
    address.request.method = method;
    if (urls_.empty() || input_.ConsumeIntegralInRange(0, 7) == 0) {
      address.request.path = "/vondle/" + input_.ConsumeRandomLengthString(60);
      address.request.query.emplace("expires", std::to_string(INT64_MAX));
      address.request.query.emplace("signature", input_.ConsumeRandomLengthString(64));
      address.isForged = true;
      return address;
    }
    const std::string url = pick(urls_);
    REQUIRE(url.starts_with("http://127.0.0.1:1/vondle/"));
    const auto question = url.find('?');
    const auto ampersand = url.find("&signature=");
    REQUIRE(question != std::string::npos && ampersand != std::string::npos);
    address.request.path = url.substr(18, question - 18);
    auto expires = url.substr(question + 9, ampersand - question - 9);
    auto signature = url.substr(ampersand + 11);
    switch (input_.ConsumeIntegralInRange(0, 15)) {
      case 0:
        address.request.path += "0";
        break;
      case 1:
        address.request.path.insert(7, "/..");
        break;
      case 2:
        expires += "0";
        break;
      case 3:
        signature.back() = signature.back() == '0' ? '1' : '0';
        break;
      case 4:
        signature.pop_back();
        break;
      case 5:
        address.request.hasApiKey = true;
        break;
      default:
        signed_ = true;
        break;
    }
    address.isForged = !std::exchange(signed_, false);
    address.request.query.emplace("expires", expires);
    address.request.query.emplace("signature", signature);
    return address;
  }

  void sendContents() {
    const auto [request, isForged] = anyAddress("PUT");
    const auto body = input_.ConsumeBool() ? "\xff\xd8\xff" + input_.ConsumeRandomLengthString(20)
                                           : input_.ConsumeRandomLengthString(20);
    const bool tells = input_.ConsumeIntegralInRange(0, 7) != 0;
    auto receiver =
        contents_.upload(request, tells ? std::optional(static_cast<std::int64_t>(body.size())) : std::nullopt,
                         input_.ConsumeBool() ? "image/jpeg" : "text/plain");
    if (!receiver) {
      REQUIRE(receiver.error().status / 100 == 4 || receiver.error().status == 507);
      return;
    }
    REQUIRE(!isForged && tells);
    if (!(*receiver)->write(body)) return;
    const auto tag = (*receiver)->finish();
    REQUIRE(tag ? tag->starts_with('"') && tag->ends_with('"') : tag.error().status != 500);
    if (tag) tags_.push_back(*tag);
  }

  void askForContents() {
    const auto [request, isForged] = anyAddress("GET");
    const auto download = contents_.download(request);
    if (!download) {
      REQUIRE(download.error().status == 400 || download.error().status == 403 || download.error().status == 404);
      return;
    }
    REQUIRE(!isForged && download->file);
    const auto size = download->file->size();
    const auto range = rangeOf(input_.ConsumeRandomLengthString(20), size);
    if (range && *range)
      REQUIRE((*range)->first >= 0 && (*range)->first <= (*range)->second && (*range)->second < size);
  }

  json::Object read(std::size_t account, const std::string& endpoint, std::multimap<std::string, std::string> query) {
    const auto reply = api_.handle(
        {.method = "GET", .endpoint = endpoint, .query = std::move(query), .key = KEYS[account], .base = "http://x"});
    REQUIRE(reply.status == 200);
    return *json::parseObject(reply.body);
  }

  void requireSoundTree(std::size_t account) {
    std::set<std::string> seen;
    std::vector<std::pair<std::string, std::string>> folders = {{"root", ""}};
    while (!folders.empty()) {
      const auto [id, path] = folders.back();
      folders.pop_back();
      const auto listing = read(account, "browse", {{"id", id}});
      REQUIRE(json::text(listing, "subpath") == path);
      std::set<std::string> names;
      for (const auto* kind : {"folders", "files"}) {
        const auto* members = json::listOfObjects(listing, kind);
        REQUIRE(members);
        for (const auto& member : *members) {
          const auto& entry = member.get_object();
          const std::string child(json::text(entry, "id").value());
          const std::string name(json::text(entry, "name").value());
          REQUIRE(seen.insert(child).second);
          REQUIRE(names.insert(name).second && checkName(name));
          REQUIRE(json::text(entry, "parent_id") == id);
          REQUIRE(json::text(entry, "path") == joinPath(path, name));
          REQUIRE(json::integer(entry, "size").value_or(0) >= 0);
          if (std::string_view(kind) == "folders") folders.emplace_back(child, joinPath(path, name));
          const auto item = read(account, "item", {{"id", child}});
          REQUIRE(json::text(item, "name") == name);
        }
      }
    }
  }

  void requireSoundFeed(std::size_t account) {
    std::int64_t since = 0;
    for (int pages = 0;; ++pages) {
      REQUIRE(pages < 10'000);
      const auto page = read(account, "changes", {{"since", std::to_string(since)}, {"limit", "3"}});
      const auto seq = *json::integer(page, "seq");
      REQUIRE(seq >= since && seq <= *json::integer(page, "head"));
      if (!*json::boolean(page, "more")) return;
      REQUIRE(seq > since);
      since = seq;
    }
  }

  FuzzedDataProvider& input_;
  VirtualScheduler scheduler_;
  const SignedUrl signer_{"secret", 3600};
  ApiHandlers api_;
  ContentHandlers contents_;
  std::vector<std::string> keys_;
  std::vector<std::string> uploadIDs_;
  std::vector<std::string> urls_;
  std::vector<std::string> tags_;
  bool signed_ = false;
};

}  // namespace
}  // namespace vondle::storage

namespace vondle {

void fuzz(std::string_view bytes) {
  static const storage::Template original;
  const auto root = original.folder() + "/root";
  std::filesystem::remove_all(root);
  std::filesystem::create_directory(root);
  original.copyTo(root + "/metadata.db");
  {
    auto stores = storage::StorePool::open(root + "/metadata.db");
    const auto contents = storage::ContentStore::open(root);
    REQUIRE(stores && contents);
    auto input = providerOf(bytes);
    storage::Run(input, **stores, *contents).go();
  }
  // Nothing was written beside what the service keeps.
  for (const auto& entry : std::filesystem::directory_iterator(original.folder())) {
    const auto name = entry.path().filename().string();
    REQUIRE(name == "root" || name.starts_with("template.db"));
  }
}

}  // namespace vondle
