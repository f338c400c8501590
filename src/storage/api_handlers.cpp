#include "storage/api_handlers.h"

#include <set>

#include <fmt/format.h>

#include "platform/log.h"
#include "storage/accounts.h"
#include "storage/count.h"
#include "storage/milliseconds.h"
#include "storage/names.h"

namespace vondle::storage {
namespace {

constexpr Log slog("com.ferrow.vondle.storage", "api");

Answer<std::string> textOf(const json::Object& body, std::string_view key) {
  const auto text = json::text(body, key);
  if (!text) return refuse(400, fmt::format("\"{}\" is missing or not a text", key));
  return std::string(*text);
}

Answer<std::vector<std::string>> textsOf(const json::Object& body, std::string_view key) {
  const auto* list = json::list(body, key);
  if (!list) return refuse(400, fmt::format("\"{}\" is missing or not a list", key));
  if (list->size() > MAX_BATCH) return refuse(400, fmt::format("\"{}\" has more than {} members", key, MAX_BATCH));
  std::vector<std::string> texts;
  for (const auto& member : *list) {
    if (!member.is_string()) return refuse(400, fmt::format("\"{}\" has a member that is not a text", key));
    texts.emplace_back(member.get_string());
  }
  return texts;
}

Answer<std::optional<std::string>> queryOf(const ApiRequest& request, const std::string& name) {
  const auto [first, last] = request.query.equal_range(name);
  if (first == last) return std::nullopt;
  if (std::next(first) != last) return refuse(400, fmt::format("\"{}\" is given twice", name));
  return first->second;
}

Answer<std::int64_t> countOf(const ApiRequest& request, const std::string& name) {
  const auto text = queryOf(request, name);
  if (!text) return refuse(text.error());
  const auto count = *text ? countIn(**text) : std::nullopt;
  if (!count) return refuse(400, fmt::format("\"{}\" is missing or not a count", name));
  return *count;
}

Answer<std::int64_t> integerOf(const json::Object& body, std::string_view key) {
  const auto* value = json::find(body, key);
  const auto number = value && value->is_int64() ? json::integer(*value) : std::nullopt;
  if (!number) return refuse(400, fmt::format("\"{}\" is missing or not a whole number", key));
  return *number;
}

// Absent counts as false.
bool flagOf(const json::Object& body, std::string_view key) {
  return json::boolean(body, key).value_or(false);
}

// After these, contents may lie around that belong to nobody.
bool makesGarbage(std::string_view endpoint) {
  return endpoint == "purge" || endpoint == "content-commit" || endpoint == "upload-abort";
}

bool asksForRoom(std::string_view endpoint) {
  return endpoint == "upload-urls" || endpoint == "content-url";
}

// Where and how to send contents; the same for new files and for new contents of old ones.
std::string targetText(const Upload& upload, bool withThumb, const Addresses& addresses) {
  std::string out = "{\"key\":";
  appendJson(out, upload.key);
  out += ",\"content_type\":\"application/octet-stream\"";
  if (upload.partSize > 0) {
    out += ",\"upload_id\":";
    appendJson(out, upload.uploadId);
    out += fmt::format(",\"part_size\":{}", upload.partSize);
  } else {
    out += ",\"upload_url\":";
    appendJson(out, addresses.signedFor("PUT", uploadPath(upload.key)));
  }
  if (withThumb) {
    out += ",\"thumb_upload_url\":";
    appendJson(out, addresses.signedFor("PUT", thumbPath(upload.key)));
  }
  out += '}';
  return out;
}

std::string entryText(const View& view, const Addresses& addresses) {
  std::string out;
  appendEntry(out, view, addresses);
  return out;
}

Answer<std::string> entryReply(const Answer<View>& view, const Addresses& addresses) {
  if (!view) return refuse(view.error());
  return entryText(*view, addresses);
}

}  // namespace

ApiReply errorReply(int status, std::string_view text) {
  std::string body = "{\"error\":";
  appendJson(body, text);
  body += '}';
  return {.status = status, .body = std::move(body), .allow = {}};
}

const std::map<std::string_view, ApiHandlers::Endpoint>& ApiHandlers::endpoints() {
  static const std::map<std::string_view, Endpoint> table = {
      {"browse", {"GET", &ApiHandlers::browse}},
      {"item", {"GET", &ApiHandlers::item}},
      {"changes", {"GET", &ApiHandlers::changes}},
      {"trash", {"GET", &ApiHandlers::trash}},
      {"move", {"POST", &ApiHandlers::move}},
      {"move-folder", {"POST", &ApiHandlers::moveFolder}},
      {"folders", {"POST", &ApiHandlers::folders}},
      {"delete-files", {"POST", &ApiHandlers::deleteFiles}},
      {"delete-folder", {"POST", &ApiHandlers::deleteFolder}},
      {"restore", {"POST", &ApiHandlers::restore}},
      {"purge", {"POST", &ApiHandlers::purge}},
      {"share", {"POST", &ApiHandlers::share}},
      {"unshare", {"POST", &ApiHandlers::unshare}},
      {"register", {"POST", &ApiHandlers::registerFile}},
      {"upload-urls", {"POST", &ApiHandlers::uploadUrls}},
      {"upload-status", {"POST", &ApiHandlers::uploadStatus}},
      {"upload-parts", {"POST", &ApiHandlers::uploadParts}},
      {"upload-complete", {"POST", &ApiHandlers::uploadComplete}},
      {"upload-abort", {"POST", &ApiHandlers::uploadAbort}},
      {"notify-upload", {"POST", &ApiHandlers::notifyUpload}},
      {"content-url", {"POST", &ApiHandlers::contentUrl}},
      {"content-commit", {"POST", &ApiHandlers::contentCommit}},
      {"thumb-urls", {"POST", &ApiHandlers::thumbUrls}},
  };
  return table;
}

ApiReply ApiHandlers::handle(const ApiRequest& request) {
  if (!request.key || request.key->empty()) return errorReply(401, "the header X-API-Key is missing");
  const auto found = endpoints().find(request.endpoint);
  const bool known = found != endpoints().end();
  const bool reads = known && found->second.method == "GET";
  if (known && request.method != found->second.method) {
    auto reply = errorReply(405, fmt::format("this endpoint takes {}", found->second.method));
    reply.allow = found->second.method;
    return reply;
  }

  json::Object body;
  if (known && !reads) {
    auto parsed = json::parseObject(request.body);
    if (!parsed) return errorReply(400, "the body is not a JSON object");
    body = std::move(*parsed);
  }
  const Handler handler = known ? found->second.handler : nullptr;
  if (asksForRoom(request.endpoint)) tidy();

  Answer<std::string> answer;
  if (reads || !known) {
    auto store = stores_.reader();
    if (!store) {
      slog.error("%{public}@", store.error().localizedDescription());
      return errorReply(500, "the service's database cannot be opened");
    }
    answer = (*store)->read<std::string>([&] { return run(**store, request, handler, {}); });
  } else {
    auto store = stores_.writer();
    answer = store->write<std::string>([&] { return run(*store, request, handler, std::move(body)); });
  }
  if (!answer) return errorReply(answer.error().status, answer.error().text);
  if (makesGarbage(request.endpoint)) collectGarbage();
  return {.status = 200, .body = std::move(*answer), .allow = {}};
}

Answer<std::string> ApiHandlers::run(MetadataStore& store, const ApiRequest& request, Handler handler,
                                     json::Object body) {
  auto account = store.accountWithKey(hashOfKey(*request.key));
  if (!account) return refuse(401, "the account key is not known");
  if (!handler) return refuse(404, "there is no such endpoint");
  const auto now = millisecondsNow(clock_);
  Tree tree(store, std::move(*account), now);
  Call call{.store = store,
            .tree = tree,
            .uploads = Uploads(store, contents_, tree, now),
            .addresses = {.base = request.base, .signer = signer_, .now = now / 1000},
            .request = request,
            .body = std::move(body)};
  return (this->*handler)(call);
}

void ApiHandlers::tidy() {
  {
    auto store = stores_.writer();
    (void)store->write<bool>([&]() -> Answer<bool> {
      Uploads::sweep(*store, millisecondsNow(clock_));
      return true;
    });
  }
  collectGarbage();
}

void ApiHandlers::collectGarbage() {
  auto store = stores_.writer();
  const auto keys =
      store->read<std::vector<std::string>>([&]() -> Answer<std::vector<std::string>> { return store->garbage(); });
  if (!keys || keys->empty()) return;
  std::vector<std::string> removed;
  for (const auto& key : *keys) {
    if (auto done = contents_.remove(key); done)
      removed.push_back(key);
    else
      slog.error("%{public}@", done.error().localizedDescription());
  }
  (void)store->write<bool>([&]() -> Answer<bool> {
    for (const auto& key : removed) store->removeGarbage(key);
    return true;
  });
}

Answer<std::string> ApiHandlers::browse(Call& call) {
  const auto id = queryOf(call.request, "id");
  const auto path = queryOf(call.request, "path");
  const auto lite = queryOf(call.request, "lite");
  for (const auto* parameter : {&id, &path, &lite})
    if (!*parameter) return refuse(parameter->error());
  if (id->has_value() == path->has_value()) return refuse(400, "either \"id\" or \"path\" is needed");
  auto folder = *id ? call.tree.byId(**id) : call.tree.byPath(**path);
  if (!folder) return refuse(folder.error());
  const auto listing = call.tree.list(std::move(*folder));
  if (!listing) return refuse(listing.error());

  const bool isLite = *lite == "1";
  std::string out = "{\"subpath\":";
  out.reserve(256 + (listing->folders.size() + listing->files.size()) * (isLite ? 224 : 512));
  appendJson(out, listing->folder.path);
  out += ",\"role\":";
  appendJson(out, listing->folder.role);
  const auto appendAll = [&](std::string_view name, const std::vector<View>& views) {
    out += ",\"";
    out += name;
    out += "\":[";
    for (const auto& view : views) {
      if (&view != &views.front()) out += ',';
      if (isLite)
        appendLiteEntry(out, view, listing->folder);
      else
        appendEntry(out, view, call.addresses);
    }
    out += ']';
  };
  appendAll("folders", listing->folders);
  appendAll("files", listing->files);
  out += '}';
  return out;
}

Answer<std::string> ApiHandlers::item(Call& call) {
  const auto id = queryOf(call.request, "id");
  if (!id) return refuse(id.error());
  if (!*id) return refuse(400, "\"id\" is missing");
  return entryReply(call.tree.byId(**id), call.addresses);
}

Answer<std::string> ApiHandlers::changes(Call& call) {
  const auto since = countOf(call.request, "since");
  if (!since) return refuse(since.error());
  const auto limit = countOf(call.request, "limit");
  if (!limit) return refuse(limit.error());
  const auto page = call.tree.changes(*since, std::min(*limit, MAX_CHANGES));
  if (!page) return refuse(page.error());
  std::string out = "{\"changes\":[";
  for (const auto& change : page->changes) {
    if (&change != &page->changes.front()) out += ',';
    if (change.view) {
      appendEntry(out, *change.view, call.addresses);
    } else {
      out += "{\"id\":";
      appendJson(out, change.id);
      out += ",\"deleted\":true}";
    }
  }
  out += fmt::format("],\"seq\":{},\"head\":{},\"more\":{}}}", page->seq, page->head, page->more);
  return out;
}

Answer<std::string> ApiHandlers::trash(Call& call) {
  const auto views = call.tree.trash();
  if (!views) return refuse(views.error());
  std::string out = "{\"items\":[";
  for (const auto& view : *views) {
    if (&view != &views->front()) out += ',';
    appendEntry(out, view, call.addresses);
  }
  out += "]}";
  return out;
}

Answer<std::string> ApiHandlers::move(Call& call) {
  const auto key = textOf(call.body, "source_key");
  if (!key) return key;
  const auto path = textOf(call.body, "dest_key");
  if (!path) return path;
  auto view = call.tree.byKey(*key);
  if (!view) return refuse(view.error());
  return entryReply(call.tree.move(std::move(*view), *path), call.addresses);
}

Answer<std::string> ApiHandlers::moveFolder(Call& call) {
  const auto sourcePrefix = textOf(call.body, "source_prefix");
  if (!sourcePrefix) return sourcePrefix;
  const auto targetPrefix = textOf(call.body, "dest_prefix");
  if (!targetPrefix) return targetPrefix;
  const auto source = folderOfPrefix(*sourcePrefix);
  if (!source) return source;
  const auto target = folderOfPrefix(*targetPrefix);
  if (!target) return target;
  auto view = call.tree.byPath(*source);
  if (!view) return refuse(view.error());
  if (!view->item.isFolder) return refuse(404, "there is no such folder");
  return entryReply(call.tree.move(std::move(*view), *target), call.addresses);
}

Answer<std::string> ApiHandlers::folders(Call& call) {
  const auto name = textOf(call.body, "name");
  if (!name) return name;
  const auto path = textOf(call.body, "path");
  if (!path) return path;
  return entryReply(call.tree.createFolder(*path, *name), call.addresses);
}

Answer<std::string> ApiHandlers::deleteFiles(Call& call) {
  const auto keys = textsOf(call.body, "keys");
  if (!keys) return refuse(keys.error());
  if (keys->empty()) return refuse(400, "\"keys\" is empty");
  for (const auto& key : *keys) {
    auto view = call.tree.byKey(key);
    if (!view) return refuse(view.error());
    if (auto done = call.tree.moveToTrash(std::move(*view)); !done) return refuse(done.error());
  }
  return "{}";
}

Answer<std::string> ApiHandlers::deleteFolder(Call& call) {
  const auto prefix = textOf(call.body, "prefix");
  if (!prefix) return prefix;
  const auto path = folderOfPrefix(*prefix);
  if (!path) return path;
  auto view = call.tree.byPath(*path);
  if (!view) return refuse(view.error());
  if (!view->item.isFolder) return refuse(404, "there is no such folder");
  if (auto done = call.tree.moveToTrash(std::move(*view)); !done) return refuse(done.error());
  return "{}";
}

Answer<std::string> ApiHandlers::restore(Call& call) {
  const auto view = itemOf(call);
  if (!view) return refuse(view.error());
  return entryReply(call.tree.restore(*view), call.addresses);
}

Answer<std::string> ApiHandlers::purge(Call& call) {
  const auto view = itemOf(call);
  if (!view) return refuse(view.error());
  if (auto done = call.tree.purge(*view); !done) return refuse(done.error());
  return "{}";
}

Answer<std::string> ApiHandlers::share(Call& call) {
  const auto account = textOf(call.body, "account");
  if (!account) return account;
  const auto role = textOf(call.body, "role");
  if (!role) return role;
  const auto view = itemOf(call);
  if (!view) return refuse(view.error());
  return entryReply(call.tree.share(*view, *account, *role), call.addresses);
}

Answer<std::string> ApiHandlers::unshare(Call& call) {
  const auto account = textOf(call.body, "account");
  if (!account) return account;
  const auto view = itemOf(call);
  if (!view) return refuse(view.error());
  return entryReply(call.tree.unshare(*view, *account), call.addresses);
}

Answer<std::string> ApiHandlers::registerFile(Call& call) {
  const auto key = textOf(call.body, "key");
  if (!key) return key;
  const auto path = textOf(call.body, "path");
  if (!path) return path;
  return entryReply(call.uploads.registerFile(*key, *path), call.addresses);
}

Answer<std::string> ApiHandlers::uploadUrls(Call& call) {
  const auto path = textOf(call.body, "path");
  if (!path) return path;
  const auto* files = json::listOfObjects(call.body, "files");
  if (!files || files->empty()) return refuse(400, "\"files\" is missing or not a list of objects");
  if (files->size() > MAX_BATCH) return refuse(400, fmt::format("\"files\" has more than {} members", MAX_BATCH));
  std::string out = "{\"urls\":[";
  for (const auto& member : *files) {
    const auto& file = member.get_object();
    const auto name = textOf(file, "filename");
    if (!name) return name;
    const auto size = integerOf(file, "size");
    if (!size) return refuse(size.error());
    const auto upload = call.uploads.forNewFile(*path, *name, *size, flagOf(file, "multipart"));
    if (!upload) return refuse(upload.error());
    if (&member != &files->front()) out += ',';
    out += targetText(*upload, flagOf(file, "thumb"), call.addresses);
  }
  out += "]}";
  return out;
}

Answer<View> ApiHandlers::itemOf(Call& call) {
  const auto id = textOf(call.body, "id");
  if (!id) return refuse(id.error());
  return call.tree.byId(*id);
}

Answer<Upload> ApiHandlers::uploadOf(Call& call) {
  const auto key = textOf(call.body, "key");
  if (!key) return refuse(key.error());
  const auto id = textOf(call.body, "upload_id");
  if (!id) return refuse(id.error());
  return call.uploads.find(*key, *id);
}

Answer<std::string> ApiHandlers::uploadStatus(Call& call) {
  const auto upload = uploadOf(call);
  if (!upload) return refuse(upload.error());
  std::string out = "{\"key\":";
  appendJson(out, upload->key);
  out += ",\"upload_id\":";
  appendJson(out, upload->uploadId);
  out += fmt::format(",\"part_size\":{},\"size\":{},\"parts\":[", upload->partSize, *upload->size);
  const auto parts = call.store.parts(upload->key);
  for (const auto& part : parts) {
    if (&part != &parts.front()) out += ',';
    out += fmt::format("{{\"part\":{},\"size\":{},\"etag\":", part.number, part.size);
    appendJson(out, part.etag);
    out += '}';
  }
  out += "]}";
  return out;
}

Answer<std::string> ApiHandlers::uploadParts(Call& call) {
  const auto upload = uploadOf(call);
  if (!upload) return refuse(upload.error());
  const auto* numbers = json::list(call.body, "parts");
  if (!numbers || numbers->empty()) return refuse(400, "\"parts\" is missing or not a list");
  if (numbers->size() > MAX_BATCH) return refuse(400, fmt::format("\"parts\" has more than {} members", MAX_BATCH));
  std::string out = "{\"parts\":[";
  for (const auto& member : *numbers) {
    const auto number = member.is_int64() ? member.get_int64() : 0;
    if (number < 1 || number > partCount(*upload)) return refuse(400, "\"parts\" names a part that there is not");
    if (&member != &numbers->front()) out += ',';
    out += fmt::format("{{\"part\":{},\"url\":", number);
    appendJson(out, call.addresses.signedFor("PUT", partPath(upload->key, number)));
    out += '}';
  }
  out += "]}";
  return out;
}

Answer<std::string> ApiHandlers::uploadComplete(Call& call) {
  const auto key = textOf(call.body, "key");
  if (!key) return key;
  const auto id = textOf(call.body, "upload_id");
  if (!id) return id;
  const auto* list = json::listOfObjects(call.body, "parts");
  if (!list) return refuse(400, "\"parts\" is missing or not a list of objects");
  std::vector<std::pair<std::int64_t, std::string>> parts;
  for (const auto& member : *list) {
    const auto number = integerOf(member.get_object(), "part");
    if (!number) return refuse(number.error());
    auto etag = textOf(member.get_object(), "etag");
    if (!etag) return etag;
    parts.emplace_back(*number, std::move(*etag));
  }
  const auto file = call.uploads.complete(*key, *id, parts);
  if (!file) return refuse(file.error());
  return *file ? entryText(**file, call.addresses) : "{}";
}

Answer<std::string> ApiHandlers::uploadAbort(Call& call) {
  const auto upload = uploadOf(call);
  if (!upload) return refuse(upload.error());
  call.uploads.abort(*upload);
  return "{}";
}

Answer<std::string> ApiHandlers::notifyUpload(Call& call) {
  const auto keys = textsOf(call.body, "keys");
  if (!keys) return refuse(keys.error());
  const auto thumbs = json::find(call.body, "thumbs") ? textsOf(call.body, "thumbs") : std::vector<std::string>();
  if (!thumbs) return refuse(thumbs.error());
  for (const auto& key : *keys)
    if (auto done = call.uploads.notify(key, false); !done) return refuse(done.error());
  for (const auto& key : *thumbs)
    if (auto done = call.uploads.notify(key, true); !done) return refuse(done.error());
  return "{}";
}

Answer<std::string> ApiHandlers::contentUrl(Call& call) {
  if (const auto version = integerOf(call.body, "base_version"); !version) return refuse(version.error());
  std::optional<std::int64_t> size;
  if (json::find(call.body, "size")) {
    const auto given = integerOf(call.body, "size");
    if (!given) return refuse(given.error());
    size = *given;
  }
  const auto view = itemOf(call);
  if (!view) return refuse(view.error());
  const auto upload = call.uploads.forContents(*view, size, flagOf(call.body, "multipart"));
  if (!upload) return refuse(upload.error());
  return targetText(*upload, flagOf(call.body, "thumb"), call.addresses);
}

Answer<std::string> ApiHandlers::contentCommit(Call& call) {
  const auto version = integerOf(call.body, "base_version");
  if (!version) return refuse(version.error());
  const auto key = textOf(call.body, "key");
  if (!key) return key;
  const auto view = itemOf(call);
  if (!view) return refuse(view.error());
  return entryReply(call.uploads.commit(*view, *version, *key, flagOf(call.body, "thumb")), call.addresses);
}

Answer<std::string> ApiHandlers::thumbUrls(Call& call) {
  const auto ids = textsOf(call.body, "ids");
  if (!ids) return refuse(ids.error());
  std::string urls;
  std::string pending;
  for (const auto& id : std::set(ids->begin(), ids->end())) {
    const auto view = call.tree.byId(id);
    if (!view || !hasThumb(view->item)) continue;
    if (view->item.thumb == Thumb::stored) {
      if (!urls.empty()) urls += ',';
      appendJson(urls, id);
      urls += ':';
      appendJson(urls, call.addresses.signedFor("GET", thumbPath(view->item.key)));
    } else if (thumbnailer_) {
      if (!pending.empty()) pending += ',';
      appendJson(pending, id);
      thumbnailer_->want(view->item);
    }
  }
  return fmt::format("{{\"urls\":{{{}}},\"pending\":[{}]}}", urls, pending);
}

}  // namespace vondle::storage
