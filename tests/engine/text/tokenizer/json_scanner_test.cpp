// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/json_scanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine/text/tokenizer/read_error.h"

namespace zem::text {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

std::string stringOf(const std::string& text) {
  std::deque<std::string> owned;
  JsonScanner scanner(text, owned);
  std::string result(scanner.string());
  scanner.end();
  return result;
}

void skipAll(const std::string& text) {
  std::deque<std::string> owned;
  JsonScanner scanner(text, owned);
  (void)scanner.skip();
  scanner.end();
}

uint64_t numberOf(const std::string& text) {
  std::deque<std::string> owned;
  JsonScanner scanner(text, owned);
  const uint64_t number = scanner.wholeNumber();
  scanner.end();
  return number;
}

TEST(JsonScannerTest, StringsAreUnescaped) {
  EXPECT_EQ(stringOf("\"\""), "");
  EXPECT_EQ(stringOf(" \"plain\" "), "plain");
  EXPECT_EQ(stringOf(R"("a\"b\\c\/d\b\f\n\r\t")"), "a\"b\\c/d\b\f\n\r\t");
  EXPECT_EQ(stringOf(R"("\u0041\u00e4\u4E2D\uD83D\uDE00")"),
            "A\xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80");
  EXPECT_EQ(stringOf(R"("\u0000x")"), std::string("\0x", 2));
}

TEST(JsonScannerTest, EveryStringThatALibraryWritesComesBack) {
  for (int first = 0; first < 128; ++first) {
    const std::string text = std::string(1, static_cast<char>(first)) + "\xC3\xA4" + "z";
    EXPECT_EQ(stringOf(nlohmann::json(text).dump()), text);
    EXPECT_EQ(stringOf(nlohmann::json(text).dump(-1, ' ', true)), text);
  }
}

TEST(JsonScannerTest, ObjectsAndListsAreWalked) {
  const std::string text = R"( {"a": [1, 2, [ ]], "b": {}, "c" : "x"} )";
  std::deque<std::string> owned;
  JsonScanner scanner(text, owned);
  std::vector<std::string> seen;
  for (scanner.enter('{'); scanner.more('}');) {
    seen.emplace_back(scanner.key());
    seen.emplace_back(scanner.skip());
  }
  scanner.end();
  EXPECT_THAT(seen, ::testing::ElementsAre("a", "[1, 2, [ ]]", "b", "{}", "c", "\"x\""));
}

TEST(JsonScannerTest, EveryKindOfValueIsSkipped) {
  for (const char* text : {"null", "true", "false", "0", "-1", "12.5e+3", "1E-2", "\"\\u0041\"",
                           "[]", "{}", R"([{"a": [null, true]}, -0.5])"}) {
    EXPECT_NO_THROW(skipAll(text)) << text;
  }
}

TEST(JsonScannerTest, WhatIsNoJsonIsRefused) {
  for (const char* text : {"",
                           "nul",
                           "tru",
                           "+1",
                           "01",
                           "1.",
                           ".5",
                           "1e",
                           "-",
                           "\"",
                           "\"\\",
                           "\"\\x\"",
                           "\"\\u12\"",
                           "\"\\u12g4\"",
                           "\"\\uD800\"",
                           "\"\\uD800x\"",
                           "\"\\uD800\\u0041\"",
                           "\"\\uDC00\"",
                           "\"\n\"",
                           "\"\\n\n\"",
                           "[",
                           "[1",
                           "[1,",
                           "[1,]",
                           "[,1]",
                           "[1 2]",
                           "{",
                           "{\"a\"",
                           "{\"a\":",
                           "{\"a\":1",
                           "{\"a\":1,}",
                           "{1:2}",
                           "{\"a\" 1}",
                           "]",
                           "1 2",
                           "[] x"}) {
    EXPECT_THROW(skipAll(text), ReadError) << text;
  }
}

TEST(JsonScannerTest, ErrorsNameThePlace) {
  EXPECT_THAT([] { skipAll("[1, x]"); }, ThrowsMessage<ReadError>("byte 4: expected a value"));
  EXPECT_THAT([] { skipAll("{} {}"); }, ThrowsMessage<ReadError>("byte 3: more behind the end"));
}

TEST(JsonScannerTest, DeepNestingIsRefused) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_NO_THROW(skipAll(nested(64)));
  EXPECT_THAT([&] { skipAll(nested(100000)); }, ThrowsMessage<ReadError>(HasSubstr("64 levels")));
}

TEST(JsonScannerTest, OnlyWholeNumbersAreIds) {
  EXPECT_EQ(numberOf("0"), 0U);
  EXPECT_EQ(numberOf(" 18446744073709551615"), UINT64_MAX);
  for (const char* text : {"-1", "1.0", "1e3", "01", "18446744073709551616", "\"1\"", "null", ""}) {
    EXPECT_THROW((void)numberOf(text), ReadError) << text;
  }
}

}  // namespace
}  // namespace zem::text
