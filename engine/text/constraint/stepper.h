// SPDX-License-Identifier: Apache-2.0
/// \file
/// Advances a way, a stack of begun rules, by one byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "engine/text/constraint/grammar.h"
#include "engine/text/constraint/machine.h"

namespace zem::text::grammar {

// Frame::phase of what may end without a byte of its own.
enum DocumentPhase : uint8_t { BeforeValue, AfterValue };
enum NumberPhase : uint8_t {
  NumberBegin,
  Minus,
  Zero,
  Digits,
  Point,
  Fraction,
  Exponent,
  ExponentSign,
  ExponentDigits
};
enum RepeatPhase : uint8_t { RepeatBegin, AfterPart, Separator };

constexpr uint8_t kNegative = 1;        // flags of a number
constexpr uint8_t kWholeCharacter = 0;  // utf8: none is begun

inline bool isDigit(uint8_t byte) { return byte >= '0' && byte <= '9'; }

/// Goes on from `state`, a Frame::utf8, with a byte of UTF-8 (RFC 3629).
/// False where it cannot stand.
bool readUtf8(uint8_t& state, uint8_t byte);

/// Gives a byte to ways; what goes on is put into a list.
class Stepper {
 public:
  Stepper(const Grammar& grammar, uint8_t byte, Ways& out)
      : grammar_(grammar), byte_(byte), out_(out) {}

  // Gives the byte to the top of `way`.
  void step(Way way) {
    if (way.top.rule == kNoRule) {
      stepDocument(std::move(way));
      return;
    }
    std::visit([&](const auto& rule) { step(rule, std::move(way)); }, grammar_.rules[way.top.rule]);
  }

  static bool same(const Way& a, const Way& b) {
    return a.top == b.top && sameBelow(a.below.get(), b.below.get());
  }

 private:
  static bool sameBelow(const Link* a, const Link* b) {
    while (a != b) {
      if (a == nullptr || b == nullptr || a->frame != b->frame) return false;
      a = a->below.get();
      b = b->below.get();
    }
    return true;
  }

  void keep(Way way) {
    constexpr size_t kMostWays = 256;
    if (out_.size() == kMostWays) return;
    for (const Way& other : out_) {
      if (same(other, way)) return;
    }
    out_.push_back(std::move(way));
  }

  bool fits(RuleId rule, uint16_t depth) const {
    const size_t height = grammar_.heights[rule];
    return height != kUnlimited && depth + height <= grammar_.mostDepth;
  }

  static Way below(const Way& way) { return {way.below->frame, way.below->below}; }

  // The rule ends with the byte.
  void endWith(const Way& way) { keep(below(way)); }

  // The rule has ended before the byte.
  void endBefore(const Way& way) { step(below(way)); }

  // Takes a blank.
  bool skip(Way& way) {
    constexpr uint8_t kMostBlanks = 200;  // in a row: a line's end with its indentation
    const bool blank = byte_ == ' ' || byte_ == '\n' || byte_ == '\t' || byte_ == '\r';
    if (!blank || way.top.blanks == kMostBlanks) return false;
    ++way.top.blanks;
    keep(std::move(way));
    return true;
  }

  void enter(Way& way, uint8_t phase) {
    way.top.phase = phase;
    way.top.blanks = 0;
    keep(std::move(way));
  }

  void beginBehind(Way way, uint8_t phase, RuleId rule) {
    way.top.phase = phase;
    way.top.blanks = 0;
    begin(std::move(way), rule);
  }

  // Of the sorted texts from top.a to top.b leaves those that go on with the byte.
  template <typename TextAt>
  void narrow(Frame& top, TextAt&& textAt) const {
    const auto byteAt = [&](uint32_t i) {
      const std::string_view text = textAt(i);
      return top.c < text.size() ? static_cast<uint8_t>(text[top.c]) : -1;
    };
    while (top.a < top.b && byteAt(top.a) < byte_) ++top.a;
    uint32_t end = top.a;
    while (end < top.b && byteAt(end) == byte_) ++end;
    top.b = end;
    ++top.c;
  }

  void begin(Way way, RuleId rule);
  void stepDocument(Way way);
  void step(const Choice&, Way) {}  // begin() takes the options instead
  void step(const Words& words, Way way);
  void step(const Sequence& sequence, Way way);
  void step(const Repeat& repeat, Way way);

  // stepper_numbers.cpp
  void step(const Number& number, Way way);
  void stepUnbounded(const Number& number, Way way);
  static NumberPrefix prefixOf(const Frame& top);
  void stepBounded(const Number& number, Way way);

  // stepper_texts.cpp
  void step(const Text& text, Way way);
  bool mayEnd(const Text& text, const Frame& top) const;
  bool take(const Text& text, Frame& top, uint8_t byte) const;
  void stepQuoted(const Text& text, Way way);
  bool mayEscape(const Text& text, const Frame& top) const;
  void stepEscape(const Text& text, Way way);
  void stepHex(const Text& text, Way way);
  void stepRaw(const Text& text, Way way);

  // stepper_members.cpp
  RuleId itemOf(const Array& array, uint32_t index) const;
  bool mayGoOn(const Array& array, const Frame& top) const;
  void step(const Array& array, Way way);
  static bool isSeen(const Frame& top, size_t index);
  bool isUsable(const std::vector<Property>& properties, const Frame& top, size_t index) const;
  bool anyUsable(const std::vector<Property>& properties, const Frame& top, size_t from,
                 size_t to) const;
  static bool allRequiredSeen(const std::vector<Property>& properties, const Frame& top);
  bool mayBeAdditional(const Object& object, const Frame& top) const;
  void step(const Object& object, Way way);
  void beginKey(const Object& object, Way way);
  void stepKey(const Object& object, Way way);
  void endKey(const Object& object, Way way);
  void step(const Arguments& arguments, Way way);
  void stepTag(const Arguments& arguments, Way way);
  void stepName(const Arguments& arguments, Way way);

  const Grammar& grammar_;
  uint8_t byte_;
  Ways& out_;
};

}  // namespace zem::text::grammar
