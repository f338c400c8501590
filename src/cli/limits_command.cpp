#include <memory>
#include <optional>

#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/transfer_settings.h"
#include "cli/words.h"

namespace vondle {

namespace {

struct LimitsOptions {
  std::optional<double> down;
  std::optional<double> up;
  std::optional<std::int64_t> transfers;
  bool json = false;
};

// Whole numbers without a fraction, as a person would write them.
json::Value asNumber(double value) {
  const auto whole = static_cast<std::int64_t>(value);
  return static_cast<double>(whole) == value ? json::Value(whole) : json::Value(value);
}

Outcome<void> limits(const CommandContext& context, const LimitsOptions& options) {
  const auto written = context.config().edit([&](json::Object& config) {
    if (options.down) config["max_download_kbps"] = asNumber(*options.down);
    if (options.up) config["max_upload_kbps"] = asNumber(*options.up);
    if (options.transfers) config["max_concurrent_transfers"] = *options.transfers;
  });
  if (!written) return fail(ExitCode::failed, written.error().localizedDescription());
  const auto config = context.config().read();
  if (!config) return fail(ExitCode::failed, config.error().localizedDescription());

  const auto settings = TransferSettings::from(*config);
  if (options.json) {
    context.console.print(json::serialize(settings.toJSON()));
  } else {
    context.console.print("down " + limitInWords(settings.downloadKilobytes));
    context.console.print("up " + limitInWords(settings.uploadKilobytes));
    context.console.print(countInWords(settings.transfers, "transfer", "transfers") + " at once");
    if (settings.paused) context.console.print("paused");
  }
  return {};
}

}  // namespace

void addLimits(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<LimitsOptions>();
  auto* command = app.add_subcommand("limits", "Show or set how fast and how many transfers run; takes effect at once");
  command->add_option("--down", options->down, "Download limit in kB/s, 0 for none")->check(CLI::Range(0.0, 1e9));
  command->add_option("--up", options->up, "Upload limit in kB/s, 0 for none")->check(CLI::Range(0.0, 1e9));
  command->add_option("--transfers", options->transfers, "Transfers at once")->check(CLI::Range(1, 100));
  command->add_flag("--json", options->json, "Report as JSON");
  command->callback(
      [&context, &chosen, options] { chosen = [&context, options] { return limits(context, *options); }; });
}

}  // namespace vondle
