// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint_replies.h"
#include "engine/text/parsed_json.h"
#include "engine/text/schema_validator.h"

namespace zem::text {
namespace {

using testing::HasSubstr;

using test::ConstraintPtr;
using test::parsed;
using test::takes;

ConstraintPtr compiled(std::string_view schema, const ConstraintLimits& limits = {}) {
  ConstraintPtr constraint;
  const kiv::Status status = Constraint::compile(parsed(schema), limits, constraint);
  EXPECT_TRUE(status.ok()) << status.message();
  return constraint;
}

std::string errorOf(std::string_view schema, const ConstraintLimits& limits = {}) {
  ConstraintPtr constraint;
  const kiv::Status status = Constraint::compile(parsed(schema), limits, constraint);
  EXPECT_EQ(constraint, nullptr);
  return status.message();
}

// ---- Any JSON

TEST(Constraint, AnyJson) {
  const ConstraintPtr any = compiled("true");
  for (const char* text :
       {"null", "true", "false", "0", "-0", "-1.50e+10", "1E5", "0.0", "\"\"", "[]", "{}", "\n[ ] ",
        "[1,[2,{}],\"x\"]", "{\"a\":1,\"b\":{\"c\":[]}}", "{ \"\" : null , \"\xC3\xA4\" : 1 }\n",
        R"("\"\\\/\b\f\n\r\t\u00e4\uD83D\ude00")", "\"ä生😊\"", "\"\x7F\"",
        "12345678901234567890"}) {
    EXPECT_TRUE(takes(any, text)) << text;
  }
  for (const char* text : {"",
                           " ",
                           "nul",
                           "nulll",
                           "01",
                           "1.",
                           ".5",
                           "+1",
                           "-",
                           "1e",
                           "1e+",
                           "--1",
                           "NaN",
                           "\"",
                           "\"\n\"",
                           "'a'",
                           "[",
                           "[1",
                           "[1,",
                           "[1,]",
                           "[,1]",
                           "[1 2]",
                           "{",
                           "{a:1}",
                           "{\"a\"}",
                           "{\"a\":}",
                           "{\"a\":1,}",
                           "{,}",
                           "{\"a\":1 \"b\":2}",
                           "1 2",
                           "[]]",
                           "\"\\x\"",
                           "\"\\u12g4\"",
                           "\"\\ud83d\"",
                           "\"\\ud83dx\"",
                           "\"\\ude00\"",
                           "\"\\ud83d\\u0041\"",
                           "\"\xFF\"",
                           "\"\xC3\"",
                           "\"\xED\xA0\x80\"",
                           "\"\xC0\x80\"",
                           "\"\xF4\x90\x80\x80\"",
                           "{\"\\u0061\":1}"}) {
    EXPECT_FALSE(takes(any, text)) << text;
  }
}

TEST(Constraint, BlanksEndSomewhere) {
  const ConstraintPtr any = compiled("true");
  EXPECT_TRUE(takes(any, std::string(200, '\n') + "[" + std::string(200, ' ') + "]"));
  EXPECT_FALSE(takes(any, std::string(201, '\n') + "[]"));
  EXPECT_FALSE(takes(any, "[" + std::string(201, ' ') + "]"));
}

// Newlines in front belong to the form of a reply, and are dropped. Other blanks would be the
// first text of a stream, and programs that parse what they have of it fail.
TEST(Constraint, BlanksInFrontAreNewlines) {
  for (const char* schema : {"true", R"({"type":"integer"})"}) {
    const ConstraintPtr constraint = compiled(schema);
    EXPECT_TRUE(takes(constraint, "\n\n5 \t\r\n"));
    for (const char* text : {" 5", "\t5", "\r5", "\n 5"}) EXPECT_FALSE(takes(constraint, text));
  }
}

TEST(Constraint, DepthEndsSomewhere) {
  ConstraintLimits limits;
  limits.depth = 3;
  const ConstraintPtr any = compiled("true", limits);
  EXPECT_TRUE(takes(any, "[[[]]]"));
  EXPECT_TRUE(takes(any, R"({"a":[{"b":1}]})"));
  EXPECT_FALSE(takes(any, "[[[["));
  EXPECT_FALSE(takes(any, "[[{\"a\":["));
}

TEST(Constraint, SaysWhenAReplyMayEndAndWhenItHasTo) {
  ConstraintState state = Constraint::begin(compiled("true"));
  EXPECT_FALSE(state.complete());
  EXPECT_TRUE(state.advance("12"));
  EXPECT_TRUE(state.complete());
  EXPECT_FALSE(state.over());
  EXPECT_TRUE(state.advance(" "));
  EXPECT_TRUE(state.over());
  ConstraintState list = Constraint::begin(compiled("true"));
  EXPECT_TRUE(list.advance("[1"));
  EXPECT_FALSE(list.complete());
  EXPECT_TRUE(list.advance("]"));
  EXPECT_TRUE(list.complete());
  EXPECT_TRUE(list.over());
}

TEST(Constraint, WhatIsRefusedChangesNothing) {
  ConstraintState state = Constraint::begin(compiled("true"));
  EXPECT_TRUE(state.advance("[1"));
  EXPECT_FALSE(state.advance("]]"));
  EXPECT_FALSE(state.advance('x'));
  EXPECT_TRUE(state.accepts(",2]"));
  const ConstraintState copy = state;
  EXPECT_TRUE(state.advance("]"));
  EXPECT_FALSE(copy.complete());
  EXPECT_TRUE(copy.accepts("]"));
}

// ---- Schemas

struct SchemaCase {
  const char* schema;
  std::vector<std::string> taken;
  std::vector<std::string> refused;
};

std::vector<SchemaCase> schemaCases() {
  return {
      {R"({"type": "integer"})", {"0", "-12"}, {"1.0", "1e2", "\"1\"", "null", "01"}},
      {R"({"type": ["string", "null"]})", {"\"a\"", "null"}, {"1", "true", "[]"}},
      {R"({"type": "boolean"})", {"true", "false"}, {"null", "tru", "0"}},
      {R"({"enum": ["a", "ab", 1, 12, null, 1.5, "ä\n"]})",
       {"\"a\"", "\"ab\"", "1", "12", "null", "1.5", "\"ä\\n\""},
       {"\"b\"", "\"abc\"", "2", "123", "true", "1.50"}},
      {R"({"type": "string", "enum": ["a", 1]})", {"\"a\""}, {"1"}},
      {R"({"type": "number", "enum": ["a", 1, 2.5]})", {"1", "2.5"}, {"\"a\""}},
      {R"({"const": {"a": [1, {"b": "x"}], "c": {}}})",
       {R"({"a":[1,{"b":"x"}],"c":{}})", R"({ "c" : { } , "a" : [ 1 , { "b" : "x" } ] })"},
       {R"({"a":[1,{"b":"x"}]})", R"({"a":[1],"c":{}})", R"({"a":[1,{"b":"x"}],"c":{},"d":1})",
        "{}"}},
      {R"({"const": []})", {"[]"}, {"[1]", "{}"}},
      {R"({"type": "integer", "minimum": 5, "maximum": 120})",
       {"5", "9", "10", "99", "100", "120"},
       {"4", "0", "121", "1000", "-5", "05"}},
      {R"({"type": "integer", "minimum": -15, "exclusiveMaximum": 3})",
       {"-15", "-1", "-0", "0", "2"},
       {"3", "-16", "-150", "10"}},
      {R"({"type": "integer", "minimum": 1.5, "maximum": 2.5})", {"2"}, {"1", "3"}},
      {R"({"type": "number", "minimum": 0.5, "exclusiveMaximum": 1})",
       {"0.5", "0.50", "0.75", "0.999"},
       {"0.49", "1", "1.0", "0", "0.", "5e-1", "-0.6"}},
      {R"({"type": "number", "exclusiveMinimum": 0})",
       {"0.000000000000000001", "1", "123456789012345678"},
       {"0", "0.0", "0.000000000000000000", "-1", "-0.1"}},
      {R"({"minimum": 5})", {"5", "\"a\"", "[]"}, {"4"}},
      {R"({"type": "string", "minLength": 2, "maxLength": 3})",
       {"\"ab\"", "\"äöü\"", R"("\ud83d\ude00a")", R"("\n\n")", "\"😊😊😊\""},
       {"\"a\"", "\"abcd\"", "\"😊\"", R"("\ud83d\ude00")"}},
      {R"({"type": "string", "maxLength": 0})", {"\"\""}, {"\"a\"", R"("\n")", R"("\u0061")"}},
      {R"({"type": "string", "pattern": "^[a-z]+-\\d{2,3}$"})",
       {"\"ab-12\"", "\"z-123\""},
       {"\"-12\"", "\"ab-1\"", "\"ab-1234\"", "\"AB-12\"", R"("\u0061-12")"}},
      {R"({"type": "string", "pattern": "b"})", {"\"b\"", "\"abc\""}, {"\"\"", "\"ac\""}},
      {R"({"type": "string", "pattern": "^\"\\\\\\n$"})", {R"("\"\\\n")"}, {R"("\"\\n")"}},
      {R"({"type": "string", "pattern": "^a*$", "minLength": 1, "maxLength": 2})",
       {"\"a\"", "\"aa\""},
       {"\"\"", "\"aaa\"", "\"b\""}},
      {R"({"type": "array", "items": {"type": "integer"}, "minItems": 1, "maxItems": 2})",
       {"[1]", "[1, 2]"},
       {"[]", "[1,2,3]", "[\"a\"]", "[1,]"}},
      {R"({"type": "array", "items": false})", {"[]"}, {"[1]"}},
      {R"({"type": "array", "maxItems": 0})", {"[]"}, {"[1]"}},
      {R"({"type": "object", "properties": {"a": {"type": "integer"}, "ab": {"type": "string"}, "": true},
           "required": ["a"], "additionalProperties": false})",
       {R"({"a":1})", R"({"ab":"x","a":1})", R"({"a":1,"":[]})"},
       {"{}", R"({"ab":"x"})", R"({"a":"x"})", R"({"a":1,"b":2})", R"({"a":1,"a":2})",
        R"({"a":1,})", R"({"\u0061":1})"}},
      {R"({"type": "object", "properties": {"a": {"type": "integer"}}, "additionalProperties": {"type": "null"}})",
       {"{}", R"({"a":1})", R"({"b":null,"aa":null,"":null})"},
       {R"({"a":null})", R"({"b":1})", R"({"\u0061":null})"}},
      {R"({"type": "object", "required": ["x"], "properties": {}})",
       {R"({"x":[]})", R"({"y":1,"x":2})"},
       {"{}", R"({"y":1})"}},
      {R"({"type": "object", "properties": {"q\"\\": {"const": 1}, "ä/~": {"const": 2}}})",
       {R"({"q\"\\":1})", R"({"ä/~":2,"z":3})"},
       {R"({"q\"\\":2})", R"({"ä/~":1})", R"({"q\"":1})"}},
      {R"({"type": "object", "properties": {"no": false}})",
       {"{}", R"({"n":1})", R"({"not":1})"},
       {R"({"no":1})"}},
      {R"({"anyOf": [{"type": "integer"}, {"type": "array", "items": {"type": "integer"}}]})",
       {"1", "[1]"},
       {"\"a\"", "[\"a\"]"}},
      {R"({"anyOf": [{"type": "object", "required": ["a"], "properties": {"a": {"const": 1}}},
                     {"type": "object", "required": ["b"], "properties": {"a": {"const": 2}}}]})",
       {R"({"a":1})", R"({"a":2,"b":0})", R"({"b":0})", R"({"a":1,"b":0})"},
       {R"({"a":2})", R"({"c":0})", "{}"}},
      {R"({"$ref": "#/$defs/tree", "$defs": {"tree": {"type": "object", "properties": {
            "left": {"$ref": "#/$defs/tree"}, "right": {"anyOf": [{"$ref": "#/$defs/tree"}, {"type": "null"}]}},
            "required": ["right"], "additionalProperties": false}}})",
       {R"({"right":null})", R"({"left":{"right":null},"right":{"right":null}})"},
       {R"({"left":{"right":null}})", R"({"right":1})", "{}"}},
      {R"({"type": "array", "items": {"$ref": "#"}})", {"[]", "[[],[[]]]"}, {"[1]"}},
      {R"({"allOf": [{"type": "null"}], "title": "t", "x-any": 1})", {"null"}, {"1"}},
      {R"({"anyOf": [false, {"const": 1}]})", {"1"}, {"2"}},
      {R"({"description": "d", "format": "date"})", {"1", "\"x\""}, {"x"}},
  };
}

