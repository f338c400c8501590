#include <memory>

#include <fmt/format.h>

#include "base/byte_size.h"
#include "cli/commands.h"
#include "cli/item_locator.h"
#include "cli/sending_words.h"
#include "cli/service_connection.h"
#include "cli/words.h"
#include "service/item_text.h"

namespace vondle {

namespace {

struct InfoOptions {
  std::string path;
  bool json = false;
};

void print(const CommandContext& context, std::string_view label, std::string_view text) {
  if (!text.empty()) context.console.print(fmt::format("{:<12}{}", label, context.console.shown(text)));
}

void printText(const CommandContext& context, const json::Object& info, std::string_view label, std::string_view key) {
  print(context, label, json::text(info, key).value_or(""));
}

std::string joined(const json::Object& info, std::string_view key) {
  std::string result;
  if (const auto* list = json::list(info, key)) {
    for (const auto& each : *list) {
      if (!each.is_string()) continue;
      if (!result.empty()) result += ", ";
      result += std::string_view(each.get_string());
    }
  }
  return result;
}

std::string onDisk(const json::Object& info) {
  const auto bytes = json::integer(info, "bytes_here");
  if (!bytes) return "";
  auto size = sizeInWords(static_cast<double>(*bytes));
  if (json::boolean(info, "folder") != true) return size;
  return fmt::format("{}, {} of {} known", size, json::integer(info, "files_here").value_or(0),
                     countInWords(json::integer(info, "files").value_or(0), "file", "files"));
}

void printInfo(const CommandContext& context, const json::Object& info) {
  printText(context, info, "path", "path");
  printText(context, info, "identifier", "identifier");
  if (json::text(info, "server_name") != json::text(info, "name")) printText(context, info, "on server", "server_name");
  printText(context, info, "kind", "content_type");
  if (const auto size = json::integer(info, "size")) {
    print(context, "size", fmt::format("{} ({} bytes)", sizeInWords(static_cast<double>(*size)), *size));
  }
  printText(context, info, "modified", "modified");
  printText(context, info, "state", "state");
  if (const auto done = json::number(info, "fraction")) print(context, "fetched", fmt::format("{:.0f} %", *done * 100));
  print(context, "on disk", onDisk(info));
  printText(context, info, "policy", "policy");
  print(context, "rights", joined(info, "rights"));
  if (json::boolean(info, "shared") == true) {
    print(context, "shared", sharingText(json::boolean(info, "shared_by_me") == true));
  }
  printText(context, info, "owner", "owner");
  printText(context, info, "contents", "content_version");
  printText(context, info, "metadata", "metadata_version");
  if (const auto* edit = json::object(info, "edit")) {
    print(context, "not sent",
          fmt::format("{} ({})", json::text(*edit, "what").value_or("?"),
                      sendingInWords(*edit, context.platform.clock.now())));
    if (const auto error = json::text(*edit, "error"))
      context.console.print(fmt::format("{:<12}{}", "because", context.console.warning(context.console.shown(*error))));
  }
  if (const auto error = json::text(info, "last_error")) {
    context.console.print(fmt::format("{:<12}{}{}", "last error",
                                      context.console.warning(context.console.shown(*error)),
                                      " (" + std::string(json::text(info, "last_error_at").value_or("")) + ")"));
  }
}

Outcome<void> info(const CommandContext& context, const InfoOptions& options) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto status = service->ask({{"command", "status"}});
  if (!status) return std::unexpected(status.error());
  const auto inode = locateItem(options.path, std::string(json::text(*status, "mount").value_or("")));
  if (!inode) return std::unexpected(inode.error());
  const auto result = service->ask({{"command", "info"}, {"inode", *inode}});
  if (!result) return std::unexpected(result.error());
  if (options.json)
    context.console.print(json::serialize(*result));
  else
    printInfo(context, *result);
  return {};
}

}  // namespace

void addInfo(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<InfoOptions>();
  auto* command = app.add_subcommand("info", "Show what is known of a file or folder");
  command->add_option("path", options->path, "File or folder in the Vondle folder")->required();
  command->add_flag("--json", options->json, "Report as JSON");
  command->callback([&context, &chosen, options] { chosen = [&context, options] { return info(context, *options); }; });
}

}  // namespace vondle
