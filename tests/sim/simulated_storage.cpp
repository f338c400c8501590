#include "simulated_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

#include "storage/accounts.h"
#include "storage/milliseconds.h"

namespace vondle::sim {
namespace {

constexpr std::string_view API = "/vondle/api/";
constexpr std::size_t LARGE = 256 * 1024;
constexpr std::size_t END = 4096;

int hexadecimalDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : 0;
}

std::string decode(std::string_view text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      bytes += static_cast<char>(hexadecimalDigit(text[i + 1]) * 16 + hexadecimalDigit(text[i + 2]));
      i += 2;
    } else {
      bytes += text[i] == '+' ? ' ' : text[i];
    }
  }
  return bytes;
}

std::multimap<std::string, std::string> queryOf(std::string_view text) {
  std::multimap<std::string, std::string> query;
  while (!text.empty()) {
    const auto end = std::min(text.find('&'), text.size());
    const auto pair = text.substr(0, end);
    const auto equals = std::min(pair.find('='), pair.size());
    query.emplace(decode(pair.substr(0, equals)), decode(pair.substr(std::min(equals + 1, pair.size()))));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return query;
}

template <class T>
T required(Result<T> result) {
  if (!result) throw std::runtime_error(result.error().localizedDescription());
  return std::move(*result);
}

ScriptedReply refusal(const storage::Refusal& refusal) {
  return {.status = refusal.status, .body = storage::errorReply(refusal.status, refusal.text).body};
}

}  // namespace

std::string printOf(std::string_view bytes) {
  if (bytes.empty()) return EMPTY;
  std::uint64_t hash = 0xCBF29CE484222325;
  const auto add = [&](std::string_view part) {
    for (const unsigned char byte : part) hash = (hash ^ byte) * 0x100000001B3;
  };
  if (bytes.size() <= LARGE) {
    add(bytes);
  } else {
    add(bytes.substr(0, END));
    add(bytes.substr(bytes.size() - END));
  }
  return fmt::format("{}:{:016x}", bytes.size(), hash);
}

std::string printOfFile(int descriptor) {
  struct stat status{};
  ::fstat(descriptor, &status);
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  const auto read = [&](std::size_t offset, std::size_t count) {
    static_cast<void>(!::pread(descriptor, bytes.data() + offset, count, static_cast<off_t>(offset)));
  };
  if (bytes.size() <= LARGE) {
    read(0, bytes.size());
  } else {
    read(0, END);
    read(bytes.size() - END, END);
  }
  return printOf(bytes);
}

SimulatedStorage::SimulatedStorage(std::string folder, const Clock& clock) : folder_(std::move(folder)), clock_(clock) {
  std::filesystem::create_directories(folder_);
  stores_ = required(storage::StorePool::open(folder_ + "/metadata.db"));
  contents_ = std::make_unique<storage::ContentStore>(required(storage::ContentStore::open(folder_)));
  api_ = std::make_unique<storage::ApiHandlers>(*stores_, *contents_, signer_, clock_);
  contentHandlers_ = std::make_unique<storage::ContentHandlers>(*stores_, *contents_, signer_, clock_);
  auto store = stores_->writer();
  if (!storage::setAccount(*store, "ann", KEY, storage::millisecondsNow(clock_)))
    throw std::runtime_error("the account cannot be made");
  database_ = required(sqlite::Database::open(folder_ + "/metadata.db", {.readOnly = true}));
}

ScriptedReply SimulatedStorage::answer(const URLRequest& request) {
  std::string_view path = request.url;
  path.remove_prefix(std::string_view(SERVER).size());
  const auto question = std::min(path.find('?'), path.size());
  auto query = queryOf(path.substr(std::min(question + 1, path.size())));
  path = path.substr(0, question);
  auto reply = path.starts_with(API)     ? answerAPI(request, path.substr(API.size()), std::move(query))
               : request.method == "PUT" ? take(request, path, std::move(query))
                                         : give(request, path, std::move(query));
  if (request.method != "GET") noteVersions();
  return reply;
}

ScriptedReply SimulatedStorage::answerAPI(const URLRequest& request, std::string_view path,
                                          std::multimap<std::string, std::string> query) {
  std::optional<std::string> key;
  if (const auto header = findHeader(request.headers, "X-API-Key")) key = std::string(*header);
  auto reply = api_->handle({.method = request.method,
                             .endpoint = std::string(path),
                             .query = std::move(query),
                             .body = request.body.value_or(""),
                             .key = std::move(key),
                             .base = SERVER});
  return {.status = reply.status, .body = std::move(reply.body)};
}

ScriptedReply SimulatedStorage::take(const URLRequest& request, std::string_view path,
                                     std::multimap<std::string, std::string> query) {
  const auto& bytes = *request.body;
  auto receiver = contentHandlers_->upload({.method = "PUT",
                                            .path = std::string(path),
                                            .query = std::move(query),
                                            .hasApiKey = findHeader(request.headers, "X-API-Key").has_value()},
                                           static_cast<std::int64_t>(bytes.size()),
                                           findHeader(request.headers, "Content-Type").value_or(""));
  if (!receiver) return refusal(receiver.error());
  if (auto written = (*receiver)->write(bytes); !written) return refusal(written.error());
  const auto etag = (*receiver)->finish();
  if (!etag) return refusal(etag.error());
  return {.status = 200, .headers = {{"ETag", *etag}}};
}