TEST(Constraint, Schemas) {
  for (const SchemaCase& c : schemaCases()) {
    const Json schema = parsed(c.schema);
    const SchemaValidator validator(schema);
    const ConstraintPtr constraint = compiled(c.schema);
    for (const std::string& text : c.taken) {
      EXPECT_TRUE(takes(constraint, text)) << c.schema << "\n" << text;
      EXPECT_TRUE(validator.allows(parsed(text))) << c.schema << "\n" << text;
    }
    for (const std::string& text : c.refused) {
      EXPECT_FALSE(takes(constraint, text)) << c.schema << "\n" << text;
    }
  }
}

// A reply made of random bytes that are allowed; after a while more often those that
// come to an end.
std::string randomReply(const ConstraintPtr& constraint, std::mt19937& random) {
  ConstraintState state = Constraint::begin(constraint);
  std::string reply;
  for (size_t i = 0; i < 10000; ++i) {
    std::vector<uint8_t> bytes;
    for (unsigned byte = 0; byte < 256; ++byte) {
      const char c = static_cast<char>(byte);
      if (i > 60 && (c == '\n' || c == '\t' || c == '\r')) continue;
      if (state.accepts(std::string_view(&c, 1))) bytes.push_back(static_cast<uint8_t>(byte));
    }
    if (state.complete() && (bytes.empty() || i > 60 || random() % 20 == 0)) return reply;
    EXPECT_FALSE(bytes.empty()) << reply;
    if (bytes.empty()) return reply;
    std::string next(1, static_cast<char>(bytes[random() % bytes.size()]));
    if (i > 60 && random() % 2 == 0) {
      const char* closing[] = {":", "null", "b", "\"x\":1", "\"a\":1", "\"b\":1", "\"", "]", "}"};
      for (const char* text : closing) {
        if (state.accepts(text) && random() % 2 == 0) next = text;
      }
    }
    EXPECT_TRUE(state.advance(next));
    reply += next;
  }
  ADD_FAILURE() << "no end: " << reply;
  return reply;
}

