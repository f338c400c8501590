#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/json.h"
#include "fileprovider/error_codes.h"
#include "platform/content_types.h"
#include "testing/captured.h"
#include "testing/provider_rig.h"

namespace vondle {

// The extension before a server with items that the test sets, to be edited. Items and folders that were not set are
// answered with 404; every endpoint that writes is the test's to answer.
struct EditRig : ProviderRig {
  static constexpr const char* STORE = "https://store.example/";
  static constexpr const char* CONTENTS = "/home/tester/contents.txt";
  using Answer = Captured<Result<SavedItem>>;

  EditRig() {
    machine.urlLoading.onRequest(std::string(API) + "item?id=", [this](const URLRequest& request) {
      return unless(itemFailure, items, request.url.substr(request.url.find('=') + 1));
    });
    machine.urlLoading.onRequest(std::string(API) + "browse?id=", [this](const URLRequest& request) {
      const auto begin = request.url.find('=') + 1;
      return unless(browseFailure, listings, request.url.substr(begin, request.url.find('&') - begin));
    });
  }

  // What the server has, by identifier; a test may change it at any time.
  std::map<std::string, std::string> items;
  std::map<std::string, std::string> listings;
  std::optional<ScriptedReply> itemFailure;
  std::optional<ScriptedReply> browseFailure;

  struct File {
    std::string id = "7";
    std::string path = "docs/a.txt";
    std::string parentID = "3";
    std::optional<std::string> key = "k7";
    std::int64_t version = 4;
    std::int64_t size = 10;
    bool trashed = false;
    bool isFolder = false;
  };
  static std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }
  static std::string record(const File& file) {
    json::Object object{{"id", file.id},          {"name", nameOf(file.path)},  {"parent_id", file.parentID},
                        {"path", file.path},      {"is_folder", file.isFolder}, {"size", file.size},
                        {"version", file.version}};
    if (file.key && !file.isFolder) object["key"] = *file.key;
    if (file.trashed) object["trashed"] = true;
    return json::serialize(object);
  }
  void serve(const File& file) { items[file.id] = record(file); }
  void serveFolder(const std::string& id, const std::string& path, const std::string& parentID = "root") {
    serve({.id = id, .path = path, .parentID = parentID, .isFolder = true});
  }
  // A folder's listing that holds these files only.
  void list(const std::string& id, const std::string& path, const std::vector<File>& files) {
    json::Array array;
    for (const auto& file : files) {
      auto object = *json::parseObject(record(file));
      object.erase("path");
      array.push_back(std::move(object));
    }
    listings[id] = json::serialize(json::Object{{"subpath", path}, {"folders", json::Array()}, {"files", array}});
  }

  static ScriptedReply networkFailure() {
    ScriptedReply none = reply("", 0);
    none.error = Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "the connection was lost");
    return none;
  }

  // The server's answer to a write, and what it does before; endpoints compare as a whole.
  void take(const std::string& endpoint, std::string body = "{}", std::function<void()> effect = [] {}) {
    machine.urlLoading.onRequest(
        [url = API + endpoint, body = std::move(body), effect = std::move(effect)](const URLRequest& request) {
          if (request.url != url) return std::optional<ScriptedReply>();
          effect();
          return std::optional(reply(body));
        });
  }
  void refuse(const std::string& endpoint, const ScriptedReply& refusal) {
    machine.urlLoading.onRequest([url = API + endpoint, refusal](const URLRequest& request) {
      return request.url == url ? std::optional(refusal) : std::nullopt;
    });
  }
  void refuse(const std::string& endpoint, int status, const std::string& body = "{}") {
    refuse(endpoint, reply(body, status));
  }
  // The answer to what is sent to the store's address.
  void store(const std::string& name, int status = 200, std::function<void()> effect = [] {}) {
    machine.urlLoading.onRequest(STORE + name, [status, effect = std::move(effect)](const URLRequest&) {
      effect();
      return reply("", status);
    });
  }

  // What was asked for, in order: "GET item?id=7", "move {…}", "PUT upload" for the store's addresses.
  [[nodiscard]] std::vector<std::string> calls() const {
    std::vector<std::string> lines;
    for (const auto& task : machine.urlLoading.tasks()) {
      if (!task->isStarted()) continue;
      const auto& request = task->originalRequest();
      const std::string_view url = request.url;
      if (!url.starts_with(API))
        lines.push_back(request.method + " " + std::string(url.substr(std::string_view(STORE).size())));
      else if (request.method == "GET")
        lines.push_back("GET " + std::string(url.substr(std::string_view(API).size())));
      else
        lines.push_back(std::string(url.substr(std::string_view(API).size())) + " " + request.body.value_or(""));
    }
    return lines;
  }
  // Those that ask the API to change something, or the store to take something.
  [[nodiscard]] std::vector<std::string> writes() const {
    std::vector<std::string> lines = calls();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("GET "); });
    return lines;
  }

  static Item file(const std::string& name, const std::string& parent = "3") {
    Item made;
    made.parentItemIdentifier = {parent};
    made.filename = name;
    return made;
  }
  static Item folder(const std::string& name, const std::string& parent = "3") {
    Item made = file(name, parent);
    made.contentType = FOLDER_CONTENT_TYPE;
    return made;
  }
  static Item wanted(const std::string& id, const std::string& name = "", const ItemIdentifier& parent = {}) {
    Item made;
    made.itemIdentifier = {id};
    made.filename = name;
    made.parentItemIdentifier = parent;
    return made;
  }

  Result<SavedItem> create(const Item& item, const std::optional<std::string>& contents = std::nullopt) {
    Answer answer;
    extension().createItem(item, 0, contents, 0, {}, answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
  Result<SavedItem> modify(const Item& item, std::uint32_t fields,
                           const std::optional<std::string>& contents = std::nullopt,
                           const std::string& baseVersion = "4-10") {
    Answer answer;
    extension().modifyItem(item, {baseVersion, ""}, fields, contents, 0, {}, answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
  std::optional<Error> remove(const std::string& id) {
    Captured<std::optional<Error>> answer;
    extension().deleteItem({id}, {}, 0, {}, answer.completion());
    scheduler.runUntilIdle();
    return answer.value();
  }
  // Makes the item known to the extension as the server has it.
  void see(const std::string& id) {
    Captured<Result<Item>> answer;
    extension().itemForIdentifier({id}, {}, answer.completion());
    scheduler.runUntilIdle();
    static_cast<void>(answer.value().value());
  }

  static Error noSuchItem() { return {FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM}; }

 private:
  static ScriptedReply unless(const std::optional<ScriptedReply>& failure,
                              const std::map<std::string, std::string>& known, const std::string& id) {
    if (failure) return *failure;
    const auto found = known.find(id);
    return found == known.end() ? reply("{}", 404) : reply(found->second);
  }
};

}  // namespace vondle
