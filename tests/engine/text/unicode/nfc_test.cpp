// SPDX-License-Identifier: Apache-2.0
// NFC against the published conformance test, a checksum over all points, and what
// has to hold of any text.
#include "engine/text/unicode/nfc.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/text/unicode/tables.h"
#include "engine/text/unicode/test_data.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text::unicode {
namespace {

using test::isSurrogate;
using test::linesOf;
using test::textOfPoint;
using test::textOfPoints;

TEST(NfcTest, PublishedTestHolds) {
  for (const std::string& line : linesOf("nfc.txt")) {
    std::istringstream in(line);
    std::string source;
    std::string nfc;
    std::string nfd;
    std::getline(in, source, ';');
    std::getline(in, nfc, ';');
    std::getline(in, nfd, ';');
    const std::string expected = textOfPoints(nfc);
    EXPECT_EQ(toNfc(textOfPoints(source)), expected) << line;
    EXPECT_EQ(toNfc(expected), expected) << line;
    EXPECT_EQ(toNfc(textOfPoints(nfd)), expected) << line;
  }
}

uint64_t checksum(const std::function<std::string(uint32_t)>& make) {
  uint64_t hash = 0xCBF29CE484222325U;
  for (uint32_t point = 0; point < kPoints; ++point) {
    if (isSurrogate(point)) continue;
    for (const char c : make(point) + "\n") {
      hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3U;
    }
  }
  return hash;
}

uint64_t publishedChecksum(const std::string& name) {
  for (const std::string& line : linesOf("nfc_checksums.txt")) {
    if (line.starts_with(name + " ")) {
      return std::stoull(line.substr(name.size() + 1), nullptr, 16);
    }
  }
  throw std::runtime_error("no checksum " + name);
}

TEST(NfcTest, EveryPointAloneGivesWhatAnotherNormaliserGives) {
  EXPECT_EQ(checksum([](uint32_t point) { return toNfc(textOfPoint(point)); }),
            publishedChecksum("alone"));
}

TEST(NfcTest, EveryPointAmongMarksGivesWhatAnotherNormaliserGives) {
  const std::string before = textOfPoints("0061 0315 0300 05AE");
  EXPECT_EQ(checksum([&](uint32_t point) { return toNfc(before + textOfPoint(point) + "b"); }),
            publishedChecksum("among_marks"));
}

TEST(NfcTest, EveryHangulSyllableIsMadeOfItsParts) {
  for (uint32_t lead = 0; lead < 19; ++lead) {
    for (uint32_t vowel = 0; vowel < 21; ++vowel) {
      const std::string open = textOfPoint(0x1100 + lead) + textOfPoint(0x1161 + vowel);
      const uint32_t syllable = 0xAC00 + (lead * 21 + vowel) * 28;
      ASSERT_EQ(toNfc(open), textOfPoint(syllable));
      for (uint32_t tail = 1; tail < 28; ++tail) {
        ASSERT_EQ(toNfc(open + textOfPoint(0x11A7 + tail)), textOfPoint(syllable + tail));
        ASSERT_EQ(toNfc(textOfPoint(syllable) + textOfPoint(0x11A7 + tail)),
                  textOfPoint(syllable + tail));
      }
    }
  }
}

TEST(NfcTest, HangulPartsThatDoNotFitStayApart) {
  for (const char* points : {"AC00 11A7",       // one before the tails
                             "AC01 11A8",       // has a tail already
                             "1100 11A8",       // no vowel
                             "1161 11A8",       // no lead
                             "1100 0300 1161",  // a mark in between
                             "1113 1161",       // an old lead
                             "1100 1176",       // an old vowel
                             "AC00 11C3"}) {    // an old tail
    EXPECT_EQ(toNfc(textOfPoints(points)), textOfPoints(points)) << points;
  }
}

TEST(NfcTest, PointsAssignedAfterVersion9AreInert) {
  // U+11347 + U+1133E compose since 7.0, U+11382 + U+113C9 only since 16.0.
  EXPECT_EQ(toNfc(textOfPoints("11347 1133E")), textOfPoints("1134B"));
  EXPECT_EQ(toNfc(textOfPoints("11382 113C9")), textOfPoints("11382 113C9"));
  // U+0897 has the class 230 since 16.0: nothing moves across it.
  EXPECT_EQ(toNfc(textOfPoints("0061 0897 0323")), textOfPoints("0061 0897 0323"));
}

TEST(NfcTest, EmptyAndPlainTextsStay) {
  for (const std::string text : {"", "a", "plain text\r\n", "Größe 日本語 😀"}) {
    EXPECT_EQ(toNfc(text), text);
    EXPECT_EQ(nfcLength(text), text.size());
  }
}

TEST(NfcTest, NormalLengthEndsBeforeWhatMayJoin) {
  EXPECT_EQ(nfcLength("abe\xCC\x81z"), 2U);  // e and the accent
  EXPECT_EQ(nfcLength("e\xCC\x81z"), 0U);
  EXPECT_EQ(nfcLength("ab\xCC\x85z"), 5U);  // overline: joins with nothing
}

// Normalising parts, and normalising twice, changes nothing.
TEST(NfcTest, RandomTextsKeepTheirForm) {
  const std::vector<uint32_t> points = {
      'a',    'e',   0xE9,  0x301, 0x323, 0x5AE, 0x305, 0x345, 0x1100, 0x1161,  0x11A8, 0xAC00,
      0x212B, 0x3B1, 0x313, 0x342, 0xE48, 0xE38, 0x9C7, 0x9BE, 0x9D7,  0x2F800, ' ',    '\n'};
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (size_t n = random() % 12; n > 0; --n) appendUtf8(points[random() % points.size()], text);
    const std::string nfc = toNfc(text);
    ASSERT_EQ(toNfc(nfc), nfc);
    ASSERT_EQ(wellFormedLength(nfc), nfc.size());
    const size_t length = nfcLength(text);
    ASSERT_EQ(text.substr(0, length) + toNfc(text.substr(length)), nfc);
  }
}

TEST(NfcTest, LongRunsOfMarksAreOrdered) {
  std::string text = "a";
  std::string low;
  std::string high;
  for (int i = 0; i < 100000; ++i) {
    text += "\xCC\x80\xCC\xA3";  // U+0300 (230), U+0323 (220)
    low += "\xCC\xA3";
    high += "\xCC\x80";
  }
  // The first U+0323 joins with the letter; it bars none of the U+0300 behind it.
  EXPECT_EQ(toNfc(text), "\xE1\xBA\xA1" + low.substr(2) + high);
}

}  // namespace
}  // namespace zem::text::unicode
