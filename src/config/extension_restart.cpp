#include "config/extension_restart.h"

#include <charconv>

#include "base/json.h"
#include "config/paths.h"

namespace vondle {
namespace {

std::int64_t wholeNumber(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

}  // namespace

ExtensionRestart::ExtensionRestart(Files& files, NotifyCentre& notifyCentre, ProcessControl& process,
                                   const BundleInformation& bundle)
    : files_(files),
      notifyCentre_(notifyCentre),
      process_(process),
      thisBuild_(wholeNumber(bundle.text("CFBundleVersion").value_or(""))) {}

void ExtensionRestart::listen() {
  if (listening_.exchange(true)) return;
  if (const auto record = recordURL()) {
    static_cast<void>(
        files_.writeAtomically(*record, json::serialize(json::Object{{"build", thisBuild_}, {"pid", process_.pid()}})));
  }
  notifyCentre_.observe(note, [&process = process_] { process.exit(0); });
}

void ExtensionRestart::ask() {
  notifyCentre_.post(note);
}

std::int64_t ExtensionRestart::runningBuild() {
  const auto record = recordURL();
  if (!record) return 0;
  const auto bytes = files_.read(*record);
  if (!bytes) return 0;
  const auto object = json::parseObject(*bytes);
  return object ? json::integer(*object, "build").value_or(0) : 0;
}

bool ExtensionRestart::retireOlder() {
  const auto running = runningBuild();
  if (running < 1 || running >= thisBuild_) return false;
  ask();
  return true;
}

std::optional<std::string> ExtensionRestart::recordURL() {
  auto container = files_.applicationGroupContainer(APPLICATION_GROUP);
  if (!container) return std::nullopt;
  return *container + "/extension.json";
}

}  // namespace vondle
