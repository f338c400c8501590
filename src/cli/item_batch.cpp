#include "cli/item_batch.h"

#include <cstdint>
#include <filesystem>
#include <optional>

#include <fmt/format.h>

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

  void add(const std::string& path) {
    const auto inode = locateItem(path, mountPath_);
    if (!inode) return note(inode.error());
    std::error_code error;
    const auto kind = std::filesystem::symlink_status(path, error).type();
    if (batch_.takesFolders || kind != std::filesystem::file_type::directory) return add(*inode);
    auto entry = std::filesystem::recursive_directory_iterator(path, error);
    for (; !error && entry != std::filesystem::recursive_directory_iterator(); entry.increment(error)) {
      if (!entry->is_regular_file(error)) continue;
      if (const auto file = locateItem(entry->path(), mountPath_))
        add(*file);
      else
        note(file.error());
    }
    if (error) note({ExitCode::failed, path + ": " + error.message()});
  }

  Outcome<void> finish(bool asJSON) {
    flush();
    context_.console.showProgress("");
    if (asJSON) {
      context_.console.print(json::serialize(json::Object{{"done", done_}, {"failures", failures_}}));
    } else {
      const auto count =
          batch_.takesFolders ? countInWords(done_, "item", "items") : countInWords(done_, "file", "files");
      context_.console.say(count + " " + batch_.verb);
    }
    if (firstFailure_) return std::unexpected(*firstFailure_);
    return {};
  }

 private:
  void add(Inode inode) {
    inodes_.push_back(inode);
    if (inodes_.size() >= BATCH) flush();
  }

  void flush() {
    if (inodes_.empty()) return;
    auto request = batch_.details;
    request["command"] = batch_.command;
    request["inodes"] = std::exchange(inodes_, {});
    const auto result = service_.ask(request, std::nullopt, [this](const json::Object& progress) { show(progress); });
    if (!result) return note(result.error());
    done_ += json::integer(*result, "done").value_or(0);
    if (const auto* failures = json::listOfObjects(*result, "failures")) {
      for (const auto& failure : *failures) {
        const auto& object = failure.get_object();
        note({exitCodeFor(json::text(object, "code").value_or("")),
              fmt::format("{}: {}", json::text(object, "path").value_or("?"),
                          json::text(object, "error").value_or("?"))});
      }
    }
  }

  void show(const json::Object& progress) {
    const auto bytes = static_cast<double>(json::integer(progress, "bytes_done").value_or(0));
    const auto all = static_cast<double>(json::integer(progress, "bytes").value_or(0));
    constexpr int WIDTH = 30;
    const auto filled = all > 0 ? static_cast<int>(WIDTH * std::min(1.0, bytes / all)) : 0;
    context_.console.showProgress(fmt::format(
        "[{:<{}}] {} of {}, {} of {} files", std::string(filled, '='), WIDTH, sizeInWords(bytes), sizeInWords(all),
        done_ + json::integer(progress, "done").value_or(0), done_ + json::integer(progress, "files").value_or(0)));
  }

  void note(Failure failure) {
    context_.console.say(failure.message);
    failures_.push_back(json::Value(failure.message));
    if (!firstFailure_) firstFailure_ = Failure{failure.code, "not everything could be " + batch_.verb};
  }

  const CommandContext& context_;
  const ItemBatch& batch_;
  ServiceConnection& service_;
  const std::string mountPath_;
  json::Array inodes_;
  json::Array failures_;
  std::int64_t done_ = 0;
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
  for (const auto& path : paths) run.add(path);
  return run.finish(asJSON);
}

}  // namespace vondle
