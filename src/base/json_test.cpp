#include "base/json.h"

#include <string>

#include <gtest/gtest.h>

namespace vondle {
namespace {

json::Object objectOf(std::string_view text) {
  return json::parseObject(text).value();
}

TEST(JsonTest, AKeyOfAnotherTypeCountsAsAbsent) {
  const auto object = objectOf(R"({"t":"x","b":true,"n":7,"o":{},"l":[],"null":null})");
  EXPECT_EQ(json::text(object, "t"), "x");
  EXPECT_EQ(json::boolean(object, "b"), true);
  EXPECT_EQ(json::integer(object, "n"), 7);
  EXPECT_TRUE(json::object(object, "o"));
  EXPECT_TRUE(json::list(object, "l"));
  for (const char* key : {"b", "n", "o", "l", "null", "missing"}) EXPECT_FALSE(json::text(object, key)) << key;
  for (const char* key : {"t", "n", "o", "null"}) EXPECT_FALSE(json::boolean(object, key)) << key;
  for (const char* key : {"t", "b", "o", "null"}) EXPECT_FALSE(json::integer(object, key)) << key;
  for (const char* key : {"t", "b", "l"}) EXPECT_FALSE(json::object(object, key)) << key;
  for (const char* key : {"t", "b", "o"}) EXPECT_FALSE(json::list(object, key)) << key;
}

TEST(JsonTest, IntegersAreCutTowardZeroAndAbsentWhenTheyDoNotFit) {
  const auto object =
      objectOf(R"({"a":1.9,"b":-1.9,"c":1e30,"d":9223372036854775807,"e":18446744073709551615,"f":1e400})");
  EXPECT_EQ(json::integer(object, "a"), 1);
  EXPECT_EQ(json::integer(object, "b"), -1);
  EXPECT_FALSE(json::integer(object, "c"));
  EXPECT_EQ(json::integer(object, "d"), 9223372036854775807);
  EXPECT_FALSE(json::integer(object, "e"));
  EXPECT_FALSE(json::integer(object, "f"));
}

TEST(JsonTest, TheLastOfEqualKeysCounts) {
  EXPECT_EQ(json::integer(objectOf(R"({"a":1,"a":2})"), "a"), 2);
}

TEST(JsonTest, RefusesWhatIsNotJsonAndWhatIsTooDeep) {
  for (const char* bad : {"", "{", "[1,]", "{\"a\":1} x", "nul", "{\"a\":\"\xff\"}"})
    EXPECT_FALSE(json::parse(bad)) << bad;
  EXPECT_TRUE(json::parse(std::string(200, '[') + std::string(200, ']')));
  EXPECT_FALSE(json::parse(std::string(100000, '[') + std::string(100000, ']')));
}

TEST(JsonTest, AnObjectIsOnlyWhatHasAnObjectAtTheTop) {
  EXPECT_FALSE(json::parseObject("[]"));
  EXPECT_FALSE(json::parseObject("7"));
  EXPECT_TRUE(json::parseObject("{}"));
}

TEST(JsonTest, AListOfObjectsHoldsNothingElse) {
  const auto object = objectOf(R"({"good":[{},{}],"empty":[],"mixed":[{},1],"text":"x"})");
  EXPECT_TRUE(json::listOfObjects(object, "good"));
  EXPECT_TRUE(json::listOfObjects(object, "empty"));
  EXPECT_FALSE(json::listOfObjects(object, "mixed"));
  EXPECT_FALSE(json::listOfObjects(object, "text"));
}

TEST(JsonTest, ZeroIsZeroWhateverItsExponent) {
  const auto object = objectOf(R"({"a":0e400})");
  EXPECT_EQ(json::number(object, "a"), 0);
  EXPECT_EQ(json::integer(object, "a"), 0);
  EXPECT_EQ(json::number(*json::parseObject(json::serialize(object)), "a"), 0);
}

TEST(JsonTest, WhatWasReadCanBeWrittenAndReadAgain) {
  for (const auto* text : {R"({"a":1e309,"b":[-1e400],"c":"x"})", R"({"a":18446744073709551616,"b":[1e308,-0.0]})"}) {
    for (const auto& written : {json::serialize(objectOf(text)), json::serializePretty(objectOf(text))}) {
      const auto again = json::parseObject(written);
      ASSERT_TRUE(again) << written;
      EXPECT_GT(json::number(*again, "a"), 1e19) << written;
      EXPECT_TRUE(json::list(*again, "b")) << written;
    }
  }
}

TEST(JsonTest, ThePrettyFormIsSortedAndIndented) {
  EXPECT_EQ(json::serializePretty(objectOf(R"({"b":[1,{"z":1,"y":"\n"}],"a":{},"c":[]})")),
            "{\n  \"a\": {},\n  \"b\": [\n    1,\n    {\n      \"y\": \"\\n\",\n      \"z\": 1\n    }\n  ],\n  \"c\": "
            "[]\n}\n");
}

}  // namespace
}  // namespace vondle