TEST(Constraint, WhateverIsProducedSatisfiesTheSchema) {
  std::mt19937 random(1);
  ConstraintLimits limits;
  limits.depth = 6;  // random trees grow to the limit
  for (const SchemaCase& c : schemaCases()) {
    const Json schema = parsed(c.schema);
    const SchemaValidator validator(schema);
    const ConstraintPtr constraint = compiled(c.schema, limits);
    for (int round = 0; round < 40; ++round) {
      const std::string reply = randomReply(constraint, random);
      const nlohmann::json standard = nlohmann::json::parse(reply, nullptr, false);
      ASSERT_FALSE(standard.is_discarded()) << c.schema << "\n" << reply;
      // Numbers of 40 digits are more than the reader of requests takes.
      EXPECT_TRUE(validator.allows(Json::parse(reply))) << c.schema << "\n" << reply;
    }
  }
}

// ---- Random documents

class Documents {
 public:
  explicit Documents(uint32_t seed) : random_(seed) {}

  size_t below(size_t count) { return random_() % count; }
  std::string blanks() {
    const char* all[] = {"", "", " ", "\n  ", "\t", " \r\n"};
    return all[below(6)];
  }

  std::string text() {
    const char* pieces[] = {
        "a", "Z", "ä", "生", "😊", "\\n", "\\\"", "\\\\", "\\/", "\\u00e4", "\\uD834\\uDD1E",
        " ", "0"};
    std::string out = "\"";
    for (size_t i = below(5); i > 0; --i) out += pieces[below(13)];
    return out + "\"";
  }

