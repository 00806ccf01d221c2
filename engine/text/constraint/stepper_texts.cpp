// SPDX-License-Identifier: Apache-2.0
// Strings of JSON, and the raw texts of tool calls.
#include <array>
#include <string_view>
#include <utility>

#include "engine/text/constraint/stepper.h"

namespace zem::text::grammar {
namespace {

enum Utf8 : uint8_t {
  Whole = kWholeCharacter,
  One,
  Two,
  Three,
  AfterE0,
  AfterEd,
  AfterF0,
  AfterF4
};
enum TextPhase : uint8_t { TextBegin, Inside, Backslash, Hex, LowBackslash, LowU };

constexpr uint8_t kLowHalf = 1;  // flags of a text: the digits are those of a low surrogate

// What the text of an argument cannot hold: it would end there.
constexpr std::array<std::string_view, 2> kTextEnds = {"</parameter>", "</tool_call>"};

// What stands for a character behind a backslash; 0 for none.
uint8_t unescaped(uint8_t byte) {
  constexpr std::string_view kLetters = "bfnrt\"\\/";
  constexpr std::string_view kMeanings = "\b\f\n\r\t\"\\/";
  const size_t at = kLetters.find(static_cast<char>(byte));
  return at == std::string_view::npos ? 0 : static_cast<uint8_t>(kMeanings[at]);
}

}  // namespace

bool readUtf8(uint8_t& state, uint8_t byte) {
  const auto between = [byte](uint8_t first, uint8_t last) {
    return byte >= first && byte <= last;
  };
  const auto to = [&state](bool allowed, Utf8 next) {
    state = next;
    return allowed;
  };
  switch (state) {
    case One:
      return to(between(0x80, 0xBF), Whole);
    case Two:
      return to(between(0x80, 0xBF), One);
    case Three:
      return to(between(0x80, 0xBF), Two);
    case AfterE0:
      return to(between(0xA0, 0xBF), One);
    case AfterEd:
      return to(between(0x80, 0x9F), One);
    case AfterF0:
      return to(between(0x90, 0xBF), Two);
    case AfterF4:
      return to(between(0x80, 0x8F), Two);
    default:
      break;
  }
  if (byte < 0x80) return true;
  if (between(0xC2, 0xDF)) return to(true, One);
  if (byte == 0xE0) return to(true, AfterE0);
  if (byte == 0xED) return to(true, AfterEd);
  if (between(0xE1, 0xEF)) return to(true, Two);
  if (byte == 0xF0) return to(true, AfterF0);
  if (byte == 0xF4) return to(true, AfterF4);
  return to(between(0xF1, 0xF3), Three);
}

void Stepper::step(const Text& text, Way way) {
  if (text.pattern != kUnlimited && way.top.c == 0) way.top.c = PatternAutomaton::kStart;
  if (text.quoted) {
    stepQuoted(text, std::move(way));
  } else {
    stepRaw(text, std::move(way));
  }
}

bool Stepper::mayEnd(const Text& text, const Frame& top) const {
  if (top.utf8 != Whole) return false;
  if (text.pattern != kUnlimited)
    return grammar_.patterns[text.pattern].accepts(static_cast<uint16_t>(top.c));
  return top.b >= text.least;
}

// Counts a character, or follows the pattern. b: characters; c: the pattern's state.
bool Stepper::take(const Text& text, Frame& top, uint8_t byte) const {
  if (text.pattern != kUnlimited) {
    top.c = grammar_.patterns[text.pattern].next(static_cast<uint16_t>(top.c), byte);
    return top.c != PatternAutomaton::kDead;
  }
  if ((byte & 0xC0) == 0x80) return true;
  const size_t least = text.least;
  if (text.most == kUnlimited && top.b >= least) return true;  // need not be counted
  return ++top.b <= text.most;
}

void Stepper::stepQuoted(const Text& text, Way way) {
  Frame& top = way.top;
  if (top.phase == TextBegin) {
    if (byte_ == '"') enter(way, Inside);
  } else if (top.phase != Inside) {
    stepEscape(text, std::move(way));
  } else if (top.utf8 == Whole && byte_ == '"') {
    if (mayEnd(text, top)) endWith(way);
  } else if (top.utf8 == Whole && byte_ == '\\') {
    if (mayEscape(text, top)) enter(way, Backslash);
  } else if (byte_ >= 0x20 && readUtf8(top.utf8, byte_) && take(text, top, byte_)) {
    keep(std::move(way));
  }
}

// A pattern is followed only where a short escape leads on.
bool Stepper::mayEscape(const Text& text, const Frame& top) const {
  if (text.pattern == kUnlimited) return text.most == kUnlimited || top.b < text.most;
  for (const char letter : std::string_view("bfnrt\"\\/")) {
    Frame next = top;
    if (take(text, next, unescaped(static_cast<uint8_t>(letter)))) return true;
  }
  return false;
}

// a: hexadecimal digits so far, below a leading 1 that tells how many.
void Stepper::stepEscape(const Text& text, Way way) {
  Frame& top = way.top;
  if (top.phase == Backslash && byte_ == 'u' && text.pattern == kUnlimited) {
    top.a = 1;
    top.flags = 0;
    return enter(way, Hex);
  }
  if (top.phase == Backslash) {
    const uint8_t meaning = unescaped(byte_);
    if (meaning != 0 && take(text, top, meaning)) enter(way, Inside);
  } else if (top.phase == LowBackslash) {
    if (byte_ == '\\') enter(way, LowU);
  } else if (top.phase == LowU) {
    top.a = 1;
    top.flags = kLowHalf;
    if (byte_ == 'u') enter(way, Hex);
  } else {
    stepHex(text, std::move(way));
  }
}

// Surrogates come in pairs, and a pair is one character.
void Stepper::stepHex(const Text& text, Way way) {
  Frame& top = way.top;
  const bool low = (top.flags & kLowHalf) != 0;
  const uint8_t lower = byte_ | 0x20;
  const bool letter = lower >= 'a' && lower <= 'f';
  if (!isDigit(byte_) && !letter) return;
  top.a = top.a << 4 | (letter ? lower - uint32_t{'a'} + 10 : byte_ - uint32_t{'0'});
  if (low && top.a >> 4 == 1 && top.a != 0x1D) return;
  const bool beginsLow = (top.a & 0xFF) >= 0xDC && (top.a & 0xFF) <= 0xDF;
  if (top.a >> 8 == 1 && beginsLow != low) return;
  if (top.a < 0x10000) return keep(std::move(way));
  const bool high = !low && (top.a & 0xFC00) == 0xD800;
  if (high) return enter(way, LowBackslash);
  top.a = 0;
  top.flags = 0;
  if (take(text, top, 'x')) enter(way, Inside);
}

// bits: how much of each of kTextEnds was read last.
void Stepper::stepRaw(const Text& text, Way way) {
  if (mayEnd(text, way.top)) endBefore(way);
  Frame& top = way.top;
  const bool control = byte_ < 0x20 && byte_ != '\n' && byte_ != '\t' && byte_ != '\r';
  if (control || !readUtf8(top.utf8, byte_) || !take(text, top, byte_)) return;
  for (size_t i = 0; i < kTextEnds.size(); ++i) {
    uint64_t& read = top.bits[i];
    // '<' is only the first byte of an end.
    read = kTextEnds[i][read] == static_cast<char>(byte_) ? read + 1 : byte_ == '<' ? 1 : 0;
    if (read == kTextEnds[i].size()) return;
  }
  keep(std::move(way));
}

}  // namespace zem::text::grammar
