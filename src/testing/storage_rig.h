#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/json.h"
#include "platform/clock.h"
#include "storage/accounts.h"
#include "storage/api_handlers.h"
#include "storage/content_handlers.h"
#include "storage/milliseconds.h"

namespace vondle::storage {

// A folder of its own, in memory where the system has such a place, gone at the end.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    const std::string base =
        std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path().string();
    path_ = base + "/vondle-storage-XXXXXX";
    if (!mkdtemp(path_.data())) ADD_FAILURE() << "cannot make " << path_;
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  std::string write(const std::string& name, std::string_view bytes, unsigned mode = 0600) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(mode));
    return path;
  }

 private:
  std::string path_;
};

// The clock of a rig; stands still unless it is moved.
class SettableClock final : public Clock {
 public:
  Timestamp now() const override { return {seconds_}; }
  MonotonicTime monotonic() const override { return {vondle::seconds(seconds_)}; }
  void advance(double seconds) { seconds_ += seconds; }

 private:
  double seconds_ = 1700000000;
};

// A reply as a test looks at it.
struct Reply {
  int status = 0;
  json::Object body = {};

  [[nodiscard]] std::string text(std::string_view key) const {
    return std::string(json::text(body, key).value_or("(none)"));
  }
  [[nodiscard]] std::int64_t number(std::string_view key) const { return json::integer(body, key).value_or(-1); }
  [[nodiscard]] bool flag(std::string_view key) const { return json::boolean(body, key).value_or(false); }
  // The members of a list of objects.
  [[nodiscard]] std::vector<Reply> list(std::string_view key) const {
    std::vector<Reply> members;
    if (const auto* array = json::listOfObjects(body, key))
      for (const auto& member : *array) members.push_back({.status = status, .body = member.get_object()});
    return members;
  }
  // The first member of a list of objects.
  [[nodiscard]] Reply first(std::string_view key) const {
    const auto members = list(key);
    return members.empty() ? Reply() : members.front();
  }
};

// The service without its HTTP door, with two accounts, and a client's view of it.
class StorageRig {
 public:
  static constexpr const char* BASE = "http://127.0.0.1:1";

  StorageRig() { start(); }

  // Opens everything anew, as after a restart of the program. With a renderer it makes previews of its own.
  void start(std::unique_ptr<PreviewRenderer> renderer = nullptr) {
    contentHandlers_.reset();
    api_.reset();
    thumbnailer_.reset();
    stores_.reset();
    contents_.reset();
    auto stores = StorePool::open(folder_.path() + "/metadata.db");
    auto contents = ContentStore::open(folder_.path());
    if (!stores || !contents) {
      ADD_FAILURE() << "cannot open the stores";
      return;
    }
    stores_ = std::move(*stores);
    contents_ = std::make_unique<ContentStore>(std::move(*contents));
    if (renderer) thumbnailer_ = std::make_unique<Thumbnailer>(*stores_, *contents_, clock_, std::move(renderer));
    api_ = std::make_unique<ApiHandlers>(*stores_, *contents_, signer_, clock_, thumbnailer_.get());
    api_->tidy();
    contentHandlers_ = std::make_unique<ContentHandlers>(*stores_, *contents_, signer_, clock_);
    auto store = stores_->writer();
    for (const auto& name : {"ann", "bob"}) EXPECT_TRUE(setAccount(*store, name, keyOf(name), now()));
  }

  static std::string keyOf(const std::string& account) { return "key-of-" + account + "-0123456789"; }
  [[nodiscard]] std::int64_t now() const { return millisecondsNow(clock_); }

  // Whose requests the following ones are.
  void as(const std::string& account) { account_ = account; }

  Reply request(const std::string& method, const std::string& endpoint, std::multimap<std::string, std::string> query,
                const std::string& body) {
    const auto reply = api_->handle({.method = method,
                                     .endpoint = endpoint,
                                     .query = std::move(query),
                                     .body = body,
                                     .key = keyOf(account_),
                                     .base = BASE});
    auto parsed = json::parseObject(reply.body);
    EXPECT_TRUE(parsed) << reply.body;
    EXPECT_TRUE(reply.status == 200 || (parsed && json::text(*parsed, "error"))) << reply.body;
    return {.status = reply.status, .body = parsed.value_or(json::Object())};
  }
  Reply get(const std::string& endpoint, std::multimap<std::string, std::string> query = {}) {
    return request("GET", endpoint, std::move(query), "");
  }
  Reply post(const std::string& endpoint, const json::Value& body) {
    return request("POST", endpoint, {}, json::serialize(body));
  }
  Reply item(const std::string& id) { return get("item", {{"id", id}}); }

  // The entry of a path, from the listing of its folder.
  Reply at(const std::string& path) {
    const auto slash = path.rfind('/');
    const auto listing = get("browse", {{"path", slash == std::string::npos ? "" : path.substr(0, slash)}});
    for (const char* kind : {"folders", "files"})
      for (auto& entry : listing.list(kind))
        if (entry.text("path") == path) return entry;
    return {.status = 404};
  }
  // The paths of everything below a folder, folders with "/" at the end.
  std::vector<std::string> tree(const std::string& path = "") {
    std::vector<std::string> paths;
    const auto listing = get("browse", {{"path", path}});
    for (const auto& folder : listing.list("folders")) {
      paths.push_back(folder.text("path") + "/");
      for (auto& inner : tree(folder.text("path"))) paths.push_back(std::move(inner));
    }
    for (const auto& file : listing.list("files")) paths.push_back(file.text("path"));
    return paths;
  }

