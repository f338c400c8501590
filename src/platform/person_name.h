#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vondle {

struct PersonNameComponents {
  std::optional<std::string> namePrefix;
  std::optional<std::string> givenName;
  std::optional<std::string> middleName;
  std::optional<std::string> familyName;
  std::optional<std::string> nameSuffix;
  std::optional<std::string> nickname;
  friend bool operator==(const PersonNameComponents&, const PersonNameComponents&) = default;
};

// Takes a written name apart: "Dr. Ann Marie Lee Jr." has prefix, given, middle and family name and suffix;
// "Lee, Ann" is family name first. One word is a given name. None when there is no letter in the text.
std::optional<PersonNameComponents> parsePersonName(std::string_view text);

}  // namespace vondle
