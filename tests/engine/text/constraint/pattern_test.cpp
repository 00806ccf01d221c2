// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/pattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <regex>
#include <string>

namespace zem::text {
namespace {

constexpr size_t kUnlimited = std::numeric_limits<size_t>::max();

PatternAutomaton compiledPattern(std::string_view pattern, size_t least = 0,
                                 size_t most = kUnlimited) {
  PatternAutomaton automaton;
  const kiv::Status status = PatternAutomaton::compile(pattern, least, most, 2000, automaton);
  EXPECT_TRUE(status.ok()) << status.message();
  return automaton;
}

std::string errorOfPattern(std::string_view pattern) {
  PatternAutomaton automaton;
  return PatternAutomaton::compile(pattern, 0, kUnlimited, 200, automaton).message();
}

bool matches(const PatternAutomaton& automaton, std::string_view text) {
  uint16_t state = PatternAutomaton::kStart;
  for (const char c : text) state = automaton.next(state, static_cast<uint8_t>(c));
  return automaton.accepts(state);
}

// The standard library's expressions, which search among bytes, say the same of ASCII.
TEST(ConstraintPattern, MatchesWhatTheStandardLibraryMatches) {
  const char* patterns[] = {"",
                            "a",
                            "^a$",
                            "^",
                            "$",
                            "^ab*c+d?$",
                            "^(ab|ba)*$",
                            "^(?:a|b){2,3}$",
                            "^a{2}$",
                            "^a{2,}$",
                            "^a{0}$",
                            "^a{0,1}b$",
                            "^[ab-]+$",
                            "^[^ab]*$",
                            "^[a-c1-2]+$",
                            "^\\d+$",
                            "^\\w\\W$",
                            "^\\s*\\S$",
                            "a.b",
                            "^[\\d.]+$",
                            "(a|b)(1|2)",
                            "^(a(b(1)?)?)?$",
                            "^a|^b",
                            "a+?b",
                            "^\\.$",
                            "^\\x61\\u0062$",
                            "^[\\x61-\\x62]$",
                            "^(a*)*$",
                            "^()b$",
                            "b$"};
  std::mt19937 random(1);
  for (const char* pattern : patterns) {
    if (std::string_view(pattern) == "^a|^b") continue;  // refused, see below
    const PatternAutomaton automaton = compiledPattern(pattern);
    const std::regex expected(pattern);
    for (int round = 0; round < 1500; ++round) {
      std::string text;
      for (size_t length = random() % 6; length > 0; --length) text += "abcd12 .-_"[random() % 10];
      ASSERT_EQ(matches(automaton, text), std::regex_search(text, expected))
          << pattern << ": " << text;
    }
  }
}

TEST(ConstraintPattern, CharactersAreWhole) {
  EXPECT_TRUE(matches(compiledPattern("^.$"), "ä"));
  EXPECT_TRUE(matches(compiledPattern("^.$"), "生"));
  EXPECT_TRUE(matches(compiledPattern("^.$"), "😊"));
  EXPECT_FALSE(matches(compiledPattern("^..$"), "ä"));
  EXPECT_TRUE(matches(compiledPattern("^[ä-ü]+$"), "äöü"));
  EXPECT_FALSE(matches(compiledPattern("^[ä-ü]+$"), "a"));
  EXPECT_TRUE(matches(compiledPattern("^[^a]$"), "😊"));
  EXPECT_TRUE(matches(compiledPattern("^\\u00e4$"), "ä"));
  EXPECT_FALSE(matches(compiledPattern("^.$"), "\xC3"));
  EXPECT_FALSE(matches(compiledPattern("^.$"), "\xED\xA0\x80"));
  EXPECT_FALSE(matches(compiledPattern("^.$"), "\n"));
  EXPECT_TRUE(matches(compiledPattern("^\\s$"), "\u3000"));
}

// Every range of code points, against its plain meaning, at its edges.
TEST(ConstraintPattern, RangesOfAllLengths) {
  const auto utf8 = [](uint32_t point) {
    std::string text;
    if (point < 0x80) return text + static_cast<char>(point);
    if (point < 0x800) text += static_cast<char>(0xC0 | point >> 6);
    if (point >= 0x800 && point < 0x10000) text += static_cast<char>(0xE0 | point >> 12);
    if (point >= 0x10000) {
      text += static_cast<char>(0xF0 | point >> 18);
      text += static_cast<char>(0x80 | (point >> 12 & 0x3F));
    }
    if (point >= 0x800) text += static_cast<char>(0x80 | (point >> 6 & 0x3F));
    return text + static_cast<char>(0x80 | (point & 0x3F));
  };
  std::mt19937 random(2);
  const auto point = [&] {
    const uint32_t limits[] = {0x80, 0x800, 0xD800, 0x110000};
    for (;;) {
      const uint32_t value = 0x20 + static_cast<uint32_t>(random()) % (limits[random() % 4] - 0x20);
      if (value < 0xD800 || value > 0xDFFF) return value;
    }
  };
  for (int round = 0; round < 200; ++round) {
    uint32_t first = point();
    uint32_t last = point();
    if (first > last) std::swap(first, last);
    if (first == '\\' || first == ']' || first == '^' || last == '\\' || last == ']') continue;
    const PatternAutomaton automaton =
        compiledPattern("^[" + utf8(first) + "-" + utf8(last) + "]$");
    for (int i = 0; i < 200; ++i) {
      const uint32_t near[] = {first, last, first + 1, last - 1, first - 1, last + 1, point()};
      const uint32_t value = near[i % 7];
      if (value < 0x20 || value > 0x10FFFF || (value >= 0xD800 && value < 0xE000)) continue;
      ASSERT_EQ(matches(automaton, utf8(value)), value >= first && value <= last)
          << first << " " << last << " " << value;
    }
  }
}

TEST(ConstraintPattern, LengthsAreCounted) {
  const PatternAutomaton automaton = compiledPattern("^[äa]*$", 2, 3);
  EXPECT_FALSE(matches(automaton, "ä"));
  EXPECT_TRUE(matches(automaton, "äa"));
  EXPECT_TRUE(matches(automaton, "äää"));
  EXPECT_FALSE(matches(automaton, "äääa"));
  EXPECT_TRUE(matches(compiledPattern("a", 3), "bab"));
  EXPECT_FALSE(matches(compiledPattern("a", 3), "ab"));
}

// From every state that is reached, an accepting one is.
TEST(ConstraintPattern, EveryStateLeadsToAnEnd) {
  for (const char* pattern : {"^(ab|cd){2,4}$", "x", "^[a-f0-9]{8}-[a-f0-9]{4}$"}) {
    const PatternAutomaton automaton = compiledPattern(pattern, 0, 40);
    std::vector<bool> ends(automaton.size());
    for (bool changed = true; changed;) {
      changed = false;
      for (uint16_t state = 1; state < automaton.size(); ++state) {
        if (ends[state]) continue;
        ends[state] = automaton.accepts(state);
        for (unsigned byte = 0; byte < 256 && !ends[state]; ++byte) {
          ends[state] = ends[automaton.next(state, static_cast<uint8_t>(byte))];
        }
        changed = changed || ends[state];
      }
    }
    for (size_t state = 1; state < automaton.size(); ++state) EXPECT_TRUE(ends[state]) << pattern;
  }
}

TEST(ConstraintPattern, WhatIsNotSupportedIsNamed) {
  struct Case {
    const char* pattern;
    const char* reason;
  };
  const Case cases[] = {
      {"a(?=b)", "a group of the kind (?= is not supported"},
      {"(?<n>a)", "a group of the kind (?< is not supported"},
      {"(a)\\1", "\\1 is not supported"},
      {"\\bword", "\\b is not supported"},
      {"\\p{L}", "\\p is not supported"},
      {"a^b", "an anchor inside is not supported"},
      {"a$b", "an anchor inside is not supported"},
      {"^a|b", "an anchor of one alternative alone is not supported"},
      {"a|b$", "an anchor of one alternative alone is not supported"},
      {"(a", "a bracket that is not closed is not supported"},
      {"a)", "a bracket that is not opened is not supported"},
      {"[a", "a class that is not closed is not supported"},
      {"[b-a]", "an odd range is not supported"},
      {"[\\d-a]", "an odd range is not supported"},
      {"*a", "a lone * is not supported"},
      {"a**", "a repetition of a repetition is not supported"},
      {"a{2", "a repetition that is not {m}, {m,} or {m,n} is not supported"},
      {"a{3,2}", "a repetition that is not {m}, {m,} or {m,n} is not supported"},
      {"a{x}", "a brace without a number is not supported"},
      {"a{1001}", "more than 1000 repetitions is not supported"},
      {"a\\", "a backslash at the end is not supported"},
      {"\\u12", "a character's number that is not of 4 digits is not supported"},
      {"\xC3", "it is not UTF-8 is not supported"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(errorOfPattern(c.pattern), testing::EndsWith(std::string(": ") + c.reason))
        << c.pattern;
  }
}

TEST(ConstraintPattern, LargePatternsAreRefusedInTime) {
  EXPECT_THAT(errorOfPattern("^[ab]*a[ab]{30}$"),
              testing::HasSubstr("it needs more than 200 states"));
  EXPECT_THAT(errorOfPattern("((((a{1000}){1000}){1000}){1000}){1000}"),
              testing::HasSubstr("it is too large"));
  std::string deep(5000, '(');
  EXPECT_THAT(errorOfPattern(deep), testing::HasSubstr("groups deeper than 100"));
  PatternAutomaton automaton;
  EXPECT_FALSE(
      PatternAutomaton::compile("(.*.*.*.*.*.*.*.*a){200}", 0, 1000, 60000, automaton).ok());
}

TEST(ConstraintPattern, WhatNoTextMatchesIsRefused) {
  EXPECT_THAT(errorOfPattern("^[]$"), testing::HasSubstr("no text matches it"));
  EXPECT_THAT(errorOfPattern("^\\u0001$"), testing::HasSubstr("no text matches it"));
  PatternAutomaton automaton;
  EXPECT_FALSE(PatternAutomaton::compile("^a$", 2, 3, 100, automaton).ok());
}

}  // namespace
}  // namespace zem::text
