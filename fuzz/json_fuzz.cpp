#include <algorithm>
#include <cmath>

#include "base/json.h"
#include "base/utf8.h"
#include "fuzzing.h"

namespace vondle {
namespace {

std::size_t depthOf(const json::Value& value) {
  std::size_t deepest = 0;
  if (const auto* object = value.if_object())
    for (const auto& member : *object) deepest = std::max(deepest, 1 + depthOf(member.value()));
  if (const auto* array = value.if_array())
    for (const auto& member : *array) deepest = std::max(deepest, 1 + depthOf(member));
  return deepest;
}

// Numbers aside, what was read is what was written.
void requireSame(const json::Value& a, const json::Value& b) {
  if (a.is_number()) {
    REQUIRE(b.is_number());
    const double read = a.to_number<double>();
    const double before = std::isnan(read) ? 0 : read;
    const double after = b.to_number<double>();
    if (std::isinf(before))
      REQUIRE(std::abs(after) > 1e308 && std::signbit(after) == std::signbit(before));
    else
      REQUIRE(before == after || std::abs(after - before) <= std::abs(before) * 1e-15);  // a long number, rounded
  } else if (const auto* object = a.if_object()) {
    REQUIRE(b.is_object() && object->size() == b.get_object().size());
    for (const auto& member : *object) {
      const auto* other = json::find(b.get_object(), member.key());
      REQUIRE(other);
      requireSame(member.value(), *other);
    }
  } else if (const auto* array = a.if_array()) {
    REQUIRE(b.is_array() && array->size() == b.get_array().size());
    for (std::size_t i = 0; i < array->size(); ++i) requireSame((*array)[i], b.get_array()[i]);
  } else {
    REQUIRE(a == b);
  }
}

// Each accessor answers for its own type only.
void requireStrictAccess(const json::Object& object) {
  for (const auto& member : object) {
    const std::string_view key = member.key();
    const auto& value = member.value();
    REQUIRE(json::text(object, key).has_value() == value.is_string());
    if (const auto text = json::text(object, key)) REQUIRE(isUTF8(*text));
    REQUIRE(json::boolean(object, key).has_value() == value.is_bool());
    REQUIRE(json::number(object, key).has_value() == value.is_number());
    REQUIRE(!std::isnan(json::number(object, key).value_or(0)));
    REQUIRE(!json::integer(object, key) || value.is_number());
    REQUIRE(!value.is_int64() || json::integer(object, key) == value.get_int64());
    REQUIRE((json::object(object, key) != nullptr) == value.is_object());
    REQUIRE((json::list(object, key) != nullptr) == value.is_array());
    if (const auto* list = json::listOfObjects(object, key))
      REQUIRE(std::ranges::all_of(*list, [](const auto& each) { return each.is_object(); }));
  }
}

}  // namespace

void fuzz(std::string_view bytes) {
  const auto value = json::parse(bytes);
  const auto object = json::parseObject(bytes);
  REQUIRE(object.has_value() == (value && value->is_object()));
  if (!value) {
    REQUIRE(value.error().is(json::ERROR_DOMAIN, 0));
    return;
  }
  REQUIRE(depthOf(*value) <= json::MAX_DEPTH);
  for (const auto& written : {json::serialize(*value), json::serializePretty(*value)}) {
    const auto again = json::parse(written);
    REQUIRE(again.has_value());
    requireSame(*value, *again);
  }
  if (object) requireStrictAccess(*object);
}

}  // namespace vondle