ScriptedReply SimulatedStorage::give(const URLRequest& request, std::string_view path,
                                     std::multimap<std::string, std::string> query) {
  const auto found = contentHandlers_->download({.method = request.method,
                                                 .path = std::string(path),
                                                 .query = std::move(query),
                                                 .hasApiKey = findHeader(request.headers, "X-API-Key").has_value()});
  if (!found) return refusal(found.error());
  std::string bytes(static_cast<std::size_t>(found->file->size()), '\0');
  if (found->file->readAt(0, bytes) != bytes.size()) throw std::runtime_error("stored contents are short");
  return {.status = 200, .body = std::move(bytes), .headers = {{"ETag", found->etag}}};
}

SimulatedStorage::Reply SimulatedStorage::handle(const std::string& method, const std::string& endpoint,
                                                 std::multimap<std::string, std::string> query,
                                                 const std::string& body) {
  const auto reply = api_->handle({.method = method,
                                   .endpoint = endpoint,
                                   .query = std::move(query),
                                   .body = body,
                                   .key = std::string(KEY),
                                   .base = SERVER});
  if (method != "GET") noteVersions();
  return {reply.status, json::parseObject(reply.body).value_or(json::Object())};
}

SimulatedStorage::Reply SimulatedStorage::get(const std::string& endpoint,
                                              std::multimap<std::string, std::string> query) {
  return handle("GET", endpoint, std::move(query), "");
}

SimulatedStorage::Reply SimulatedStorage::post(const std::string& endpoint, const json::Object& body) {
  return handle("POST", endpoint, {}, json::serialize(body));
}

bool SimulatedStorage::send(const std::string& url, std::string_view bytes) {
  return answer({.url = url,
                 .method = "PUT",
                 .headers = {{"Content-Type", "application/octet-stream"}},
                 .body = std::string(bytes)})
             .status == 200;
}

bool SimulatedStorage::makeFile(const std::string& folder, const std::string& name, const std::string& bytes) {
  const auto reply = post("upload-urls", {{"path", folder}, {"files", {{{"filename", name}, {"size", bytes.size()}}}}});
  if (reply.status != 200) return false;
  const auto& target = reply.body.at("urls").as_array().at(0).as_object();
  return send(std::string(target.at("upload_url").as_string()), bytes);
}

bool SimulatedStorage::changeFile(const std::string& id, std::int64_t version, const std::string& bytes) {
  const auto target = post("content-url", {{"id", id}, {"base_version", version}, {"size", bytes.size()}});
  if (target.status != 200) return false;
  if (!send(std::string(target.body.at("upload_url").as_string()), bytes)) return false;
  return post("content-commit", {{"id", id}, {"base_version", version}, {"key", target.body.at("key")}}).status == 200;
}

std::optional<std::string> SimulatedStorage::printOfKey(const std::string& key) {
  if (const auto known = printsByKey_.find(key); known != printsByKey_.end()) return known->second;
  const int file = ::open(contents_->pathOf(storage::ContentStore::Kind::contents, key).c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  printsByKey_[key] = printOfFile(file);
  ::close(file);
  return printsByKey_[key];
}

void SimulatedStorage::noteVersions() {
  auto rows = required(database_->prepare(
      "SELECT f.seq, i.id, i.version, i.key FROM feed f JOIN items i ON i.id = f.item WHERE f.seq > ?1 AND NOT "
      "i.is_folder ORDER BY f.seq"));
  rows.bindAll(seen_);
  while (required(rows.step())) {
    seen_ = std::max(seen_, rows.integer(0));
    const std::pair version(std::to_string(rows.integer(1)), rows.integer(2));
    if (versions_.contains(version)) continue;
    versions_[version] = printOfKey(rows.text(3)).value_or("missing");
  }
}

std::vector<SimulatedStorage::Stored> SimulatedStorage::everything() {
  auto rows = required(database_->prepare(
      "WITH RECURSIVE below(id, parent, name, path, folder, version, key, top) AS ("
      " SELECT i.id, 'root', i.name, i.name, i.is_folder, i.version, i.key,"
      "  CASE WHEN i.trashed IS NULL THEN NULL ELSE i.id END"
      "  FROM items i, accounts a WHERE (i.parent = a.root OR i.trashed IS NOT NULL)"
      " UNION ALL SELECT i.id, b.id, i.name, b.path || '/' || i.name, i.is_folder, i.version, i.key, b.top"
      "  FROM items i JOIN below b ON i.parent = b.id WHERE i.trashed IS NULL)"
      " SELECT id, parent, name, path, folder, version, key, top FROM below ORDER BY id"));
  std::vector<Stored> all;
  while (required(rows.step())) {
    Stored stored{.id = std::to_string(rows.integer(0)),
                  .parent = rows.text(1),
                  .name = rows.text(2),
                  .path = rows.text(3),
                  .isFolder = rows.boolean(4),
                  .isInTrash = !rows.isNull(7),
                  .trashedWith = rows.text(7),
                  .version = rows.integer(5),
                  .key = rows.text(6),
                  .print = {}};
    if (!stored.isFolder) stored.print = printOfKey(stored.key).value_or("missing");
    all.push_back(std::move(stored));
  }
  return all;
}

std::optional<std::string> SimulatedStorage::printOf(const std::string& id, std::int64_t version) const {
  const auto found = versions_.find({id, version});
  return found == versions_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::string> SimulatedStorage::printsOf(const std::string& id) const {
  std::vector<std::string> prints;
  for (auto at = versions_.lower_bound({id, 0}); at != versions_.end() && at->first.first == id; ++at)
    prints.push_back(at->second);
  return prints;
}

}  // namespace vondle::sim
