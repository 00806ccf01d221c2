// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "engine/text/constraint.h"
#include "engine/text/constraint_replies.h"
#include "engine/text/parsed_json.h"
#include "engine/text/reply_parser.h"
#include "engine/text/schema_validator.h"

namespace zem::text {
namespace {

using test::ConstraintPtr;
using test::parsed;
using test::takes;

std::vector<Json> someTools() {
  return {parsed(R"({"type": "function", "function": {"name": "weather", "parameters": {
              "type": "object", "$defs": {"unit": {"enum": ["C", "CF", ""]}},
              "properties": {"city": {"type": "string", "minLength": 1}, "unit": {"$ref": "#/$defs/unit"},
                "days": {"type": "integer", "minimum": 1, "maximum": 14},
                "who": {"type": ["string", "null"], "pattern": "^[a-z]+$"},
                "more": {"type": "array", "items": {"type": "string"}}},
              "required": ["city"]}}})"),
          parsed(R"({"name": "now"})"), parsed(R"({"name": "weathers", "parameters": {}})")};
}

ConstraintPtr compiledCalls(const std::vector<Json>& tools, std::string_view name = "",
                            bool several = false) {
  ConstraintPtr constraint;
  const kiv::Status status = Constraint::compileToolCalls(tools, name, several, {}, constraint);
  EXPECT_TRUE(status.ok()) << status.message();
  return constraint;
}

std::string errorOfCalls(const std::vector<Json>& tools, std::string_view name = "") {
  ConstraintPtr constraint;
  return Constraint::compileToolCalls(tools, name, false, {}, constraint).message();
}

std::string errorOfCalls(std::string_view tool) {
  return errorOfCalls(std::vector<Json>{parsed(tool)});
}

std::string callOf(const std::string& name, const std::string& arguments) {
  return "<tool_call>\n<function=" + name + ">\n" + arguments + "</function>\n</tool_call>";
}

std::string argument(const std::string& name, const std::string& value) {
  return "<parameter=" + name + ">\n" + value + "\n</parameter>\n";
}

TEST(ConstraintToolCalls, CallsOfTheTools) {
  const ConstraintPtr constraint = compiledCalls(someTools());
  const std::string city = argument("city", "Bonn");
  EXPECT_TRUE(takes(constraint, callOf("now", "")));
  EXPECT_TRUE(takes(constraint, "\n\n" + callOf("weathers", "") + "\n"));
  EXPECT_TRUE(takes(constraint, callOf("weather", city)));
  EXPECT_TRUE(takes(constraint, callOf("weather", argument("days", "14") + city)));
  EXPECT_TRUE(takes(constraint, callOf("weather", city + argument("more", "[\"a\", \"b\"]"))));
  EXPECT_FALSE(takes(constraint, callOf("weather", "")));
  EXPECT_FALSE(takes(constraint, callOf("weather", city + city)));
  EXPECT_FALSE(takes(constraint, callOf("weather", city + argument("days", "15"))));
  EXPECT_FALSE(takes(constraint, callOf("weather", city + argument("x", "1"))));
  EXPECT_FALSE(takes(constraint, callOf("now", city)));
  EXPECT_FALSE(takes(constraint, callOf("then", "")));
  EXPECT_FALSE(takes(constraint, "Let me see. " + callOf("now", "")));
  EXPECT_FALSE(takes(constraint, callOf("now", "") + "\n" + callOf("now", "")));
}

TEST(ConstraintToolCalls, OneNamedFunctionAndSeveralCalls) {
  const ConstraintPtr now = compiledCalls(someTools(), "now");
  EXPECT_TRUE(takes(now, callOf("now", "")));
  EXPECT_FALSE(takes(now, callOf("weathers", "")));
  const ConstraintPtr several = compiledCalls(someTools(), "", true);
  EXPECT_TRUE(takes(several, callOf("now", "")));
  EXPECT_TRUE(
      takes(several, callOf("now", "") + "\n" + callOf("weathers", "") + "\n" + callOf("now", "")));
  EXPECT_FALSE(takes(several, callOf("now", "") + callOf("now", "")));
}

TEST(ConstraintToolCalls, TextIsRaw) {
  const ConstraintPtr constraint = compiledCalls(someTools());
  const auto city = [&](const std::string& text) {
    return takes(constraint, callOf("weather", argument("city", text)));
  };
  EXPECT_TRUE(city("a\n\n\"b\" \\ </parameter <parameter=x>\n</function>ä😊"));
  EXPECT_TRUE(city("\n"));
  EXPECT_FALSE(city(""));  // at least one character
  EXPECT_FALSE(city("a</tool_call>"));
  EXPECT_FALSE(city("\xFF"));
  EXPECT_FALSE(city(std::string("a\0b", 3)));
}

TEST(ConstraintToolCalls, ValuesOfTextAndPatternsAreRawToo) {
  const ConstraintPtr constraint = compiledCalls(someTools());
  const auto with = [&](const std::string& name, const std::string& text) {
    return takes(constraint, callOf("weather", argument("city", "x") + argument(name, text)));
  };
  EXPECT_TRUE(with("unit", "C"));
  EXPECT_TRUE(with("unit", "CF"));
  EXPECT_TRUE(with("unit", ""));
  EXPECT_FALSE(with("unit", "\"C\""));
  EXPECT_FALSE(with("unit", "F"));
  EXPECT_TRUE(with("who", "me"));
  EXPECT_TRUE(with("who", "null"));
  EXPECT_FALSE(with("who", "Me"));
}

