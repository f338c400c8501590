#include "service/item_text.h"

namespace vondle {

std::string_view stateText(ContentState state) {
  switch (state) {
    case ContentState::absent:
      return "on the server only";
    case ContentState::fetching:
      return "being fetched";
    case ContentState::clean:
      return "here";
    case ContentState::edited:
      return "edited here";
    case ContentState::uploading:
      return "being sent";
  }
  return "";
}

std::string_view policyText(Inode inode, std::optional<Inode> keptBy, ContentPolicy policy) {
  if (keptBy && *keptBy != inode) return "kept downloaded with its folder";
  switch (policy) {
    case ContentPolicy::inherited:
      return "as its folder";
    case ContentPolicy::downloadLazily:
      return "downloaded when read";
    case ContentPolicy::downloadEagerlyAndKeepDownloaded:
      return "kept downloaded";
  }
  return "";
}

std::string_view sharingText(bool isByMe) {
  return isByMe ? "by you" : "with you";
}

std::string ownerText(const PersonNameComponents& owner) {
  std::string text;
  for (const auto* part :
       {&owner.namePrefix, &owner.givenName, &owner.middleName, &owner.familyName, &owner.nameSuffix}) {
    if (!*part) continue;
    if (!text.empty()) text += ' ';
    text += **part;
  }
  return text.empty() ? owner.nickname.value_or("") : text;
}

}  // namespace vondle
