#include "cli/item_batch.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "base/byte_size.h"
#include "cli/item_locator.h"
#include "cli/service_connection.h"
#include "cli/words.h"

namespace vondle {

namespace {

// Files per request: a line of the control protocol is bounded.
constexpr std::size_t BATCH = 1000;

class BatchRun {
 public:
  BatchRun(const CommandContext& context, const ItemBatch& batch, ServiceConnection& service, std::string mountPath)
      : context_(context), batch_(batch), service_(service), mountPath_(std::move(mountPath)) {}

  // All of them first, so that the totals are true from the start.
  void find(const std::string& path) {
    const auto inode = locateItem(path, mountPath_);
    if (!inode) return note(inode.error());
    std::error_code error;
    const auto kind = std::filesystem::symlink_status(path, error).type();
    if (batch_.takesFolders || kind != std::filesystem::file_type::directory) return add(*inode, path);
    auto entry = std::filesystem::recursive_directory_iterator(path, error);
    for (; !error && entry != std::filesystem::recursive_directory_iterator(); entry.increment(error)) {
      if (!entry->is_regular_file(error)) continue;
      if (const auto file = locateItem(entry->path(), mountPath_))
        add(*file, entry->path());
      else
        note(file.error());
    }
    if (error) note({ExitCode::failed, path + ": " + error.message()});
  }

  void run() {
    for (std::size_t first = 0; first < items_.size() && !isBroken_; first += BATCH)
      request(std::span(items_).subspan(first, std::min(BATCH, items_.size() - first)));
    context_.console.showProgress("");
  }

  Outcome<void> finish(bool asJSON) {
    if (asJSON) {
      context_.console.print(
          json::serialize(json::Object{{"done", done_}, {"failed", failed_}, {"failures", failures_}}));
    } else {
      const auto count =
          batch_.takesFolders ? countInWords(done_, "item", "items") : countInWords(done_, "file", "files");
      context_.console.say(count + " " + batch_.verb);
    }
    if (firstFailure_) return std::unexpected(*firstFailure_);
    return {};
  }

 private:
  // How far it is, in files and bytes.
  struct Share {
    std::int64_t files = 0;
    std::int64_t bytes = 0;
  };

  struct Item {
    Inode inode = 0;
    std::int64_t bytes = 0;
  };

  void add(Inode inode, const std::string& path) {
    std::error_code error;
    const auto size = batch_.takesFolders ? 0 : std::filesystem::file_size(path, error);
    items_.push_back({inode, error ? 0 : static_cast<std::int64_t>(size)});
    all_.files += 1;
    all_.bytes += items_.back().bytes;
    if (items_.size() % BATCH == 0) context_.console.showProgress(fmt::format("{} files found", items_.size()));
  }

  void request(std::span<const Item> items) {
    json::Array inodes;
    Share whole;
    for (const auto& item : items) {
      inodes.push_back(json::Value(item.inode));
      whole.files += 1;
      whole.bytes += item.bytes;
    }
    auto request = batch_.details;
    request["command"] = batch_.command;
    request["inodes"] = std::move(inodes);
    const auto result = service_.ask(request, std::nullopt, [&](const json::Object& progress) {
      if (batch_.takesFolders) {
        whole = {json::integer(progress, "files").value_or(0), json::integer(progress, "bytes").value_or(0)};
        all_ = {before_.files + whole.files, before_.bytes + whole.bytes};
      }
      show({json::integer(progress, "done").value_or(0), json::integer(progress, "bytes_done").value_or(0)});
    });
    // Without a service there is no use in asking on.
    isBroken_ = !result && result.error().code == ExitCode::serviceNotRunning;
    if (!result) return note(result.error());
    done_ += json::integer(*result, "done").value_or(0);
    noteAll(*result);
    before_ = {before_.files + whole.files, before_.bytes + whole.bytes};
    show({});
  }

  void show(const Share& current) {
    const auto bytes = static_cast<double>(before_.bytes + current.bytes);
    const auto files = before_.files + current.files;
    // What moves no bytes is counted in files.
    const bool isInBytes = all_.bytes > 0 && batch_.movesBytes;
    const auto text = fmt::format("{} of {} files", files, all_.files);
    const auto all = static_cast<double>(all_.bytes);
    context_.console.showProgress(
        isInBytes ? bytes : static_cast<double>(files), isInBytes ? all : static_cast<double>(all_.files),
        isInBytes ? fmt::format("{}, {} of {}", text, sizeInWords(bytes), sizeInWords(all)) : text);
  }

  void noteAll(const json::Object& result) {
    const auto* failures = json::listOfObjects(result, "failures");
    if (!failures) return;
    for (const auto& failure : *failures) {
      const auto& object = failure.get_object();
      note(
          {exitCodeFor(json::text(object, "code").value_or("")),
           fmt::format("{}: {}", json::text(object, "path").value_or("?"), json::text(object, "error").value_or("?"))});
    }
    // Of very many, only some are named.
    const auto unnamed = json::integer(result, "failed").value_or(0) - static_cast<std::int64_t>(failures->size());
    if (unnamed <= 0) return;
    failed_ += unnamed;
    context_.console.say(fmt::format("and {} more", unnamed));
  }

  void note(Failure failure) {
    context_.console.say(failure.message);
    failures_.push_back(json::Value(failure.message));
    ++failed_;
    if (!firstFailure_) firstFailure_ = Failure{failure.code, "not everything could be " + batch_.verb};
  }

  const CommandContext& context_;
  const ItemBatch& batch_;
  ServiceConnection& service_;
  const std::string mountPath_;
  std::vector<Item> items_;
  json::Array failures_;
  Share all_;
  Share before_;  // of the requests that were answered
  std::int64_t done_ = 0;
  std::int64_t failed_ = 0;
  bool isBroken_ = false;
  std::optional<Failure> firstFailure_;
};

}  // namespace

Outcome<void> runBatch(const CommandContext& context, const ItemBatch& batch, const std::vector<std::string>& paths,
                       bool asJSON) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto status = service->ask({{"command", "status"}});
  if (!status) return std::unexpected(status.error());
  BatchRun run(context, batch, *service, std::string(json::text(*status, "mount").value_or("")));
  for (const auto& path : paths) run.find(path);
  run.run();
  return run.finish(asJSON);
}

}  // namespace vondle
