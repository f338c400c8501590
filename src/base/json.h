#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <boost/json.hpp>

#include "base/error.h"

// JSON as the system reads and writes it: strict about the syntax, lenient about the shape. The accessors below treat a
// missing key and a value of another type alike, as absent; a boolean is not a number. Values own their memory in one
// arena each, so take what is needed and let them go.
namespace vondle::json {

using Value = boost::json::value;
using Object = boost::json::object;
using Array = boost::json::array;

// Deeper nesting is refused.
inline constexpr std::size_t MAX_DEPTH = 256;

// Domain of errors from parse; the only code is 0.
inline constexpr std::string_view ERROR_DOMAIN = "VondleJSONError";

// Of twice the same key the last one counts. Numbers too large for an integer become floating point.
Result<Value> parse(std::string_view text);

// Like parse, and absent unless the top level is an object.
std::optional<Object> parseObject(std::string_view text);

const Value* find(const Object& object, std::string_view key);
std::optional<std::string_view> text(const Object& object, std::string_view key);
std::optional<bool> boolean(const Object& object, std::string_view key);
// Fractions are cut toward zero; a number that does not fit counts as absent.
std::optional<std::int64_t> integer(const Object& object, std::string_view key);
std::optional<std::int64_t> integer(const Value& value);
std::optional<double> number(const Object& object, std::string_view key);
const Object* object(const Object& object, std::string_view key);
const Array* list(const Object& object, std::string_view key);
// A list whose members are all objects; null when there is none or one member is something else.
const Array* listOfObjects(const Object& object, std::string_view key);

// Compact, in insertion order. A number too large for floating point, which parse takes for infinite, is written as the
// largest there is: what was written can always be read.
std::string serialize(const Value& value);
// Indented by two blanks, keys in byte order, ends with a line break.
std::string serializePretty(const Value& value);

}  // namespace vondle::json