  static ContentRequest parse(const std::string& method, const std::string& url) {
    ContentRequest request;
    request.method = method;
    EXPECT_TRUE(url.starts_with(BASE)) << url;
    const auto question = url.find('?');
    request.path = url.substr(std::string(BASE).size(), question - std::string(BASE).size());
    if (question == std::string::npos) return request;
    std::string rest = url.substr(question + 1) + "&";
    for (std::size_t end = rest.find('&'); end != std::string::npos; end = rest.find('&')) {
      const auto equals = rest.find('=');
      request.query.emplace(rest.substr(0, equals), rest.substr(equals + 1, end - equals - 1));
      rest.erase(0, end + 1);
    }
    return request;
  }

  Answer<std::string> download(const std::string& url) {
    auto found = contentHandlers_->download(parse("GET", url));
    if (!found) return refuse(found.error());
    std::string bytes(static_cast<std::size_t>(found->file->size()), '\0');
    EXPECT_EQ(found->file->readAt(0, bytes), bytes.size());
    return bytes;
  }

  // Answers the ETag.
  Answer<std::string> put(const std::string& url, std::string_view bytes, std::string_view type = "text/plain") {
    auto receiver = contentHandlers_->upload(parse("PUT", url), static_cast<std::int64_t>(bytes.size()), type);
    if (!receiver) return refuse(receiver.error());
    for (const auto piece : {bytes.substr(0, bytes.size() / 2), bytes.substr(bytes.size() / 2)})
      if (auto written = (*receiver)->write(piece); !written) return refuse(written.error());
    return (*receiver)->finish();
  }

  // The first target of "upload-urls".
  Reply target(const std::string& folder, const std::string& name, std::int64_t size, bool inParts = false) {
    json::Object file{{"filename", name}, {"size", size}, {"thumb", true}};
    if (inParts) file["multipart"] = true;
    const auto reply = post("upload-urls", {{"path", folder}, {"files", {file}}});
    auto first = reply.first("urls");
    first.status = reply.status;
    return first;
  }
  // A new file by the usual way; answers its entry.
  Reply makeFile(const std::string& path, std::string_view bytes) {
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
    const auto place = target(folder, path.substr(slash == std::string::npos ? 0 : slash + 1),
                              static_cast<std::int64_t>(bytes.size()));
    EXPECT_EQ(place.status, 200);
    EXPECT_TRUE(put(place.text("upload_url"), bytes));
    EXPECT_EQ(post("notify-upload", {{"keys", {place.text("key")}}}).status, 200);
    return at(path);
  }
  Reply makeFolder(const std::string& path) {
    const auto slash = path.rfind('/');
    return post("folders", {{"path", slash == std::string::npos ? "" : path.substr(0, slash)},
                            {"name", path.substr(slash == std::string::npos ? 0 : slash + 1)}});
  }

  // Ids of a page of changes, "-" before those that are gone.
  std::vector<std::string> changesSince(std::int64_t since) {
    std::vector<std::string> ids;
    for (const auto& change : get("changes", {{"since", std::to_string(since)}, {"limit", "1000"}}).list("changes"))
      ids.push_back((change.flag("deleted") ? "-" : "") + change.text("id"));
    return ids;
  }
  std::int64_t head() { return get("changes", {{"since", "0"}, {"limit", "0"}}).number("head"); }

  StorePool& stores() { return *stores_; }
  ContentStore& contents() { return *contents_; }
  ApiHandlers& api() { return *api_; }
  ContentHandlers& contentHandlers() { return *contentHandlers_; }
  const TemporaryFolder& folder() const { return folder_; }
  SettableClock& clock() { return clock_; }
  void setQuota(const std::string& account, std::int64_t bytes) {
    auto store = stores_->writer();
    EXPECT_TRUE(store->write<void>([&]() -> Answer<void> {
      store->setQuota(store->accountNamed(account)->id, bytes);
      return {};
    }));
  }
  [[nodiscard]] std::size_t storedFiles() const {
    std::size_t count = 0;
    for (const char* part : {"/contents", "/thumbs", "/incoming", "/parts"})
      for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path() + part))
        count += entry.is_regular_file() ? 1 : 0;
    return count;
  }

 private:
  TemporaryFolder folder_;
  SettableClock clock_;
  SignedUrl signer_{"a secret", 3600};
  std::unique_ptr<StorePool> stores_;
  std::unique_ptr<ContentStore> contents_;
  std::unique_ptr<Thumbnailer> thumbnailer_;
  std::unique_ptr<ApiHandlers> api_;
  std::unique_ptr<ContentHandlers> contentHandlers_;
  std::string account_ = "ann";
};

}  // namespace vondle::storage