// What is produced is read back as whole calls with arguments that satisfy the schema.
TEST(ConstraintToolCalls, RandomCallsAreReadBack) {
  const std::vector<Json> tools = someTools();
  const ConstraintPtr constraint = compiledCalls(tools, "weather", true);
  const Json schema = tools[0]["function"]["parameters"];
  const SchemaValidator validator(schema);
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    ConstraintState state = Constraint::begin(constraint);
    std::string reply;
    while (!state.complete()) {
      ASSERT_LT(reply.size(), 20000U);
      std::vector<uint8_t> bytes;
      for (unsigned byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        if (state.accepts(std::string_view(&c, 1))) bytes.push_back(static_cast<uint8_t>(byte));
      }
      ASSERT_FALSE(bytes.empty()) << reply;
      std::string next(1, static_cast<char>(bytes[random() % bytes.size()]));
      for (const char* text : {"]", "\"", "\n</parameter>\n", "</function>"}) {
        if (random() % 4 == 0 && state.accepts(text)) next = text;
      }
      ASSERT_TRUE(state.advance(next));
      reply += next;
    }
    std::vector<ReplyEvent> events;
    ReplyParser parser({}, ArgumentKinds(tools));
    parser.feed(reply, events);
    parser.finish(events);
    ASSERT_EQ(events.size(), 3U) << reply;
    EXPECT_EQ(events[0].text, "weather");
    EXPECT_TRUE(events[2].complete) << reply;
    EXPECT_TRUE(validator.allows(parsed(events[1].text))) << reply << events[1].text;
  }
}

TEST(ConstraintToolCalls, ErrorsSayWhere) {
  EXPECT_EQ(errorOfCalls(std::vector<Json>{}), "tools: expected at least one");
  EXPECT_EQ(errorOfCalls(someTools(), "then"), "tools: there is no function \"then\"");
  EXPECT_EQ(errorOfCalls("{}"), "tools[0].name: expected text");
  EXPECT_EQ(errorOfCalls(R"({"function": {"name": 1}})"), "tools[0].function.name: expected text");
  const std::string names = "a name has at most 128 bytes, and none of < > and newline";
  EXPECT_EQ(errorOfCalls(R"({"name": ""})"), "tools[0].name: " + names);
  EXPECT_EQ(errorOfCalls(R"({"name": "a>b"})"), "tools[0].name: " + names);
  EXPECT_EQ(errorOfCalls(R"({"name": "f", "parameters": {"properties": {"a\n": {}}}})"),
            "tools[0].parameters/properties: " + names);
  EXPECT_EQ(errorOfCalls(R"({"name": "f", "parameters": []})"),
            "tools[0].parameters: expected an object");
  EXPECT_EQ(errorOfCalls(R"({"name": "f", "parameters": {"properties": 1}})"),
            "tools[0].parameters/properties: expected an object");
  EXPECT_EQ(errorOfCalls(R"({"name": "f", "parameters": {"required": ["a"]}})"),
            "tools[0].parameters/required: \"a\" is not one of the properties");
  EXPECT_EQ(errorOfCalls(R"({"name": "f", "parameters": {"required": "a"}})"),
            "tools[0].parameters/required: expected a list of names");
  EXPECT_EQ(
      errorOfCalls(
          R"({"name": "f", "parameters": {"properties": {"a": {"type": "string", "not": {}}}}})"),
      "tools[0].parameters: not supported: \"not\" at /properties/a");
  EXPECT_EQ(
      errorOfCalls(R"({"name": "f", "parameters": {"properties": {"a": {"multipleOf": 2}}}})"),
      "tools[0].parameters: not supported: \"multipleOf\" at /properties/a");
  EXPECT_EQ(errorOfCalls(
                R"({"name": "f", "parameters": {"properties": {"a": {"const": "</parameter>"}}}})"),
            "tools[0].parameters/properties/a: a value holds what ends a tool call's argument");
  EXPECT_EQ(errorOfCalls(
                R"({"name": "f", "parameters": {"properties": {"a": false}, "required": ["a"]}})"),
            "tools: nothing satisfies it within 64 levels of arrays and objects");
}

TEST(ConstraintToolCalls, OddStringSchemasAreRefused) {
  for (const char* schema :
       {R"({"type": "string", "anyOf": 1})", R"({"type": "string", "anyOf": [{"$ref": "#/none"}]})",
        R"({"type": "string", "allOf": {}})",
        R"({"type": "string", "oneOf": [{"type": "string"}]})",
        R"({"anyOf": [{"type": "string", "$ref": 1}, {"type": "string"}]})"}) {
    EXPECT_NE(errorOfCalls(std::string(R"({"name": "f", "parameters": {"properties": {"a": )") +
                           schema + "}}}"),
              "")
        << schema;
  }
}

}  // namespace
}  // namespace zem::text
