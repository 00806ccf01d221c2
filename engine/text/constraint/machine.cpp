// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/machine.h"

#include <algorithm>
#include <utility>

#include "engine/text/constraint/stepper.h"

namespace zem::text::grammar {

// The rule begins with the byte. The top of `way` is behind it already.
void Stepper::begin(Way way, RuleId rule) {
  if (!fits(rule, way.top.depth)) return;
  if (const auto* choice = std::get_if<Choice>(&grammar_.rules[rule])) {
    for (const RuleId option : choice->options) begin(way, option);
    return;
  }
  const bool opens = std::holds_alternative<Array>(grammar_.rules[rule]) ||
                     std::holds_alternative<Object>(grammar_.rules[rule]);
  const auto depth = static_cast<uint16_t>(way.top.depth + (opens ? 1 : 0));
  way.below = std::make_shared<const Link>(Link{way.top, std::move(way.below)});
  way.top = Frame{};
  way.top.rule = rule;
  way.top.depth = depth;
  step(std::move(way));
}

void Stepper::stepDocument(Way way) {
  const bool behind = way.top.phase == AfterValue;
  const bool mayBeBlank = byte_ == '\n' || (behind && !grammar_.newlinesOnly);
  if ((mayBeBlank && skip(way)) || behind) return;
  beginBehind(std::move(way), AfterValue, grammar_.root);
}

// a, b: the texts that still match; c: bytes of them.
void Stepper::step(const Words& words, Way way) {
  Frame& top = way.top;
  if (top.c == 0) top.b = static_cast<uint32_t>(words.texts.size());
  narrow(top, [&](uint32_t i) -> std::string_view { return words.texts[i]; });
  if (top.a == top.b) return;
  const bool whole = words.texts[top.a].size() == top.c;
  if (whole) endWith(way);
  if (!whole || top.b - top.a > 1) keep(std::move(way));
}

// a: parts that were begun.
void Stepper::step(const Sequence& sequence, Way way) {
  if (way.top.a == sequence.parts.size()) return endBefore(way);
  const RuleId part = sequence.parts[way.top.a++];
  begin(std::move(way), part);
}

// a: parts that were begun; c: bytes of the separator.
void Stepper::step(const Repeat& repeat, Way way) {
  Frame& top = way.top;
  if (top.phase == AfterPart) endBefore(way);
  if (top.phase == RepeatBegin || top.c == repeat.separator.size()) {
    top.c = 0;
    if (repeat.most != kUnlimited) ++top.a;
    return beginBehind(std::move(way), AfterPart, repeat.part);
  }
  const bool more = repeat.most == kUnlimited || top.a < repeat.most;
  if (!more || static_cast<char>(byte_) != repeat.separator[top.c]) return;
  top.phase = Separator;
  ++top.c;
  keep(std::move(way));
}

namespace {

class Ender {
 public:
  explicit Ender(const Grammar& grammar) : grammar_(grammar) {}

  bool mayEnd(const Frame& frame) const {
    if (frame.rule == kNoRule) return frame.phase == AfterValue;
    return std::visit([&](const auto& rule) { return mayEnd(rule, frame); },
                      grammar_.rules[frame.rule]);
  }

 private:
  static bool mayEnd(const Number& number, const Frame& frame) {
    if (frame.phase == ExponentDigits) return true;
    if (frame.phase != Zero && frame.phase != Digits && frame.phase != Fraction) return false;
    if (!number.bounded) return true;
    NumberPrefix prefix;
    prefix.negative = (frame.flags & kNegative) != 0;
    prefix.magnitude = static_cast<Scaled>(frame.bits[1]) * kScaledOne + frame.bits[0];
    return isInside(number.bounds, prefix);
  }
  static bool mayEnd(const Sequence& sequence, const Frame& frame) {
    return frame.a == sequence.parts.size();
  }
  static bool mayEnd(const Repeat&, const Frame& frame) { return frame.phase == AfterPart; }
  // All others end with a byte of their own, or stand below others that do.
  template <typename Other>
  static bool mayEnd(const Other&, const Frame&) {
    return false;
  }

  const Grammar& grammar_;
};

}  // namespace

Ways beginning() { return {Way{}}; }

void step(const Grammar& grammar, const Ways& from, uint8_t byte, Ways& to) {
  to.clear();
  Stepper stepper(grammar, byte, to);
  for (const Way& way : from) stepper.step(way);
}

bool same(const Ways& a, const Ways& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), Stepper::same);
}

bool canEnd(const Grammar& grammar, const Ways& ways) {
  const Ender ender(grammar);
  return std::any_of(ways.begin(), ways.end(), [&](const Way& way) {
    if (!ender.mayEnd(way.top)) return false;
    for (const Link* link = way.below.get(); link != nullptr; link = link->below.get()) {
      if (!ender.mayEnd(link->frame)) return false;
    }
    return true;
  });
}

bool isOver(const Ways& ways) {
  return std::all_of(ways.begin(), ways.end(), [](const Way& way) {
    return way.top.rule == kNoRule && way.top.phase == AfterValue;
  });
}

}  // namespace zem::text::grammar
