#include "service/control/control_commands.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "base/base64.h"
#include "base/time.h"
#include "fileprovider/error_codes.h"
#include "service/contents/lost_and_found.h"
#include "service/control/control_protocol.h"
#include "service/control/control_text.h"
#include "service/control/drain_operation.h"
#include "service/control/edit_text.h"
#include "service/control/fetch_operation.h"
#include "service/control/keep_operation.h"
#include "service/item_text.h"

namespace vondle {

namespace {

constexpr std::string_view problemText(NameProblem problem) {
  switch (problem) {
    case NameProblem::empty:
      return "an empty name";
    case NameProblem::dots:
      return "a name of dots";
    case NameProblem::separator:
      return "a name that holds a slash or a zero byte";
    case NameProblem::tooLong:
      return "a name of more than 255 bytes";
    case NameProblem::notUTF8:
      return "a name that is not UTF-8";
    case NameProblem::reserved:
      return "a name that begins like a substitute";
    case NameProblem::duplicate:
      return "a name that stands twice in its folder";
  }
  return "an unusable name";
}

json::Array rights(std::uint32_t capabilities) {
  constexpr std::pair<ItemCapabilities, std::string_view> NAMES[] = {
      {ALLOWS_READING, "read"},    {ALLOWS_WRITING, "write"},  {ALLOWS_REPARENTING, "move"},
      {ALLOWS_RENAMING, "rename"}, {ALLOWS_TRASHING, "trash"}, {ALLOWS_DELETING, "delete"}};
  json::Array result;
  for (const auto& [bit, name] : NAMES) {
    if (capabilities & bit) result.push_back(json::Value(name));
  }
  return result;
}

// Absent for a request whose "inodes" is no list of numbers.
std::optional<std::vector<Inode>> inodesOf(const json::Object& request) {
  const auto* list = json::list(request, "inodes");
  if (!list) return std::nullopt;
  std::vector<Inode> inodes;
  for (const auto& value : *list) {
    const auto number = json::integer(value);
    if (!number || *number <= 0) return std::nullopt;
    inodes.push_back(static_cast<Inode>(*number));
  }
  return inodes;
}

// Absent for a request whose "ids" is no list of texts.
std::optional<std::vector<std::string>> identifiersOf(const json::Object& request) {
  const auto* list = json::list(request, "ids");
  if (!list) return std::nullopt;
  std::vector<std::string> identifiers;
  for (const auto& value : *list) {
    if (!value.is_string()) return std::nullopt;
    identifiers.emplace_back(value.get_string());
  }
  return identifiers;
}

void refuse(const std::shared_ptr<ControlReply>& reply, std::string_view why) {
  reply->fail(control::CODE_MALFORMED, why);
}

json::Object followStatus(const Follower::Status& status) {
  json::Object object{{"anchor", controlText(status.anchor)},
                      {"running", status.isRunning},
                      {"updates", status.updates},
                      {"deletions", status.deletions}};
  if (status.lastSuccess) object["last_success"] = status.lastSuccess->secondsSince1970;
  if (status.lastError) object["error"] = controlText(status.lastError->localizedDescription());
  if (status.nextIn) object["next_in"] = inSeconds(*status.nextIn);
  return object;
}

json::Object keptStatus(const Keeper::Status& status) {
  return {{"items", status.items}, {"waiting", status.waiting}, {"failing", status.failing}};
}

}  // namespace

ControlCommands::ControlCommands(Parts parts)
    : parts_(std::move(parts)),
      waiting_(parts_.scheduler.makeSerialQueue("control")),
      started_(parts_.clock.monotonic()) {}

void ControlCommands::handle(const json::Object& request, const std::shared_ptr<ControlReply>& reply) {
  const auto command = json::text(request, "command").value_or("");
  if (command == "status") return reply->finish(status());
  if (command == "sync") return sync(reply);
  if (command == "info")  // of a folder, which may hold very much
    return parts_.scheduler.global().post([this, request, reply] { info(request, reply); });
  if (command == "fetch") return fetch(request, reply);
  if (command == "evict") return evict(request, reply);
  if (command == "keep") return keep(KeepAction::Kind::keep, request, reply);
  if (command == "unkeep") return keep(KeepAction::Kind::stopKeeping, request, reply);
  if (command == "thumbnail") return thumbnail(request, reply);
  if (command == "drain") return drain(reply);
  if (command == "trash") return trash(TrashOperation::Action::list, request, true, reply);
  if (command == "trash-restore") return trash(TrashOperation::Action::restore, request, false, reply);
  if (command == "trash-delete") return trash(TrashOperation::Action::remove, request, false, reply);
  if (command == "trash-empty") return trash(TrashOperation::Action::remove, request, true, reply);
  if (command == "stop") {
    reply->finish({{"pid", parts_.pid}});
    return parts_.stop();
  }
  refuse(reply, "unknown command");
}

json::Object ControlCommands::status() const {
  const auto& replica = parts_.tree.replica();
  const auto pathText = [&](Inode inode) { return controlText(replica.pathOf(inode).value_or("?")); };

  json::Array transfers;
  for (const auto& transfer : parts_.contents->transfers()) {
    transfers.push_back(json::Object{{"inode", transfer.inode},
                                     {"path", pathText(transfer.inode)},
                                     {"direction", "down"},
                                     {"completed", transfer.progress ? transfer.progress->completedUnitCount() : 0},
                                     {"total", transfer.progress ? transfer.progress->totalUnitCount() : 0},
                                     {"waited_for", transfer.isWaitedFor}});
  }
  const auto problems = replica.problems();
  json::Array names;
  for (const auto& problem : problems) {
    if (names.size() == MAX_PROBLEMS) break;
    names.push_back(json::Object{{"path", pathText(problem.inode)},
                                 {"server_name", controlText(problem.serverName)},
                                 {"local_name", controlText(problem.localName)},
                                 {"reason", problemText(problem.problem)}});
  }
  json::Array errors;
  for (const auto& [inode, entry] : parts_.errors.newest(MAX_PROBLEMS)) {
    errors.push_back(json::Object{{"path", pathText(inode)},
                                  {"error", controlText(entry.error.localizedDescription())},
                                  {"at", entry.when.secondsSince1970}});
  }
  return {{"pid", parts_.pid},
          {"mount", controlText(parts_.mountPath)},
          {"read_only", parts_.readOnly},
          {"uptime", inSeconds(parts_.clock.monotonic() - started_)},
          {"follow", followStatus(parts_.follower->status())},
          {"items", replica.itemCount()},
          {"files_here", parts_.contents->filesHere()},
          {"bytes_here", parts_.contents->bytesHere()},
          {"cache", cacheStatus()},
          {"kept", keptStatus(parts_.keeper->status())},
          {"edits", editStatus()},
          {"transfers", std::move(transfers)},
          {"names", std::move(names)},
          {"names_total", problems.size()},
          {"errors", std::move(errors)}};
}

json::Object ControlCommands::cacheStatus() const {
  const auto status = parts_.limiter->status();
  json::Object object{
      {"bytes", status.bytes - status.keptBytes}, {"kept_bytes", status.keptBytes}, {"limit", status.limit}};
  if (status.reserve) object["disk_reserve"] = *status.reserve;
  if (status.diskFree) object["disk_free"] = *status.diskFree;
  return object;
}

// Those that fail or are under way first, then those that wait.
json::Object ControlCommands::editStatus() const {
  const auto reports = parts_.sender->report();
  std::int64_t sending = 0;
  std::int64_t failing = 0;
  std::int64_t local = 0;
  for (const auto& report : reports) {
    sending += report.state == SendState::sending;
    failing += report.edit.attempts > 0;
    local += report.state == SendState::staysHere;
  }
  const auto rank = [](const EditSender::Report& report) {
    if (report.state == SendState::sending) return 0;
    if (report.state == SendState::staysHere) return 3;
    return report.edit.lastError.empty() ? 2 : 1;
  };
  json::Array list;
  for (int wanted = 0; wanted <= 3; ++wanted) {
    for (const auto& report : reports) {
      if (list.size() == MAX_PROBLEMS) break;
      if (rank(report) == wanted) list.push_back(editJSON(report, *parts_.edits, parts_.tree.replica()));
    }
  }
  json::Object status{{"total", reports.size()},
                      {"sending", sending},
                      {"failing", failing},
                      {"local", local},
                      {"list", std::move(list)}};
  if (const auto lost = lostFiles(parts_.editedFiles).size(); lost > 0) {
    status["lost"] = lost;
    status["lost_in"] = controlText(lostAndFound(parts_.editedFiles));
  }
  return status;
}

void ControlCommands::drain(const std::shared_ptr<ControlReply>& reply) const {
  std::make_shared<DrainOperation>(parts_.sender, parts_.edits, parts_.tree, parts_.scheduler, reply)->start();
}

void ControlCommands::trash(TrashOperation::Action action, const json::Object& request, bool isAll,
                            const std::shared_ptr<ControlReply>& reply) const {
  std::optional<std::vector<std::string>> identifiers;
  if (!isAll) {
    identifiers = identifiersOf(request);
    if (!identifiers) return refuse(reply, "expected \"ids\", a list of texts");
  }
  const auto sync = [follower = parts_.follower](Completion<std::optional<Error>> completion) {
    follower->sync(std::move(completion));
  };
  std::make_shared<TrashOperation>(parts_.extension, action, std::move(identifiers), sync, parts_.scheduler, reply)
      ->start();
}

void ControlCommands::tellWhatIsHere(Inode inode, bool isFolder, json::Object& object) const {
  if (!isFolder) {
    object["bytes_here"] = parts_.contents->bytesHere(inode);
    return;
  }
  const auto share = parts_.keeper->shareOf({inode});
  object["files"] = share.files;
  object["files_here"] = share.filesHere;
  object["bytes_here"] = share.bytesHere;
}

void ControlCommands::tellEdit(Inode inode, json::Object& object) const {
  const auto edit = parts_.edits->ofItem(inode);
  if (!edit) return;
  const auto reports = parts_.sender->report();
  const auto found = std::ranges::find(reports, edit->id, [](const auto& report) { return report.edit.id; });
  if (found != reports.end()) object["edit"] = editJSON(*found, *parts_.edits, parts_.tree.replica());
}

void ControlCommands::sync(const std::shared_ptr<ControlReply>& reply) {
  parts_.sender->sendNow();
  parts_.follower->sync([this, reply](const std::optional<Error>& error) {
    if (error) return reply->fail(controlCode(*error), controlText(error->localizedDescription()));
    waiting_->post([this, reply] {
      parts_.waitUntilShown();
      reply->finish(followStatus(parts_.follower->status()));
    });
  });
}

void ControlCommands::info(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const {
  const auto number = json::integer(request, "inode");
  if (!number || *number <= 0) return refuse(reply, "expected \"inode\"");
  const auto inode = static_cast<Inode>(*number);
  const auto& replica = parts_.tree.replica();
  const auto attributes = replica.attributes(inode);
  const auto path = replica.pathOf(inode);
  if (!attributes || !path) return reply->fail(control::CODE_NO_SUCH_ITEM, "there is no such item any more");

  json::Object object{{"inode", inode},
                      {"path", controlText(parts_.mountPath + (*path == "/" ? "" : *path))},
                      {"name", controlText(path->substr(path->rfind('/') + 1))},
                      {"folder", attributes->isFolder},
                      {"rights", rights(attributes->capabilities)}};
  if (attributes->isFolder) {
    object["listed"] = attributes->isListed;
  } else {
    const auto state = parts_.contents->state(inode);
    object["state"] = stateText(state);
    if (const auto progress = parts_.contents->progressOf(inode)) object["fraction"] = progress->fractionCompleted();
  }
  tellWhatIsHere(inode, attributes->isFolder, object);
  if (const auto item = replica.item(inode)) {
    object["identifier"] = controlText(item->itemIdentifier.text);
    object["server_name"] = controlText(item->filename);
    object["content_type"] = controlText(item->contentType);
    const auto keptBy = replica.keptBy(inode);
    object["policy"] = policyText(inode, keptBy, item->contentPolicy);
    object["kept"] = keptBy.has_value();
    object["content_version"] = controlText(item->itemVersion.contentVersion);
    object["metadata_version"] = controlText(item->itemVersion.metadataVersion);
    object["shared"] = item->isShared;
    object["shared_by_me"] = item->isSharedByCurrentUser;
    if (item->documentSize) object["size"] = *item->documentSize;
    if (item->contentModificationDate) object["modified"] = formatISO8601(*item->contentModificationDate);
    if (item->ownerNameComponents) object["owner"] = controlText(ownerText(*item->ownerNameComponents));
  }
  tellEdit(inode, object);
  if (const auto last = parts_.errors.of(inode)) {
    object["last_error"] = controlText(last->error.localizedDescription());
    object["last_error_at"] = formatISO8601(last->when);
  }
  reply->finish(object);
}

void ControlCommands::fetch(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const {
  auto inodes = inodesOf(request);
  if (!inodes) return refuse(reply, "expected \"inodes\", a list of numbers");
  std::make_shared<FetchOperation>(parts_.tree, parts_.contents, parts_.scheduler, std::move(*inodes), reply)->start();
}

void ControlCommands::evict(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const {
  const auto inodes = inodesOf(request);
  if (!inodes) return refuse(reply, "expected \"inodes\", a list of numbers");
  std::int64_t done = 0;
  json::Array failures;
  const auto& replica = parts_.tree.replica();
  for (const auto inode : *inodes) {
    auto error = replica.keptBy(inode) ? std::optional(Error::posix(EBUSY, "it is kept downloaded"))
                                       : parts_.contents->evict(inode);
    if (error) {
      failures.push_back(itemFailure(replica, inode, *error));
    } else {
      ++done;
    }
  }
  reply->finish({{"done", done}, {"failures", std::move(failures)}});
}

void ControlCommands::keep(KeepAction::Kind action, const json::Object& request,
                           const std::shared_ptr<ControlReply>& reply) const {
  auto inodes = inodesOf(request);
  if (!inodes) return refuse(reply, "expected \"inodes\", a list of numbers");
  std::make_shared<KeepOperation>(KeepAction::Parts{.tree = parts_.tree,
                                                    .extension = parts_.extension,
                                                    .contents = parts_.contents,
                                                    .scheduler = parts_.scheduler},
                                  parts_.keeper, action, std::move(*inodes),
                                  json::boolean(request, "wait").value_or(false), reply)
      ->start();
}

void ControlCommands::thumbnail(const json::Object& request, const std::shared_ptr<ControlReply>& reply) const {
  const auto number = json::integer(request, "inode");
  const auto width = json::integer(request, "width").value_or(0);
  const auto height = json::integer(request, "height").value_or(0);
  if (!number || *number <= 0) return refuse(reply, "expected \"inode\"");
  if (width <= 0 || height <= 0) return refuse(reply, "expected \"width\" and \"height\"");
  const auto identifier = parts_.tree.replica().identifierOf(static_cast<Inode>(*number));
  if (!identifier) return reply->fail(control::CODE_NO_SUCH_ITEM, "there is no such item any more");

  const ThumbnailSize size{.width = static_cast<double>(width), .height = static_cast<double>(height)};
  const auto image = std::make_shared<Result<std::optional<std::string>>>();
  const auto progress = parts_.extension.fetchThumbnails(
      {*identifier}, size, [image](const ItemIdentifier&, auto result) { *image = std::move(result); },
      [image, reply](std::optional<Error> error) {
        if (!error && !*image) error = image->error();
        if (error) return reply->fail(controlCode(*error), controlText(error->localizedDescription()));
        if (!**image) return reply->fail(control::CODE_FAILED, "there is no thumbnail of it");
        reply->finish({{"image", base64(***image)}});
      });
  reply->whenAbandoned([progress] { progress->cancel(); });
}

}  // namespace vondle
