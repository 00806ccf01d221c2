// SPDX-License-Identifier: Apache-2.0
#include "engine/text/json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "engine/text/chat/python_text.h"

namespace zem::text {
namespace {

std::string errorOfJson(std::string_view text) {
  Json value = 1;
  const kiv::Status status = parseJson(text, "here", value);
  EXPECT_TRUE(value.is_null());
  return status.message();
}

// Read, and written as Python does after it has read the same.
std::string again(std::string_view text) {
  Json value;
  const kiv::Status status = parseJson(text, "here", value);
  EXPECT_TRUE(status.ok()) << status.message();
  return pythonJson(value);
}

TEST(ChatJson, KeepsTheOrderOfKeys) {
  EXPECT_EQ(again(R"({"b":1,"a":{"d":[],"c":{}}})"), R"({"b": 1, "a": {"d": [], "c": {}}})");
}

TEST(ChatJson, OfAKeyTwiceTheLastValueStandsInTheFirstPlace) {
  EXPECT_EQ(again(R"({"a":1,"b":2,"a":{"x":[3]}})"), R"({"a": {"x": [3]}, "b": 2})");
}

TEST(ChatJson, NestsToItsLimitAndNoDeeper) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(again(nested(kMaxJsonDepth)), nested(kMaxJsonDepth));
  EXPECT_EQ(errorOfJson(nested(kMaxJsonDepth + 1)), "here: nested deeper than 128 levels");
  EXPECT_EQ(errorOfJson(std::string(1000000, '[')), "here: nested deeper than 128 levels");
}

TEST(ChatJson, RefusesWhatItCannotKeep) {
  EXPECT_EQ(errorOfJson("[18446744073709551616]"),
            "here: the integer 18446744073709551616 needs more than 64 bits");
  EXPECT_THAT(errorOfJson("[1e999]"), testing::StartsWith("here: number overflow"));
  EXPECT_THAT(errorOfJson("{\"a\": }"), testing::StartsWith("here: parse error at line 1"));
  EXPECT_THAT(errorOfJson("1 2"), testing::StartsWith("here: parse error"));
  EXPECT_THAT(errorOfJson(""), testing::StartsWith("here: parse error"));
  EXPECT_THAT(errorOfJson("\"\\ud800\""), testing::StartsWith("here: parse error"));
  EXPECT_THAT(errorOfJson("\"\x80\""), testing::StartsWith("here: parse error"));
}

TEST(ChatJson, AnObjectOfManyKeysTakesLinearTime) {
  std::string text = "{";
  for (int i = 0; i < 200000; ++i) text += "\"" + std::to_string(i) + "\":0,";
  text += "\"0\":1}";
  Json value;
  ASSERT_TRUE(parseJson(text, "here", value).ok());
  EXPECT_EQ(value.size(), 200000U);
  EXPECT_EQ(value.at("0"), 1);
}

TEST(PythonText, NumbersAreSpeltAsPythonDoes) {
  // Pairs that CPython 3.11's repr(json.loads(left)) gave.
  const char* pairs[][2] = {{"1.0", "1.0"},
                            {"-0", "0"},
                            {"-0.0", "-0.0"},
                            {"1e0", "1.0"},
                            {"1E5", "100000.0"},
                            {"1e15", "1000000000000000.0"},
                            {"1e16", "1e+16"},
                            {"1234567890123456.7", "1234567890123456.8"},
                            {"12345678901234567.8", "1.2345678901234568e+16"},
                            {"0.0001", "0.0001"},
                            {"0.00001", "1e-05"},
                            {"0.000123", "0.000123"},
                            {"1.10", "1.1"},
                            {"0.1", "0.1"},
                            {"2.5e-7", "2.5e-07"},
                            {"1e-7", "1e-07"},
                            {"5e-324", "5e-324"},
                            {"1.7976931348623157e308", "1.7976931348623157e+308"},
                            {"9007199254740993.0", "9007199254740992.0"},
                            {"100", "100"},
                            {"18446744073709551615", "18446744073709551615"},
                            {"-9223372036854775808", "-9223372036854775808"}};
  for (const auto& [text, expected] : pairs) EXPECT_EQ(again(text), expected);
}

TEST(PythonText, EscapesWhatPythonEscapes) {
  EXPECT_EQ(again(R"("\u0000\u0008\u0009\u000a\u000b\u000c\u000d\u001f\u007f\"\\\/ä\ud83d\ude00")"),
            "\"\\u0000\\b\\t\\n\\u000b\\f\\r\\u001f\x7F\\\"\\\\/\u00e4\U0001F600\"");
}

TEST(PythonText, ScalarsAsText) {
  EXPECT_EQ(pythonText(Json(true)), "True");
  EXPECT_EQ(pythonText(Json(false)), "False");
  EXPECT_EQ(pythonText(Json(nullptr)), "None");
  EXPECT_EQ(pythonText(Json(1.0)), "1.0");
  EXPECT_EQ(pythonText(Json("\"a\"")), "\"a\"");
  EXPECT_EQ(pythonText(Json::array({true})), "[true]");
}

TEST(PythonText, StripTakesWholeBlanksOnly) {
  EXPECT_EQ(pythonStrip(""), "");
  EXPECT_EQ(pythonStrip(" \n\u00a0\u3000\u2028"), "");
  EXPECT_EQ(pythonStrip("\u3000 a b \u0085"), "a b");
  EXPECT_EQ(pythonStrip("\u200ba\u200b"), "\u200ba\u200b");
  // The last bytes of these letters look like the ends of blanks.
  EXPECT_EQ(pythonStrip("\u0145"), "\u0145");
  EXPECT_EQ(pythonStrip("\u4080"), "\u4080");
  // Not UTF-8, and cut characters.
  EXPECT_EQ(pythonStrip("\xA0"), "\xA0");
  EXPECT_EQ(pythonStrip(" \xE2\x80 "), "\xE2\x80");
  EXPECT_EQ(pythonStrip("\x85\xC2"), "\x85\xC2");
}

}  // namespace
}  // namespace zem::text
