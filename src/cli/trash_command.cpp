#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "base/byte_size.h"
#include "cli/commands.h"
#include "cli/service_connection.h"
#include "cli/words.h"

namespace vondle {

namespace {

struct TrashOptions {
  std::vector<std::string> ids;
  bool json = false;
};

Outcome<void> listTrash(const CommandContext& context, const TrashOptions& options) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto result = service->ask({{"command", "trash"}});
  if (!result) return std::unexpected(result.error());
  if (options.json) {
    context.console.print(json::serialize(*result));
    return {};
  }
  const auto* items = json::listOfObjects(*result, "items");
  if (!items) return {};
  for (const auto& each : *items) {
    const auto& item = each.get_object();
    const auto size = json::integer(item, "size");
    context.console.print(
        fmt::format("{:<16} {:>8}  {:<24}  {}{}", context.console.shown(json::text(item, "id").value_or("?")),
                    size ? sizeInWords(static_cast<double>(*size)) : "", json::text(item, "modified").value_or(""),
                    context.console.shown(json::text(item, "name").value_or("?")),
                    json::boolean(item, "folder") == true ? "/" : ""));
  }
  return {};
}

// What the command of the control protocol does to each item, in words: "restored".
Outcome<void> changeTrash(const CommandContext& context, const TrashOptions& options, std::string_view command,
                          const char* verb) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  json::Object request{{"command", command}};
  if (!options.ids.empty()) request["ids"] = json::Array(options.ids.begin(), options.ids.end());
  const auto result = service->ask(request, std::nullopt, [&](const json::Object& progress) {
    context.console.showProgress(fmt::format("{} of {} {}", json::integer(progress, "done").value_or(0),
                                             json::integer(progress, "items").value_or(0), verb));
  });
  context.console.showProgress("");
  if (!result) return std::unexpected(result.error());

  std::optional<Failure> first;
  if (const auto* failures = json::listOfObjects(*result, "failures")) {
    for (const auto& each : *failures) {
      const auto& failure = each.get_object();
      context.console.say(
          fmt::format("{}: {}", json::text(failure, "id").value_or("?"), json::text(failure, "error").value_or("?")));
      if (!first)
        first = Failure{exitCodeFor(json::text(failure, "code").value_or("")),
                        fmt::format("not everything could be {}", verb)};
    }
  }
  if (options.json)
    context.console.print(json::serialize(*result));
  else
    context.console.say(countInWords(json::integer(*result, "done").value_or(0), "item", "items") + " " + verb);
  if (first) return std::unexpected(*first);
  return {};
}

}  // namespace

void addTrash(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<TrashOptions>();
  auto* trash = app.add_subcommand("trash", "Look into the trash, bring back what is in it, or empty it");
  trash->require_subcommand(1);

  const auto add = [&](const char* name, const char* description, bool takesIDs, Command command) {
    auto* subcommand = trash->add_subcommand(name, description);
    if (takesIDs) subcommand->add_option("id", options->ids, "As \"vondle trash list\" shows them")->required();
    subcommand->add_flag("--json", options->json, "Report as JSON");
    subcommand->callback([&chosen, command = std::move(command)] { chosen = command; });
  };
  add("list", "Show what is in the trash", false, [&context, options] { return listTrash(context, *options); });
  add("restore", "Put items back where they were", true,
      [&context, options] { return changeTrash(context, *options, "trash-restore", "restored"); });
  add("delete", "Remove items for good", true,
      [&context, options] { return changeTrash(context, *options, "trash-delete", "removed for good"); });
  add("empty", "Remove everything in the trash for good", false,
      [&context, options] { return changeTrash(context, *options, "trash-empty", "removed for good"); });
}

}  // namespace vondle
