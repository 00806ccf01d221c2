// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/machine.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace zem::text::grammar {
namespace {

constexpr size_t kMostWays = 256;
constexpr uint8_t kMostBlanks = 200;         // in a row: a line's end with its indentation
constexpr uint32_t kMostDigits = 40;         // of an unbounded number, in a row
constexpr uint32_t kMostExponentDigits = 2;  // with more, a double can overflow

constexpr std::string_view kArgumentBegin = "<parameter=";
constexpr std::string_view kArgumentEnd = "\n</parameter>\n";
constexpr std::string_view kArgumentsEnd = "</function>";
// What the text of an argument cannot hold: it would end there.
constexpr std::array<std::string_view, 2> kTextEnds = {"</parameter>", "</tool_call>"};

bool isBlankByte(uint8_t byte) {
  return byte == ' ' || byte == '\n' || byte == '\t' || byte == '\r';
}
bool isDigitByte(uint8_t byte) { return byte >= '0' && byte <= '9'; }

bool sameBelow(const Link* a, const Link* b) {
  while (a != b) {
    if (a == nullptr || b == nullptr || a->frame != b->frame) return false;
    a = a->below.get();
    b = b->below.get();
  }
  return true;
}

bool same(const Way& a, const Way& b) {
  return a.top == b.top && sameBelow(a.below.get(), b.below.get());
}

// ---- Characters of UTF-8, a byte at a time (RFC 3629)

enum Utf8 : uint8_t { Whole, One, Two, Three, AfterE0, AfterEd, AfterF0, AfterF4 };

// Goes on from `state`. False where `byte` cannot stand.
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

// What stands for a character behind a backslash; 0 for none.
uint8_t unescaped(uint8_t byte) {
  constexpr std::string_view kLetters = "bfnrt\"\\/";
  constexpr std::string_view kMeanings = "\b\f\n\r\t\"\\/";
  const size_t at = kLetters.find(static_cast<char>(byte));
  return at == std::string_view::npos ? 0 : static_cast<uint8_t>(kMeanings[at]);
}

// ---- Phases

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
enum TextPhase : uint8_t { TextBegin, Inside, Backslash, Hex, LowBackslash, LowU };
enum ArrayPhase : uint8_t { ArrayBegin, Opened, AfterItem, AfterComma };
enum ObjectPhase : uint8_t {
  ObjectBegin,
  ObjectOpened,
  Key,
  AfterKey,
  BeforeMember,
  AfterMember,
  BeforeKey
};
enum ArgumentsPhase : uint8_t { Tag, ArgumentName, NameEnd, ArgumentValue, ArgumentTail };
enum RepeatPhase : uint8_t { RepeatBegin, AfterPart, Separator };

constexpr uint8_t kNegative = 1;         // flags of a number
constexpr uint8_t kMayBeAdditional = 1;  // flags of a key: it may have a name that is not declared
constexpr uint8_t kKeyEscape = 2;        // and its last byte was a backslash
constexpr uint8_t kMayBegin = 1;         // flags of a tag: it may be that of an argument
constexpr uint8_t kMayEnd = 2;           // or the end of all
constexpr uint8_t kLowHalf = 1;          // flags of a text: the digits are those of a low surrogate
constexpr uint32_t kAdditional = kMostProperties;  // in place of a property's index

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

