#include "cli/drain.h"

#include <algorithm>

#include <fmt/format.h>

#include "cli/service_connection.h"
#include "cli/words.h"

namespace vondle {

namespace {

// Changes that are named; the others are counted.
constexpr std::size_t MAX_NAMED = 10;

void show(const CommandContext& context, const json::Object& progress) {
  const auto left = json::integer(progress, "left").value_or(0);
  const auto all = json::integer(progress, "edits").value_or(0);
  if (left == 0) return;
  context.console.showProgress(static_cast<double>(all - left), static_cast<double>(all),
                               countInWords(left, "change", "changes") + " to send");
}

void tellLeft(const CommandContext& context, const json::Object& result) {
  const auto* edits = json::listOfObjects(result, "edits");
  if (!edits) return;
  for (std::size_t i = 0; i < std::min(edits->size(), MAX_NAMED); ++i) {
    const auto& edit = (*edits)[i].get_object();
    const auto error = json::text(edit, "error").value_or("");
    context.console.say(fmt::format("not on the server yet: {} ({}){}{}", json::text(edit, "path").value_or("?"),
                                    json::text(edit, "what").value_or("?"), error.empty() ? "" : ": ", error));
  }
}

// When the time was up: on another connection, for the first one still waits.
Outcome<std::int64_t> countLeft(const CommandContext& context) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto status = service->ask({{"command", "status"}}, seconds(10));
  if (!status) return std::unexpected(status.error());
  const auto* edits = json::object(*status, "edits");
  if (!edits) return 0;
  return json::integer(*edits, "total").value_or(0) - json::integer(*edits, "local").value_or(0);
}

}  // namespace

Outcome<std::int64_t> drainEdits(const CommandContext& context, std::optional<Duration> limit) {
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto result = service->ask({{"command", "drain"}}, limit,
                                   [&context](const json::Object& progress) { show(context, progress); });
  context.console.showProgress("");
  if (result) {
    tellLeft(context, *result);
    return json::integer(*result, "left").value_or(0);
  }
  if (result.error().code != ExitCode::workLeft) return std::unexpected(result.error());
  return countLeft(context);
}

}  // namespace vondle
