#include <memory>

#include "cli/commands.h"
#include "cli/item_batch.h"

namespace vondle {

void addFetch(CLI::App& app, CommandContext& context, Command& chosen) {
  struct Options {
    std::vector<std::string> paths;
    bool json = false;
  };
  auto options = std::make_shared<Options>();
  auto* command = app.add_subcommand("fetch", "Download files now, and all files in folders");
  command->add_option("path", options->paths, "Files and folders in the Vondle folder")->required();
  command->add_flag("--json", options->json, "Report as JSON");
  command->callback([&context, &chosen, options] {
    chosen = [&context, options] {
      return runBatch(context, {.command = "fetch", .verb = "fetched", .movesBytes = true}, options->paths,
                      options->json);
    };
  });
}

}  // namespace vondle
