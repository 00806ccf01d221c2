// SPDX-License-Identifier: Apache-2.0
#include "convert/json_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "console/terminal.h"
#include "support/temp_folder.h"

namespace zemtool {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string refusalOf(const std::string& text) {
  try {
    parseJson(text, "a.json");
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(JsonFileTest, ObjectsAreParsed) {
  const json value = parseJson(R"({"a": {"b": [1, 2]}, "c": null})", "a.json");
  EXPECT_EQ(value["a"]["b"][1], 2);
  EXPECT_NE(member(value, "a"), nullptr);
  EXPECT_EQ(member(value, "c"), nullptr);
  EXPECT_EQ(member(value, "d"), nullptr);
  EXPECT_EQ(member(value["a"]["b"], "a"), nullptr);
}

TEST(JsonFileTest, WhatIsNoJsonIsRefusedWithThePlace) {
  EXPECT_THAT(refusalOf(R"({"a": })"), StartsWith("a.json: parse error at line 1, column 7"));
  for (const char* text : {"", "{", "{\"a\": 1} x", "{\"a\": \"\xFF\"}", "{\"a\": 1e999}", "nul"}) {
    EXPECT_THAT(refusalOf(text), StartsWith("a.json: ")) << text;
  }
}

TEST(JsonFileTest, OnlyObjectsAreTaken) {
  for (const char* text : {"[]", "1", "null", "\"a\""}) {
    EXPECT_EQ(refusalOf(text), "a.json: not a JSON object");
  }
}

TEST(JsonFileTest, AKeyOccursOnceInAnObject) {
  EXPECT_EQ(refusalOf(R"({"a": 1, "a": 1})"), "a.json: \"a\" occurs twice");
  EXPECT_EQ(refusalOf(R"({"x": [{"b": {"a": 1}, "b": 2}]})"), "a.json: \"b\" occurs twice");
  EXPECT_EQ(refusalOf(R"({"a": {"a": 1}, "b": [{"a": 1}, {"a": 1}]})"), "");
}

TEST(JsonFileTest, DepthIsBounded) {
  const auto nested = [](size_t depth) {
    return "{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
  };
  EXPECT_EQ(refusalOf(nested(60)), "");
  EXPECT_EQ(refusalOf(nested(66)), "a.json: nested deeper than 64 levels");
  EXPECT_EQ(refusalOf("{\"a\":" + std::string(10'000'000, '[')),
            "a.json: nested deeper than 64 levels");
  std::string objects;
  for (int i = 0; i < 1'000'000; ++i) objects += "{\"a\":";
  EXPECT_EQ(refusalOf(objects), "a.json: nested deeper than 64 levels");
}

TEST(JsonFileTest, MissingFilesAreNoErrorAndLargeOnesAre) {
  const zemtest::TempFolder folder;
  std::string text = "before";
  EXPECT_FALSE(readFileIfAny(folder.path("missing"), 10, text));
  EXPECT_EQ(text, "before");
  EXPECT_TRUE(readFileIfAny(folder.write("a", std::string_view("0123456789")), 10, text));
  EXPECT_EQ(text, "0123456789");
  EXPECT_TRUE(readFileIfAny(folder.write("empty", std::string_view()), 10, text));
  EXPECT_EQ(text, "");
  EXPECT_THROW(readFileIfAny(folder.path("a"), 9, text), Failure);
  EXPECT_THROW(readFileIfAny(folder.path("."), 9, text), Failure);
}

}  // namespace
}  // namespace zemtool
