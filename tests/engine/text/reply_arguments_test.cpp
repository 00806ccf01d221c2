// SPDX-License-Identifier: Apache-2.0
#include "engine/text/reply_arguments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/text/parsed_json.h"

namespace zem::text {
namespace {

using test::parsed;

ArgumentKind kindOf(const std::string& schema, const std::string& definitions = "{}") {
  const Json tool = parsed(R"({"name": "f", "parameters": {"$defs": )" + definitions +
                           R"(, "properties": {"a": )" + schema + "}}}");
  return ArgumentKinds(std::vector<Json>{tool}).kindOf("f", "a");
}

TEST(ReplyArguments, SchemasThatAllowStringsAloneAreText) {
  EXPECT_EQ(kindOf(R"({"type": "string"})"), ArgumentKind::Text);
  EXPECT_EQ(kindOf(R"({"type": ["string"]})"), ArgumentKind::Text);
  EXPECT_EQ(kindOf(R"({"enum": ["1", "2"]})"), ArgumentKind::Text);
  EXPECT_EQ(kindOf(R"({"const": "1"})"), ArgumentKind::Text);
  EXPECT_EQ(kindOf(R"({"anyOf": [{"type": "string"}, {"enum": ["x"]}]})"), ArgumentKind::Text);
  EXPECT_EQ(kindOf(R"({"allOf": [{"$ref": "#/$defs/x~1y"}]})", R"({"x/y": {"type": "string"}})"),
            ArgumentKind::Text);
}

TEST(ReplyArguments, StringsThatMayBeNull) {
  EXPECT_EQ(kindOf(R"({"type": ["null", "string"]})"), ArgumentKind::TextOrNull);
  EXPECT_EQ(kindOf(R"({"anyOf": [{"type": "string"}, {"type": "null"}]})"),
            ArgumentKind::TextOrNull);
  EXPECT_EQ(kindOf(R"({"enum": ["x", null]})"), ArgumentKind::TextOrNull);
}

TEST(ReplyArguments, AllElseIsJson) {
  for (const char* schema :
       {R"({"type": "integer"})", R"({"type": ["string", "integer"]})", R"({"type": "null"})", "{}",
        "true", "1", R"({"enum": [1, "x"]})", R"({"$ref": "#/$defs/none"})", R"({"$ref": "x"})",
        R"({"$ref": 1})", R"({"type": 1})", R"({"anyOf": []})", R"({"anyOf": {}})"}) {
    EXPECT_EQ(kindOf(schema), ArgumentKind::Typed) << schema;
  }
}

TEST(ReplyArguments, SchemasThatReferToThemselvesEnd) {
  EXPECT_EQ(kindOf(R"({"$ref": "#/$defs/a"})", R"({"a": {"$ref": "#/$defs/a"}})"),
            ArgumentKind::Typed);
  EXPECT_EQ(kindOf(R"({"$ref": "#/$defs/a"})",
                   R"({"a": {"anyOf": [{"$ref": "#/$defs/a"}, {"$ref": "#/$defs/a"}]}})"),
            ArgumentKind::Typed);
}

TEST(ReplyArguments, OddToolsArePassedOver) {
  const std::vector<Json> tools = {
      parsed("1"),
      parsed("{}"),
      parsed(R"({"function": {"name": 1}})"),
      parsed(R"({"function": {"name": "f", "parameters": {"properties": []}}})"),
      parsed(
          R"({"function": {"name": "f", "parameters": {"properties": {"a": {"type": "string"}}}}})"),
      parsed(R"({"name": "g", "parameters": 1})")};
  const ArgumentKinds kinds(tools);
  EXPECT_EQ(kinds.kindOf("f", "a"), ArgumentKind::Typed);  // the first f counts
  EXPECT_EQ(kinds.kindOf("g", "a"), ArgumentKind::Typed);
  EXPECT_EQ(kinds.kindOf("h", "a"), ArgumentKind::Typed);
}

TEST(ReplyArguments, JsonStaysAsItIsSpelt) {
  for (const char* text : {"1", "-1.50", "1e5", "[1,  2]", "{\"b\":1,\"a\":{}}", "\"x\"", "true",
                           "null", "123456789012345678901234567890"}) {
    EXPECT_EQ(argumentJson(text, ArgumentKind::Typed), text);
  }
  EXPECT_EQ(argumentJson(" \n[1]\t", ArgumentKind::Typed), "[1]");
}

TEST(ReplyArguments, PythonWordsOutsideStringsAreJson) {
  EXPECT_EQ(argumentJson("True", ArgumentKind::Typed), "true");
  EXPECT_EQ(argumentJson("[None,False]", ArgumentKind::Typed), "[null,false]");
  EXPECT_EQ(argumentJson(R"({"True": "None\" True"})", ArgumentKind::Typed),
            R"({"True": "None\" True"})");
}

TEST(ReplyArguments, WhatIsNotJsonIsText) {
  EXPECT_EQ(argumentJson("", ArgumentKind::Typed), "\"\"");
  EXPECT_EQ(argumentJson(" x ", ArgumentKind::Typed), "\" x \"");
  EXPECT_EQ(argumentJson("05", ArgumentKind::Typed), "\"05\"");
  EXPECT_EQ(argumentJson("NaN", ArgumentKind::Typed), "\"NaN\"");
  EXPECT_EQ(argumentJson("{'a': 1}", ArgumentKind::Typed), "\"{'a': 1}\"");
  EXPECT_EQ(argumentJson("\"\\", ArgumentKind::Typed), "\"\\\"\\\\\"");
  EXPECT_EQ(argumentJson("1", ArgumentKind::Text), "\"1\"");
}

TEST(ReplyArguments, WhatIsNestedTooDeepIsText) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(argumentJson(nested(128), ArgumentKind::Typed), nested(128));
  EXPECT_EQ(argumentJson(nested(129), ArgumentKind::Typed), "\"" + nested(129) + "\"");
}

}  // namespace
}  // namespace zem::text