 private:
  void keep(Way way) {
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

  // The rule begins with the byte. The top of `way` is behind it already.
  void begin(Way way, RuleId rule) {
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

  static Way below(const Way& way) { return {way.below->frame, way.below->below}; }

  // The rule ends with the byte.
  void endWith(const Way& way) { keep(below(way)); }
  // The rule has ended before the byte.
  void endBefore(const Way& way) { step(below(way)); }

  // Takes a blank.
  bool skip(Way& way) {
    if (!isBlankByte(byte_) || way.top.blanks == kMostBlanks) return false;
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

  void stepDocument(Way way) {
    const bool mayBeBlank = byte_ == '\n' || !grammar_.newlinesOnly;
    if ((mayBeBlank && skip(way)) || way.top.phase == AfterValue) return;
    beginBehind(std::move(way), AfterValue, grammar_.root);
  }

  void step(const Choice&, Way) {}  // begin() takes the options instead

  // a, b: the texts that still match; c: bytes of them.
  void step(const Words& words, Way way) {
    Frame& top = way.top;
    if (top.c == 0) top.b = static_cast<uint32_t>(words.texts.size());
    narrow(top, [&](uint32_t i) -> std::string_view { return words.texts[i]; });
    if (top.a == top.b) return;
    const bool whole = words.texts[top.a].size() == top.c;
    if (whole) endWith(way);
    if (!whole || top.b - top.a > 1) keep(std::move(way));
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

  void step(const Number& number, Way way) {
    if (number.bounded) {
      stepBounded(number, std::move(way));
    } else {
      stepUnbounded(number, std::move(way));
    }
  }

  // a: digits in a row.
  void stepUnbounded(const Number& number, Way way) {
    Frame& top = way.top;
    const auto to = [&](uint8_t phase) {
      top.a = top.phase == phase ? top.a + 1 : 1;
      top.phase = phase;
      keep(std::move(way));
    };
    const bool whole = top.phase == Zero || top.phase == Digits || top.phase == Fraction;
    switch (top.phase) {
      case NumberBegin:
        if (byte_ == '-') return to(Minus);
        [[fallthrough]];
      case Minus:
        if (byte_ == '0') return to(Zero);
        if (isDigitByte(byte_)) return to(Digits);
        return;
      case Digits:
        if (isDigitByte(byte_) && top.a < kMostDigits) return to(Digits);
        break;
      case Point:
      case Fraction:
        if (isDigitByte(byte_) && (top.phase == Point || top.a < kMostDigits)) return to(Fraction);
        break;
      case Exponent:
        if (byte_ == '+' || byte_ == '-') return to(ExponentSign);
        [[fallthrough]];
      case ExponentSign:
      case ExponentDigits:
        if (isDigitByte(byte_) && (top.phase != ExponentDigits || top.a < kMostExponentDigits)) {
          return to(ExponentDigits);
        }
        break;
      default:
        break;
    }
    if (!number.integer && byte_ == '.' && (top.phase == Zero || top.phase == Digits)) {
      return to(Point);
    }
    if (!number.integer && (byte_ == 'e' || byte_ == 'E') && whole) return to(Exponent);
    if (whole || top.phase == ExponentDigits) endBefore(way);
  }

  static NumberPrefix prefixOf(const Frame& top) {
    NumberPrefix prefix;
    prefix.negative = (top.flags & kNegative) != 0;
    prefix.pointed = top.phase == Point || top.phase == Fraction;
    prefix.digits = top.a;
    prefix.magnitude = static_cast<Scaled>(top.bits[1]) * kScaledOne + top.bits[0];
    return prefix;
  }

  // a: digits in front of the point, or behind it; bits: the magnitude's fraction and whole.
  void stepBounded(const Number& number, Way way) {
    Frame& top = way.top;
    const NumberPrefix before = prefixOf(top);
    NumberPrefix after = before;
    const bool whole = top.phase == Zero || top.phase == Digits;
    if (byte_ == '-' && top.phase == NumberBegin) {
      top.phase = Minus;
      top.flags = kNegative;
      after.negative = true;
    } else if (byte_ == '.' && whole && !number.integer) {
      top.phase = Point;
      after.pointed = true;
      after.digits = 0;
    } else if (isDigitByte(byte_) && top.phase != Zero && top.a < kBoundedDigits) {
      after = before.with(byte_ - uint32_t{'0'});
      top.phase = after.pointed ? Fraction : before.digits == 0 && byte_ == '0' ? Zero : Digits;
    } else {
      if ((whole || top.phase == Fraction) && isInside(number.bounds, before)) endBefore(way);
      return;
    }
    if (!canGetInside(number.bounds, after)) return;
    top.a = after.digits;
    top.bits = {static_cast<uint64_t>(after.magnitude % kScaledOne),
                static_cast<uint64_t>(after.magnitude / kScaledOne)};
    keep(std::move(way));
  }

  void step(const Text& text, Way way) {
    if (text.pattern != kUnlimited && way.top.c == 0) way.top.c = PatternAutomaton::kStart;
    if (text.quoted) {
      stepQuoted(text, std::move(way));
    } else {
      stepRaw(text, std::move(way));
    }
  }

  bool mayEnd(const Text& text, const Frame& top) const {
    if (top.utf8 != Whole) return false;
    if (text.pattern != kUnlimited)
      return grammar_.patterns[text.pattern].accepts(static_cast<uint16_t>(top.c));
    return top.b >= text.least;
  }

  // Counts a character, or follows the pattern. b: characters; c: the pattern's state.
  bool take(const Text& text, Frame& top, uint8_t byte) const {
    if (text.pattern != kUnlimited) {
      top.c = grammar_.patterns[text.pattern].next(static_cast<uint16_t>(top.c), byte);
      return top.c != PatternAutomaton::kDead;
    }
    if ((byte & 0xC0) == 0x80) return true;
    const size_t least = text.least;
    if (text.most == kUnlimited && top.b >= least) return true;  // need not be counted
    return ++top.b <= text.most;
  }

  void stepQuoted(const Text& text, Way way) {
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
  bool mayEscape(const Text& text, const Frame& top) const {
    if (text.pattern == kUnlimited) return text.most == kUnlimited || top.b < text.most;
    for (const char letter : std::string_view("bfnrt\"\\/")) {
      Frame next = top;
      if (take(text, next, unescaped(static_cast<uint8_t>(letter)))) return true;
    }
    return false;
  }

  // a: hexadecimal digits so far, below a leading 1 that tells how many.
  void stepEscape(const Text& text, Way way) {
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
  void stepHex(const Text& text, Way way) {
    Frame& top = way.top;
    const bool low = (top.flags & kLowHalf) != 0;
    const uint8_t lower = byte_ | 0x20;
    const bool letter = lower >= 'a' && lower <= 'f';
    if (!isDigitByte(byte_) && !letter) return;
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
  void stepRaw(const Text& text, Way way) {
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

  RuleId itemOf(const Array& array, uint32_t index) const {
    return index < array.first.size() ? array.first[index] : array.item;
  }
  bool mayGoOn(const Array& array, const Frame& top) const {
    return top.a < array.most && fits(itemOf(array, top.a), top.depth);
  }

  // a: elements.
  void step(const Array& array, Way way) {
    Frame& top = way.top;
    if (top.phase == ArrayBegin) {
      if (byte_ == '[') enter(way, Opened);
      return;
    }
    if (skip(way)) return;
    if (byte_ == ']' && top.phase != AfterComma) {
      if (top.a >= array.least) endWith(way);
    } else if (top.phase == AfterItem) {
      if (byte_ == ',' && mayGoOn(array, top)) enter(way, AfterComma);
    } else if (mayGoOn(array, top)) {
      const RuleId item = itemOf(array, top.a);
      // Beyond what is counted, a number says only "enough".
      if (array.most != kUnlimited || top.a < std::max(array.least, array.first.size())) ++top.a;
      beginBehind(std::move(way), AfterItem, item);
    }
  }

  static bool isSeen(const Frame& top, size_t index) {
    return (top.bits[index / 64] >> (index % 64) & 1) != 0;
  }
  bool isUsable(const std::vector<Property>& properties, const Frame& top, size_t index) const {
    return !isSeen(top, index) && fits(properties[index].value, top.depth);
  }
  bool anyUsable(const std::vector<Property>& properties, const Frame& top, size_t from,
                 size_t to) const {
    for (size_t i = from; i < to; ++i) {
      if (isUsable(properties, top, i)) return true;
    }
    return false;
  }
  static bool allRequiredSeen(const std::vector<Property>& properties, const Frame& top) {
    for (size_t i = 0; i < properties.size(); ++i) {
      if (properties[i].required && !isSeen(top, i)) return false;
    }
    return true;
  }
  bool mayBeAdditional(const Object& object, const Frame& top) const {
    return object.additional != kNoRule && fits(object.additional, top.depth);
  }

  // a, b: the properties that the key still matches, c: bytes of it; then c: which it is.
  void step(const Object& object, Way way) {
    Frame& top = way.top;
    switch (top.phase) {
      case ObjectBegin:
        if (byte_ == '{') enter(way, ObjectOpened);
        return;
      case Key:
        return stepKey(object, std::move(way));
      default:
        break;
    }
    if (skip(way)) return;
    const bool mayEnd = top.phase == ObjectOpened || top.phase == AfterMember;
    if (byte_ == '}' && mayEnd) {
      if (allRequiredSeen(object.properties, top)) endWith(way);
    } else if (byte_ == '"' && (top.phase == ObjectOpened || top.phase == BeforeKey)) {
      beginKey(object, std::move(way));
    } else if (byte_ == ',' && top.phase == AfterMember) {
      if (mayBeAdditional(object, top) ||
          anyUsable(object.properties, top, 0, object.properties.size())) {
        enter(way, BeforeKey);
      }
    } else if (byte_ == ':' && top.phase == AfterKey) {
      enter(way, BeforeMember);
    } else if (top.phase == BeforeMember) {
      const RuleId value =
          top.c == kAdditional ? object.additional : object.properties[top.c].value;
      top.c = 0;
      beginBehind(std::move(way), AfterMember, value);
    }
  }

  void beginKey(const Object& object, Way way) {
    Frame& top = way.top;
    top.a = 0;
    top.b = static_cast<uint32_t>(object.properties.size());
    top.c = 0;
    top.flags = mayBeAdditional(object, top) ? kMayBeAdditional : 0;
    if (top.flags != 0 || anyUsable(object.properties, top, 0, top.b)) enter(way, Key);
  }

  void stepKey(const Object& object, Way way) {
    Frame& top = way.top;
    const bool escaped = (top.flags & kKeyEscape) != 0;
    if (byte_ == '"' && !escaped) return endKey(object, std::move(way));
    narrow(top, [&](uint32_t i) -> std::string_view { return object.properties[i].name; });
    // Other names have no backslash: they could spell a declared one.
    bool additional = (top.flags & kMayBeAdditional) != 0;
    additional = additional && byte_ != '\\' && byte_ >= 0x20 && readUtf8(top.utf8, byte_);
    if (!additional) top.utf8 = Whole;
    if (!additional && !anyUsable(object.properties, top, top.a, top.b)) return;
    top.flags = additional ? kMayBeAdditional : 0;
    if (byte_ == '\\' && !escaped) top.flags |= kKeyEscape;
    if (top.a == top.b) {  // no declared name any more: all others are one
      top.a = top.b = 0;
      top.c = 1;
    }
    keep(std::move(way));
  }

  void endKey(const Object& object, Way way) {
    Frame& top = way.top;
    const bool declared = top.a < top.b && object.properties[top.a].name.size() == top.c;
    if (declared) {
      if (!isUsable(object.properties, top, top.a)) return;
      top.bits[top.a / 64] |= uint64_t{1} << (top.a % 64);
      top.c = top.a;
    } else {
      if ((top.flags & kMayBeAdditional) == 0 || top.utf8 != Whole) return;
      top.c = kAdditional;
    }
    top.a = top.b = 0;
    top.flags = 0;
    enter(way, AfterKey);
  }

  // As an object. c: bytes of a tag, of a name; then which argument it is.
  void step(const Arguments& arguments, Way way) {
    Frame& top = way.top;
    switch (top.phase) {
      case Tag:
        return stepTag(arguments, std::move(way));
      case ArgumentName:
        return stepName(arguments, std::move(way));
      case NameEnd:
        if (byte_ == '\n') enter(way, ArgumentValue);
        return;
      case ArgumentValue: {
        const RuleId value = arguments.properties[top.c].value;
        top.c = 0;
        return beginBehind(std::move(way), ArgumentTail, value);
      }
      default:
        break;
    }
    if (byte_ != static_cast<uint8_t>(kArgumentEnd[top.c])) return;
    if (++top.c < kArgumentEnd.size()) return keep(std::move(way));
    top.c = 0;
    enter(way, Tag);
  }

  void stepTag(const Arguments& arguments, Way way) {
    Frame& top = way.top;
    const auto& properties = arguments.properties;
    if (top.c == 0) {
      top.flags = anyUsable(properties, top, 0, properties.size()) ? kMayBegin : 0;
      if (allRequiredSeen(properties, top)) top.flags |= kMayEnd;
    }
    const auto goesOn = [&](std::string_view tag) {
      return tag[top.c] == static_cast<char>(byte_);
    };
    if ((top.flags & kMayBegin) != 0 && !goesOn(kArgumentBegin)) top.flags &= kMayEnd;
    if ((top.flags & kMayEnd) != 0 && !goesOn(kArgumentsEnd)) top.flags &= kMayBegin;
    if (top.flags == 0) return;
    ++top.c;
    if (top.flags == kMayEnd && top.c == kArgumentsEnd.size()) return endWith(way);
    if (top.flags != kMayBegin || top.c < kArgumentBegin.size()) return keep(std::move(way));
    top.a = 0;
    top.b = static_cast<uint32_t>(properties.size());
    top.c = 0;
    top.flags = 0;
    enter(way, ArgumentName);
  }

  void stepName(const Arguments& arguments, Way way) {
    Frame& top = way.top;
    const auto& properties = arguments.properties;
    if (byte_ == '>') {
      const bool whole = top.a < top.b && properties[top.a].name.size() == top.c;
      if (!whole || !isUsable(properties, top, top.a)) return;
      top.bits[top.a / 64] |= uint64_t{1} << (top.a % 64);
      top.c = top.a;
      top.a = top.b = 0;
      return enter(way, NameEnd);
    }
    narrow(top, [&](uint32_t i) -> std::string_view { return properties[i].name; });
    if (anyUsable(properties, top, top.a, top.b)) keep(std::move(way));
  }

  // a: parts that were begun.
  void step(const Sequence& sequence, Way way) {
    if (way.top.a == sequence.parts.size()) return endBefore(way);
    const RuleId part = sequence.parts[way.top.a++];
    begin(std::move(way), part);
  }

  // a: parts that were begun; c: bytes of the separator.
  void step(const Repeat& repeat, Way way) {
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

  const Grammar& grammar_;
  uint8_t byte_;
  Ways& out_;
};

// ---- Ends

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