  std::string number() {
    std::string out = below(2) == 0 ? "-" : "";
    out += below(3) == 0 ? "0" : std::to_string(1 + random_() % 100000);
    if (below(3) == 0) out += "." + std::to_string(random_() % 1000);
    if (below(4) == 0) out += (below(2) == 0 ? "e" : "E+") + std::to_string(random_() % 100);
    return out;
  }

  std::string any(int depth) {
    switch (below(depth > 0 ? 6 : 4)) {
      case 0:
        return text();
      case 1:
        return number();
      case 2:
        return "null";
      case 3:
        return below(2) == 0 ? "true" : "false";
      case 4: {
        std::string out = "[" + blanks();
        const size_t count = below(4);
        for (size_t i = 0; i < count; ++i)
          out += (i > 0 ? "," : "") + blanks() + any(depth - 1) + blanks();
        return out + "]";
      }
      default: {
        std::string out = "{" + blanks();
        const size_t count = below(4);
        for (size_t i = 0; i < count; ++i) {
          out += (i > 0 ? "," : "") + blanks() + "\"k" + std::to_string(i) + "\"" + blanks() + ":" +
                 blanks() + any(depth - 1) + blanks();
        }
        return out + "}";
      }
    }
  }

  // A person of personSchema(), members in any order.
  std::string person(int depth) {
    std::vector<std::string> members = {"\"name\"" + blanks() + ":" + text(),
                                        "\"age\":" + blanks() + std::to_string(below(121))};
    if (below(2) == 0)
      members.push_back(R"("mood":)" + std::string(below(2) == 0 ? "\"up\"" : "null"));
    if (below(2) == 0) members.push_back("\"note\":" + any(2));
    if (depth > 0 && below(2) == 0) {
      members.push_back("\"friends\":[" + person(depth - 1) + blanks() + "," + person(depth - 1) +
                        "]");
    }
    std::shuffle(members.begin(), members.end(), random_);
    std::string out = "{";
    for (size_t i = 0; i < members.size(); ++i)
      out += (i > 0 ? "," : "") + blanks() + members[i] + blanks();
    return out + "}";
  }

