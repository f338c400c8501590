#include "api/vondle_api.h"

#include <fmt/format.h>

#include "api/api_error.h"
#include "base/shared_instance.h"
#include "config/config_loader.h"
#include "config/plog.h"
#include "platform/url.h"

namespace vondle {
namespace {

constexpr int OK = 200;
constexpr Duration REQUEST_TIMEOUT = seconds(60);

std::unexpected<Error> malformed() {
  return failure(APIError::malformed());
}

Result<json::Object> answer(const std::string& path, Result<URLReply> reply) {
  std::int64_t status = 0;
  if (reply) {
    status = reply->response.status;
    if (status == OK)
      if (auto object = json::parseObject(reply->body)) return std::move(*object);
  } else if (const auto refused = statusOfTooLongReply(reply.error())) {
    status = *refused;
  } else {
    return failure(reply.error());
  }
  plog.error("%{public}@ -> HTTP %d", path, status);
  return failure(APIError::badResponse(status));
}

// Completes with what `read` makes of the reply object; the object is gone by then.
template <class T, class Read>
Completion<Result<json::Object>> reading(Completion<Result<T>> completion, Read read) {
  return [completion = std::move(completion), read = std::move(read)](Result<json::Object> reply) mutable {
    if (!reply) return std::move(completion)(failure(reply.error()));
    Result<T> value = [&] {
      const json::Object object = std::move(*reply);
      return read(object);
    }();
    std::move(completion)(std::move(value));
  };
}

void append(std::vector<Entry>& entries, std::optional<Entry> entry) {
  if (entry) entries.push_back(std::move(*entry));
}

Result<std::vector<Entry>> readListing(const json::Object& reply, const std::optional<std::string>& roleWhenNotTold,
                                       Timestamp now) {
  const auto* folders = json::listOfObjects(reply, "folders");
  const auto* files = json::listOfObjects(reply, "files");
  if (!folders || !files) return malformed();
  const auto subpath = json::text(reply, "subpath").value_or("");
  const auto told = json::text(reply, "role");
  const auto role = told ? told : std::optional<std::string_view>(roleWhenNotTold);

  std::vector<Entry> entries;
  entries.reserve(folders->size() + files->size());
  for (const auto& folder : *folders)
    append(entries, Entry::parse(folder.get_object(), subpath, role, now, {.isFolder = true}));
  for (const auto& file : *files) {
    auto name = json::text(file.get_object(), "filename");
    if (!name || name->empty()) name = json::text(file.get_object(), "name").value_or("");
    append(entries, Entry::parse(file.get_object(), subpath, role, now, {.isFolder = false, .name = name}));
  }
  plog.info("browse %{public}@ -> %d items", subpath.empty() ? "/" : subpath, entries.size());
  return entries;
}

Result<Entry> readItem(const json::Object& reply, Timestamp now) {
  auto entry = Entry::parse(reply, "", std::nullopt, now, {.name = json::text(reply, "name").value_or("")});
  if (!entry) return malformed();
  return std::move(*entry);
}

Result<ChangeSet> readChanges(const json::Object& reply, std::int64_t since, Timestamp now) {
  const auto* changes = json::listOfObjects(reply, "changes");
  if (!changes) return malformed();
  ChangeSet page;
  for (const auto& change : *changes) {
    const json::Object& object = change.get_object();
    if (json::boolean(object, "deleted").value_or(false)) {
      if (const auto id = json::text(object, "id")) page.deleted.emplace_back(*id);
    } else {
      append(page.entries, Entry::parse(object, "", std::nullopt, now));
    }
  }
  page.seq = json::integer(reply, "seq").value_or(since);
  page.head = json::integer(reply, "head").value_or(0);
  page.more = json::boolean(reply, "more").value_or(false);
  return page;
}

Result<std::vector<Entry>> readTrash(const json::Object& reply, Timestamp now) {
  const auto* items = json::listOfObjects(reply, "items");
  if (!items) return malformed();
  std::vector<Entry> entries;
  for (const auto& item : *items)
    append(entries,
           Entry::parse(item.get_object(), "", std::nullopt, now, {.deleted = true, .pathKey = "restore_path"}));
  return entries;
}

Result<ContentTarget> readTarget(const json::Object& reply) {
  auto target = ContentTarget::parse(reply);
  if (!target) return malformed();
  return *std::move(target);
}

Result<ThumbURLs> readThumbURLs(const json::Object& reply) {
  const auto* urls = json::object(reply, "urls");
  if (!urls) return malformed();
  ThumbURLs thumbs;
  for (const auto& [id, url] : *urls) {
    if (!url.is_string()) return malformed();
    thumbs.urls.emplace(id, url.get_string());
  }
  if (const auto* pending = json::list(reply, "pending"))
    for (const auto& id : *pending)
      if (id.is_string()) thumbs.pending.emplace(id.get_string());
  return thumbs;
}

}  // namespace

VondleAPI::VondleAPI(URLLoading& loading, const Clock& clock, ConfigLoader& config, std::string clientHeader)
    : clock_(clock), config_(config), clientHeader_(std::move(clientHeader)) {
  client_.emplace(loading,
                  URLSessionConfiguration{.timeoutForRequest = seconds(30), .timeoutForResource = seconds(300)},
                  MAX_REPLY_BYTES);
}

VondleAPI& VondleAPI::shared() {
  return SharedInstance<VondleAPI>::current();
}

void VondleAPI::browse(std::string id, Completion<Result<Entries>> completion) {
  get("browse", {{"id", std::move(id)}, {"lite", "1"}}, listing(std::nullopt, std::move(completion)));
}

void VondleAPI::browsePath(std::string path, Completion<Result<Entries>> completion) {
  get("browse", {{"path", std::move(path)}}, listing("owner", std::move(completion)));
}

Completion<Result<json::Object>> VondleAPI::listing(std::optional<std::string> roleWhenNotTold,
                                                    Completion<Result<Entries>> completion) {
  return reading(std::move(completion), [this, role = std::move(roleWhenNotTold)](const json::Object& reply) {
    return readListing(reply, role, clock_.now());
  });
}

void VondleAPI::item(std::string id, Completion<Result<Entry>> completion) {
  get("item", {{"id", std::move(id)}},
      reading(std::move(completion), [this](const json::Object& reply) { return readItem(reply, clock_.now()); }));
}

void VondleAPI::changes(std::int64_t since, std::int64_t limit, Completion<Result<ChangeSet>> completion) {
  get("changes", {{"since", fmt::format("{}", since)}, {"limit", fmt::format("{}", limit)}},
      reading(std::move(completion),
              [this, since](const json::Object& reply) { return readChanges(reply, since, clock_.now()); }));
}

void VondleAPI::trash(Completion<Result<Entries>> completion) {
  get("trash", {},
      reading(std::move(completion), [this](const json::Object& reply) { return readTrash(reply, clock_.now()); }));
}

void VondleAPI::move(std::string key, std::string toPath, Reply completion) {
  post("move", {{"source_key", key}, {"dest_key", toPath}}, std::move(completion));
}

void VondleAPI::moveFolder(std::string fromPath, std::string toPath, Reply completion) {
  post("move-folder", {{"source_prefix", fromPath + "/"}, {"dest_prefix", toPath + "/"}}, std::move(completion));
}

void VondleAPI::createFolder(std::string name, std::string parentPath, Reply completion) {
  post("folders", {{"name", name}, {"path", parentPath}}, std::move(completion));
}

void VondleAPI::registerContents(std::string key, std::string path, Reply completion) {
  post("register", {{"key", key}, {"path", path}}, std::move(completion));
}

void VondleAPI::deleteFile(std::string key, Reply completion) {
  post("delete-files", {{"keys", json::Array{json::Value(key)}}}, std::move(completion));
}

void VondleAPI::deleteFolder(std::string path, Reply completion) {
  post("delete-folder", {{"prefix", path + "/"}}, std::move(completion));
}

void VondleAPI::restore(std::string id, Reply completion) {
  post("restore", {{"id", id}}, std::move(completion));
}

void VondleAPI::purge(std::string id, Reply completion) {
  post("purge", {{"id", id}}, std::move(completion));
}

void VondleAPI::contentURL(std::string id, std::int64_t baseVersion, std::int64_t size,
                           Completion<Result<ContentTarget>> completion) {
  json::Object body{{"id", id}, {"base_version", baseVersion}, {"thumb", true}};
  if (size >= multipartThreshold) {
    body["size"] = size;
    body["multipart"] = true;
  }
  post("content-url", std::move(body), reading(std::move(completion), readTarget));
}

void VondleAPI::contentCommit(std::string id, std::int64_t baseVersion, std::string key, bool thumb, Reply completion) {
  json::Object body{{"id", id}, {"base_version", baseVersion}, {"key", key}};
  if (thumb) body["thumb"] = true;
  post("content-commit", std::move(body), std::move(completion));
}

void VondleAPI::notifyUpload(std::string key) {
  notifyUpload(std::move(key), false, [] {});
}

void VondleAPI::notifyUpload(std::string key, bool thumb, Completion<> answered) {
  const json::Array keys{json::Value(key)};
  json::Object body{{"keys", keys}};
  if (thumb) body["thumbs"] = keys;
  post("notify-upload", std::move(body),
       [answered = std::move(answered)](const Result<json::Object>&) mutable { std::move(answered)(); });
}

void VondleAPI::thumbURLs(std::vector<std::string> ids, Completion<Result<ThumbURLs>> completion) {
  post("thumb-urls", {{"ids", json::Array(ids.begin(), ids.end())}}, reading(std::move(completion), readThumbURLs));
}

void VondleAPI::get(std::string path, Query query, Reply completion) {
  request(std::move(path), std::move(query), "GET", std::nullopt, std::move(completion));
}

void VondleAPI::post(std::string path, json::Object body, Reply completion) {
  request(std::move(path), {}, "POST", std::move(body), std::move(completion));
}

void VondleAPI::request(std::string path, Query query, std::string method, std::optional<json::Object> body,
                        Reply completion) {
  const auto config = config_.load();
  if (!config) return std::move(completion)(failure(APIError::notConfigured()));
  const std::string address = config->server + "/vondle/api/" + path;
  if (!isAbsoluteURL(address)) return std::move(completion)(failure(APIError::notConfigured()));
  URLRequest request;
  request.url = query.empty() ? address : withQuery(address, query);
  if (!isAbsoluteURL(request.url)) return std::move(completion)(failure(APIError::malformed()));
  request.method = std::move(method);
  request.timeout = REQUEST_TIMEOUT;
  request.headers = {{"X-API-Key", config->apiKey}, {"X-Vondle-Client", clientHeader_}};
  if (body) {
    request.headers.push_back({"Content-Type", "application/json"});
    request.body = json::serialize(std::move(*body));
  }
  send(std::move(request),
       [path = std::move(path), completion = std::move(completion)](Result<URLReply> reply) mutable {
         auto result = answer(path, std::move(reply));
         std::move(completion)(std::move(result));
       });
}

void VondleAPI::send(URLRequest request, Completion<Result<URLReply>> completion) {
  {
    MutexLock hold(lock_);
    if (!stopped_) {
      ++sending_;
      hold.unlock();
      client_->send(std::move(request), std::move(completion));
      hold.lock();
      if (--sending_ == 0) sent_.notify_all();
      return;
    }
  }
  std::move(completion)(failure({URL_ERROR_DOMAIN, URL_CANCELLED}));
}

void VondleAPI::stop() {
  {
    MutexLock hold(lock_);
    stopped_ = true;
    while (sending_ > 0) sent_.wait(hold);
  }
  client_.reset();
}

}  // namespace vondle
