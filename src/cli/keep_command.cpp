#include <memory>

#include "cli/commands.h"
#include "cli/item_batch.h"

namespace vondle {

namespace {

struct KeepOptions {
  std::vector<std::string> paths;
  bool noWait = false;
  bool json = false;
};

void addPathsAndJSON(CLI::App& command, KeepOptions& options) {
  command.add_option("path", options.paths, "Files and folders in the Vondle folder")->required();
  command.add_flag("--json", options.json, "Report as JSON");
}

}  // namespace

void addKeep(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<KeepOptions>();
  auto* command =
      app.add_subcommand("keep", "Keep files downloaded, and everything in folders; waits until it is here");
  addPathsAndJSON(*command, *options);
  command->add_flag("--no-wait", options->noWait, "Return at once; the download goes on in the background");
  command->callback([&context, &chosen, options] {
    chosen = [&context, options] {
      return runBatch(context,
                      {.command = "keep",
                       .verb = "kept downloaded",
                       .details = {{"wait", !options->noWait}},
                       .takesFolders = true,
                       .movesBytes = true},
                      options->paths, options->json);
    };
  });
}

void addUnkeep(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<KeepOptions>();
  auto* command =
      app.add_subcommand("unkeep", "Stop keeping files and folders downloaded, and drop their local copies");
  addPathsAndJSON(*command, *options);
  command->callback([&context, &chosen, options] {
    chosen = [&context, options] {
      return runBatch(context,
                      {.command = "unkeep", .verb = "no longer kept downloaded", .details = {}, .takesFolders = true},
                      options->paths, options->json);
    };
  });
}

}  // namespace vondle