 private:
  std::mt19937 random_;
};

constexpr const char* kPerson = R"({"$ref": "#/$defs/person", "$defs": {"person": {"type": "object",
    "properties": {"name": {"type": "string"}, "age": {"type": "integer", "minimum": 0, "maximum": 120},
      "mood": {"enum": ["up", "down", null]}, "note": {},
      "friends": {"type": "array", "items": {"$ref": "#/$defs/person"}, "maxItems": 2}},
    "required": ["name", "age"], "additionalProperties": false}}})";

TEST(Constraint, RandomJsonIsTaken) {
  const ConstraintPtr any = compiled("true");
  Documents documents(3);
  for (int i = 0; i < 2000; ++i) {
    const std::string newlines(documents.below(3), '\n');
    const std::string text = newlines + documents.any(5) + documents.blanks();
    ASSERT_TRUE(nlohmann::json::accept(text)) << text;
    EXPECT_TRUE(takes(any, text)) << text;
  }
}

TEST(Constraint, RandomDocumentsOfASchemaAreTaken) {
  const ConstraintPtr constraint = compiled(kPerson);
  const Json schema = parsed(kPerson);
  Documents documents(4);
  for (int i = 0; i < 500; ++i) {
    const std::string text = documents.person(3);
    ASSERT_TRUE(SchemaValidator(schema).allows(parsed(text))) << text;
    EXPECT_TRUE(takes(constraint, text)) << text;
  }
}

// One byte more or less, or another: what is taken then satisfies the schema still.
TEST(Constraint, DamagedDocumentsAreTakenOnlyWhenTheyStaySound) {
  const ConstraintPtr constraint = compiled(kPerson);
  const Json schema = parsed(kPerson);
  const SchemaValidator validator(schema);
  Documents documents(5);
  size_t refused = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string text = documents.person(1);
    const size_t at = documents.below(text.size());
    const char byte = "{}[]\",:0a "[documents.below(10)];
    if (i % 3 == 0) {
      text.erase(at, 1);
    } else if (i % 3 == 1) {
      text.insert(at, 1, byte);
    } else {
      text[at] = byte;
    }
    if (!takes(constraint, text)) {
      ++refused;
      continue;
    }
    const Json value = Json::parse(text, nullptr, false);
    ASSERT_FALSE(value.is_discarded()) << text;
    EXPECT_TRUE(validator.allows(value)) << text;
  }
  EXPECT_GT(refused, 500U);
}

