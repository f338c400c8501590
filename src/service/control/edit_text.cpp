#include "service/control/edit_text.h"

#include <algorithm>

#include "service/control/control_text.h"

namespace vondle {

namespace {

constexpr std::string_view stateText(SendState state) {
  switch (state) {
    case SendState::settling:
      return "settling";
    case SendState::waitingForOthers:
      return "waiting";
    case SendState::staysHere:
      return "local";
    case SendState::ready:
      return "ready";
    case SendState::sending:
      return "sending";
    case SendState::waitingToRetry:
      return "retrying";
  }
  return "";
}

std::string_view placedText(const Edit& edit) {
  return edit.serverPlace && edit.serverPlace->folder == edit.place.folder ? "renamed" : "moved";
}

}  // namespace

std::string whatText(const Edit& edit) {
  if (edit.fields & EDIT_DELETED) return "deleted";
  if (edit.fields & EDIT_TRASHED) return "moved to the trash";
  if (edit.fields & EDIT_CREATED) return edit.isFolder ? "new folder" : "new file";
  std::string text = edit.fields & EDIT_CONTENTS ? "new contents" : "";
  if (edit.fields & EDIT_PLACED) {
    if (!text.empty()) text += ", ";
    text += placedText(edit);
  }
  return text;
}

std::string pathOf(const Edit& edit, const LocalEdits& edits, const Replica& replica) {
  if (const auto inode = edits.inodeOf(edit.id)) {
    if (const auto path = replica.pathOf(inode)) return *path;
  }
  const auto folder = replica.inodeOf(edit.place.folder);
  const auto path = folder ? replica.pathOf(*folder) : std::nullopt;
  if (!path) return edit.place.name;
  return (*path == "/" ? "" : *path) + "/" + edit.place.name;
}

json::Object editJSON(const EditSender::Report& report, const LocalEdits& edits, const Replica& replica) {
  const auto& edit = report.edit;
  json::Object object{{"id", edit.id},
                      {"path", controlText(pathOf(edit, edits, replica))},
                      {"what", whatText(edit)},
                      {"state", stateText(report.state)},
                      {"attempts", edit.attempts}};
  if (!edit.lastError.empty()) object["error"] = controlText(edit.lastError);
  if (report.until) object["next_try"] = report.until->secondsSince1970;
  if (report.waitsFor != 0) object["waits_for"] = report.waitsFor;
  if (report.progress) object["fraction"] = std::min(1.0, report.progress->fractionCompleted());
  return object;
}

}  // namespace vondle
