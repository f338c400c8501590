#include <algorithm>

#include "base/utf8.h"
#include "fuzzing.h"
#include "platform/person_name.h"

namespace vondle {

void fuzz(std::string_view bytes) {
  const auto name = parsePersonName(bytes);
  REQUIRE(name == parsePersonName(bytes));
  if (!name) return;
  REQUIRE(name->namePrefix || name->givenName || name->middleName || name->familyName || name->nameSuffix ||
          name->nickname);
  std::size_t length = 0;
  for (const auto& part :
       {name->namePrefix, name->givenName, name->middleName, name->familyName, name->nameSuffix, name->nickname}) {
    if (!part) continue;
    REQUIRE(!part->empty());
    REQUIRE(!part->starts_with(' ') && !part->ends_with(' '));
    REQUIRE(!isUTF8(bytes) || isUTF8(*part));
    length += part->size() - static_cast<std::size_t>(std::ranges::count(*part, ' '));
  }
  // Nothing is made up, and no word counts twice.
  REQUIRE(length <= bytes.size());
}

}  // namespace vondle