// ---- Masks

TEST(Constraint, AMaskHasExactlyTheTokensThatAreTaken) {
  std::vector<std::string> texts = {
      "",        "{",  "{\"",  "\"",  "\":",  "\": ", ",",  ", \"", "}",   "}}",
      "[",       "]",  "null", "nul", "l",    "name", "na", "me",   "age", "mood",
      "friends", "1",  "12",   "120", "121",  " ",    "\n", "  ",   "up",  "\"up\"",
      "down",    "tr", "true", "ä",   "\xC3", "\xA4", "\\", "\\u",  "\\n", "😊",
      "1",       "x",  "\"}",  "\"]", "}]",   "-",    ".",  "e5"};
  Documents documents(6);
  for (int i = 0; i < 300; ++i) texts.push_back(documents.any(2).substr(0, 1 + documents.below(6)));
  const TokenTexts tokens(texts);
  for (const char* schema : {"true", kPerson}) {
    const ConstraintPtr constraint = compiled(schema);
    for (int round = 0; round < 20; ++round) {
      const std::string text = documents.person(2);
      ConstraintState state = Constraint::begin(constraint);
      for (size_t at = 0; at < text.size(); ++at) {
        ASSERT_TRUE(state.advance(static_cast<uint8_t>(text[at])));
        if (at % 7 != 0) continue;
        std::vector<bool> allowed(3, true);
        state.mask(tokens, allowed);
        ASSERT_EQ(allowed.size(), texts.size());
        for (size_t id = 0; id < texts.size(); ++id) {
          ASSERT_EQ(allowed[id], !texts[id].empty() && state.accepts(texts[id]))
              << text.substr(0, at + 1) << " and " << texts[id];
        }
      }
    }
  }
}

TEST(Constraint, AMaskOfNoTokensIsEmpty) {
  std::vector<bool> allowed(5, true);
  Constraint::begin(compiled("true")).mask(TokenTexts({}), allowed);
  EXPECT_TRUE(allowed.empty());
}

// ---- Errors

TEST(Constraint, EveryKeywordThatIsNotSupportedIsNamed) {
  EXPECT_EQ(
      errorOf(
          R"({"oneOf": [], "properties": {"a": {"multipleOf": 2, "not": {}}}, "uniqueItems": true})"),
      "schema: not supported: \"oneOf\", \"uniqueItems\", \"multipleOf\" at /properties/a, \"not\" "
      "at "
      "/properties/a");
  EXPECT_EQ(errorOf(R"({"type": "object", "anyOf": [{}]})"),
            "schema: not supported: \"type\" beside \"anyOf\"");
  EXPECT_EQ(errorOf(R"({"enum": [1], "minimum": 1})"),
            "schema: not supported: \"minimum\" beside \"enum\"");
  EXPECT_EQ(errorOf(R"({"allOf": [{}, {}]})"),
            "schema: not supported: \"allOf\" of several schemas");
}

