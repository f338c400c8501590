#include "base/json.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace vondle::json {
namespace {

// What the parser makes of a zero with an exponent too large for it ("0e400") is no number.
double withoutNaN(double number) {
  return std::isnan(number) ? 0 : number;
}

bool isBeyondJSON(const Value& value) {
  if (const auto* object = value.if_object())
    return std::ranges::any_of(*object, [](const auto& member) { return isBeyondJSON(member.value()); });
  if (const auto* array = value.if_array()) return std::ranges::any_of(*array, isBeyondJSON);
  return value.is_double() && !std::isfinite(value.get_double());
}

void limitNumbers(Value& value) {
  if (auto* object = value.if_object()) {
    for (auto& member : *object) limitNumbers(member.value());
  } else if (auto* array = value.if_array()) {
    for (auto& member : *array) limitNumbers(member);
  } else if (auto* number = value.if_double()) {
    constexpr double LARGEST = std::numeric_limits<double>::max();
    *number = std::clamp(withoutNaN(*number), -LARGEST, LARGEST);
  }
}

void printPretty(const Value& value, std::size_t depth, std::string& out) {
  const std::string inner((depth + 1) * 2, ' ');
  const std::string outer(depth * 2, ' ');
  if (const auto* object = value.if_object(); object && !object->empty()) {
    std::vector<const Object::value_type*> members;
    for (const auto& member : *object) members.push_back(&member);
    std::ranges::sort(members, {}, [](const auto* member) { return std::string_view(member->key()); });
    out += "{\n";
    for (const auto* member : members) {
      out += inner + boost::json::serialize(boost::json::string_view(member->key())) + ": ";
      printPretty(member->value(), depth + 1, out);
      out += member == members.back() ? "\n" : ",\n";
    }
    out += outer + "}";
  } else if (const auto* array = value.if_array(); array && !array->empty()) {
    out += "[\n";
    for (const auto& member : *array) {
      out += inner;
      printPretty(member, depth + 1, out);
      out += &member == &array->back() ? "\n" : ",\n";
    }
    out += outer + "]";
  } else {
    out += json::serialize(value);
  }
}

}  // namespace

Result<Value> parse(std::string_view text) {
  boost::json::parse_options options;
  options.max_depth = MAX_DEPTH;
  boost::json::error_code error;
  Value value =
      boost::json::parse(text, error, boost::json::make_shared_resource<boost::json::monotonic_resource>(), options);
  if (error) return failure({ERROR_DOMAIN, 0, "not JSON: " + error.message()});
  return value;
}

std::optional<Object> parseObject(std::string_view text) {
  auto value = parse(text);
  if (!value || !value->is_object()) return std::nullopt;
  return std::move(value->as_object());
}

const Value* find(const Object& object, std::string_view key) {
  return object.if_contains(key);
}

std::optional<std::string_view> text(const Object& object, std::string_view key) {
  const Value* value = find(object, key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string_view(value->get_string());
}

std::optional<bool> boolean(const Object& object, std::string_view key) {
  const Value* value = find(object, key);
  if (!value || !value->is_bool()) return std::nullopt;
  return value->get_bool();
}

std::optional<std::int64_t> integer(const Value& value) {
  if (const auto* whole = value.if_int64()) return *whole;
  if (const auto* real = value.if_double()) {
    const double cut = std::trunc(withoutNaN(*real));
    if (cut >= -0x1p63 && cut < 0x1p63) return static_cast<std::int64_t>(cut);
  }
  return std::nullopt;
}

std::optional<std::int64_t> integer(const Object& object, std::string_view key) {
  const Value* value = find(object, key);
  return value ? integer(*value) : std::nullopt;
}

std::optional<double> number(const Object& object, std::string_view key) {
  const Value* value = find(object, key);
  if (!value || !value->is_number()) return std::nullopt;
  return withoutNaN(value->to_number<double>());
}

const Object* object(const Object& object, std::string_view key) {
  const Value* value = find(object, key);
  return value ? value->if_object() : nullptr;
}

const Array* list(const Object& object, std::string_view key) {
  const Value* value = find(object, key);
  return value ? value->if_array() : nullptr;
}

const Array* listOfObjects(const Object& object, std::string_view key) {
  const Array* array = list(object, key);
  return array && std::ranges::all_of(*array, [](const Value& v) { return v.is_object(); }) ? array : nullptr;
}

std::string serialize(const Value& value) {
  if (!isBeyondJSON(value)) return boost::json::serialize(value);
  Value limited = value;
  limitNumbers(limited);
  return boost::json::serialize(limited);
}

std::string serializePretty(const Value& value) {
  std::string out;
  printPretty(value, 0, out);
  out += '\n';
  return out;
}

}  // namespace vondle::json
