#include <fstream>

#include "base/utf8.h"
#include "config/extension_restart.h"
#include "fuzzing.h"
#include "platform/bundle.h"
#include "platform/url.h"
#include "service/follow/anchor_file.h"
#include "service/service_settings.h"
#include "testing/items_rig.h"
#include "testing/simulated_notify_centre.h"
#include "testing/simulated_process_control.h"
#include "transfer/limits.h"
#include "upload/multipart_resume.h"

// The files that the system reads and that others may have written, damaged or forged: the first byte chooses the file,
// the rest is what stands in it.
namespace vondle {
namespace {

void fuzzConfig(ItemsRig& rig, const std::string& bytes) {
  rig.files.put(rig.configPath, bytes, 0644);
  const auto before = json::parseObject(bytes);
  const ServerDirectory directory{"https://now.example", {"old.example"}};
  ConfigLoader loader(rig.files, rig.keychain, Paths(rig.users), directory);
  const auto config = loader.load();
  REQUIRE(config == loader.load());

  const auto text = *rig.files.contents(rig.configPath);
  const auto after = json::parseObject(text);
  REQUIRE(before.has_value() == after.has_value());
  if (text != bytes) {
    REQUIRE(config && config->server == directory.defaultServer);
    REQUIRE(before->size() == after->size() && json::text(*after, "server") == directory.defaultServer);
    for (const auto& member : *before)
      REQUIRE(member.key() == "server" || member.value() == *json::find(*after, member.key()) ||
              member.value().is_structured() || member.value().is_number());
    REQUIRE(rig.files.attributes(rig.configPath)->permissions == 0600);
  }
  if (!config) return;
  REQUIRE(before && !config->apiKey.empty() && !config->server.ends_with('/'));
  REQUIRE(!isUnprotected(config->server) || json::boolean(*before, "allow_http") == true);
  REQUIRE(hostOf(config->server) != "old.example");
}

void fuzzBandwidth(ItemsRig& rig, const std::string& bytes) {
  const auto object = json::parseObject(bytes);
  if (object)
    for (const auto* key : {"max_download_kbps", "max_upload_kbps"})
      if (json::number(*object, key).value_or(0) > 9e18) return;  // ends the process on purpose
  rig.files.put(rig.configPath, bytes);
  Limits limits(rig.scheduler, rig.files, rig.configPath);
  limits.refresh();
  REQUIRE(limits.maxConcurrent() > 0);
  if (object) {
    const auto upload = json::number(*object, "max_upload_kbps");
    REQUIRE(limits.uploadUnlimited() == (upload.value_or(0) == 0));
  } else {
    REQUIRE(!limits.paused() && limits.uploadUnlimited());
  }
}

void fuzzCursor(ItemsRig& rig, const std::string& bytes) {
  rig.files.put(*rig.cursor.fileURL(), bytes);
  const auto cursor = rig.cursor.load();
  REQUIRE(cursor == 0 || json::parseObject(bytes));
  rig.cursor.save(cursor);
  REQUIRE(rig.cursor.load() == cursor);
}

void fuzzPins(ItemsRig& rig, const std::string& bytes) {
  rig.files.put(rig.pins.fileURL(), bytes);
  rig.pins.set("one more", true);
  Pins again(rig.files, rig.scheduler, Paths(rig.users));
  REQUIRE(again.contains("one more"));
  const auto value = json::parse(bytes);
  if (!value || !value->is_array()) return;
  bool areTexts = true;
  for (const auto& member : value->get_array()) areTexts = areTexts && member.is_string();
  for (const auto& member : value->get_array())
    if (member.is_string()) REQUIRE(!areTexts || again.contains(std::string(member.get_string())));
}

void fuzzMailboxes(ItemsRig& rig, const std::string& bytes) {
  rig.leaveDirty(bytes);
  const auto dirty = rig.pins.takeDirty();
  REQUIRE(dirty.empty() || !rig.files.exists(rig.pins.dirtyURL()));
  REQUIRE(rig.pins.takeDirty().empty() || rig.files.exists(rig.pins.dirtyURL()));
  rig.leavePending(bytes);
  const auto pending = rig.pins.takePending();
  REQUIRE(pending.empty() || !rig.files.exists(rig.pins.pendingURL()));
  for (const auto& id : dirty) REQUIRE(isUTF8(id));
}

void fuzzExtensionRecord(ItemsRig& rig, const std::string& bytes) {
  SimulatedNotifyCentre centre;
  SimulatedProcessControl process;
  const BundleInformation bundle = bundleInformation();
  ExtensionRestart restart(rig.files, centre, process, bundle);
  rig.files.put(*restart.recordURL(), bytes);
  const auto build = restart.runningBuild();
  REQUIRE(build == 0 || json::parseObject(bytes));
  REQUIRE(restart.retireOlder() == !centre.posted().empty());
  restart.listen();
  REQUIRE(restart.runningBuild() == restart.thisBuild());
}

void fuzzAnchor(ItemsRig& rig, const std::string& bytes) {
  rig.files.put("/tmp/anchor", bytes);
  if (const auto anchor = loadAnchor(rig.files, "/tmp/anchor")) {
    REQUIRE(saveAnchor(rig.files, "/tmp/anchor", *anchor));
    REQUIRE(loadAnchor(rig.files, "/tmp/anchor") == anchor);
  }
  const FollowedAnchor any{bytes, bytes.size() % 2 == 0};
  REQUIRE(saveAnchor(rig.files, "/tmp/anchor", any));
  REQUIRE(loadAnchor(rig.files, "/tmp/anchor") == any);
}

void fuzzServiceSettings(const std::string& bytes) {
  static const MemoryFolder folder;
  const auto path = folder.path() + "/service.json";
  std::ofstream(path, std::ios::binary) << bytes;
  const auto settings = ServiceSettings::load(path, "/home/tester");
  if (settings) {
    REQUIRE(json::parseObject(bytes));
    REQUIRE(!settings->mount || settings->mount->starts_with('/'));
    REQUIRE(!settings->name.empty());
  } else {
    REQUIRE(settings.error().description.contains(path));
  }
}

void fuzzMultipartResume(ItemsRig& rig, const std::string& bytes) {
  MultipartResume resume(rig.files, rig.scheduler);
  rig.files.put(*resume.fileURL(), bytes);
  const auto object = json::parseObject(bytes);
  std::map<std::string, MultipartResume::Saved> before;
  for (const auto& [id, value] : object.value_or(json::Object()))
    if (const auto saved = resume.load(id)) before.emplace(id, *saved);
  resume.begin("one more", "key", "upload", 1, 1);
  REQUIRE(resume.load("one more"));
  for (const auto& [id, saved] : before) REQUIRE(id == "one more" || resume.load(id)->etags == saved.etags);
}

}  // namespace

void fuzz(std::string_view input) {
  if (input.empty()) return;
  const std::string bytes(input.substr(1));
  ItemsRig rig;
  switch (input[0] % 9) {
    case 0:
      return fuzzConfig(rig, bytes);
    case 1:
      return fuzzBandwidth(rig, bytes);
    case 2:
      return fuzzCursor(rig, bytes);
    case 3:
      return fuzzPins(rig, bytes);
    case 4:
      return fuzzMailboxes(rig, bytes);
    case 5:
      return fuzzExtensionRecord(rig, bytes);
    case 6:
      return fuzzAnchor(rig, bytes);
    case 7:
      return fuzzServiceSettings(bytes);
    default:
      return fuzzMultipartResume(rig, bytes);
  }
}

}  // namespace vondle