TEST(Constraint, ErrorsSayWhere) {
  EXPECT_EQ(errorOf("1"), "schema: found a number, expected a schema: an object, true or false");
  EXPECT_EQ(
      errorOf(R"({"properties": {"a/b": {"items": []}}})"),
      "schema/properties/a~1b/items: found a list, expected a schema: an object, true or false");
  EXPECT_EQ(errorOf(R"({"type": "text"})"),
            "schema/type: found \"text\", expected null, boolean, integer, number, string, array "
            "or object");
  EXPECT_EQ(errorOf(R"({"type": [1]})"),
            "schema/type: found a number, expected null, boolean, integer, number, string, array "
            "or object");
  EXPECT_EQ(errorOf(R"({"minLength": -1})"),
            "schema/minLength: found a number, expected a whole number from 0 on");
  EXPECT_EQ(errorOf(R"({"minimum": "1"})"), "schema/minimum: found text, expected a number");
  EXPECT_EQ(errorOf(R"({"exclusiveMinimum": true})"),
            "schema/exclusiveMinimum: found true, expected a number");
  EXPECT_EQ(errorOf(R"({"required": "a"})"),
            "schema/required: found text, expected a list of names");
  EXPECT_EQ(errorOf(R"({"required": [1]})"),
            "schema/required: found a number, expected a list of names");
  EXPECT_EQ(errorOf(R"({"properties": []})"),
            "schema/properties: found a list, expected an object");
  EXPECT_EQ(errorOf(R"({"enum": 1})"), "schema/enum: found a number, expected a list");
  EXPECT_EQ(errorOf(R"({"anyOf": []})"), "schema/anyOf: found a list, expected a list of schemas");
  EXPECT_EQ(errorOf(R"({"pattern": 1})"), "schema/pattern: found a number, expected text");
  EXPECT_EQ(
      errorOf(R"({"$ref": "#/$defs/x"})"),
      "schema/$ref: there is nothing at \"#/$defs/x\", expected a place in this document, such as "
      "#/$defs/name");
  EXPECT_THAT(errorOf(R"({"$ref": "http://x"})"), HasSubstr("expected a place in this document"));
  EXPECT_THAT(errorOf(R"x({"pattern": "a(?=b)"})x"), HasSubstr("schema: the pattern \"a(?=b)\": "));
}

TEST(Constraint, WhatNothingSatisfiesIsRefused) {
  const std::string nothing = "schema: nothing satisfies it within 64 levels of arrays and objects";
  for (const char* schema :
       {"false", R"({"enum": []})", R"({"type": "string", "enum": [1]})",
        R"({"minLength": 2, "maxLength": 1, "type": "string"})",
        R"({"type": "integer", "minimum": 3, "maximum": 2})",
        R"({"type": "integer", "minimum": 1.2, "maximum": 1.8})",
        R"({"type": "number", "minimum": 1e30})",
        R"({"type": "object", "required": ["a"], "properties": {"a": {"$ref": "#"}}})",
        R"({"$ref": "#"})", R"({"anyOf": [{"$ref": "#"}]})",
        R"({"type": "array", "items": false, "minItems": 1})",
        R"({"type": "object", "required": ["a"], "additionalProperties": false})"}) {
    EXPECT_EQ(errorOf(schema), nothing) << schema;
  }
}

TEST(Constraint, SizeIsLimited) {
  ConstraintLimits limits;
  limits.rules = 20;
  EXPECT_EQ(
      errorOf(R"({"type": "array", "items": {"type": "array", "items": {"type": "array", "items": {
      "type": "array", "items": {"type": "array", "items": {"type": "array", "items": {"type": "array",
      "items": {"type": "array", "items": {"type": "array", "items": {"type": "array"}}}}}}}}}})",
              limits),
      "schema: has more than 20 rules");
  Json values = Json::array();
  for (int i = 0; i < 30; ++i) values.push_back(i);
  EXPECT_EQ(errorOf(Json{{"enum", values}}.dump(), limits), "schema: has more than 20 values");
  Json properties = Json::object();
  for (int i = 0; i < 129; ++i) properties[std::to_string(i)] = true;
  EXPECT_EQ(errorOf(Json{{"properties", properties}}.dump()),
            "schema: an object has more than 128 properties");
  properties.erase("0");
  EXPECT_TRUE(takes(compiled(Json{{"properties", properties}}.dump()), R"({"128":1,"64":2})"));
  EXPECT_THAT(errorOf(R"({"type": "string", "pattern": "a", "maxLength": 100000})"),
              HasSubstr("it needs more than 2000 states"));
}

// A flat document is possible where a deep one is required: that is known from the start.
TEST(Constraint, WhatWouldGetTooDeepIsNotBegun) {
  ConstraintLimits limits;
  limits.depth = 2;
  const ConstraintPtr constraint = compiled(
      R"({"type": "array", "items": {"anyOf": [{"type": "null"}, {"type": "array", "minItems": 1,
          "items": {"type": "array"}}]}})",
      limits);
  EXPECT_TRUE(takes(constraint, "[null,null]"));
  EXPECT_FALSE(takes(constraint, "[["));
}

TEST(Constraint, StatesMayOutliveTheirConstraint) {
  ConstraintPtr constraint = compiled("true");
  ConstraintState state = Constraint::begin(constraint);
  constraint.reset();
  EXPECT_TRUE(state.advance("[1]"));
  EXPECT_TRUE(state.complete());
}

}  // namespace
}  // namespace zem::text
