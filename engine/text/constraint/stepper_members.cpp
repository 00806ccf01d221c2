// SPDX-License-Identifier: Apache-2.0
// Arrays, objects, and the arguments of tool calls.
#include <algorithm>
#include <string_view>
#include <utility>

#include "engine/text/constraint/stepper.h"

namespace zem::text::grammar {
namespace {

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

constexpr uint8_t kMayBeAdditional = 1;  // flags of a key: it may have a name that is not declared
constexpr uint8_t kKeyEscape = 2;        // and its last byte was a backslash
constexpr uint8_t kMayBegin = 1;         // flags of a tag: it may be that of an argument
constexpr uint8_t kMayEnd = 2;           // or the end of all
constexpr uint32_t kAdditional = kMostProperties;  // in place of a property's index

constexpr std::string_view kArgumentBegin = "<parameter=";
constexpr std::string_view kArgumentEnd = "\n</parameter>\n";
constexpr std::string_view kArgumentsEnd = "</function>";

}  // namespace

RuleId Stepper::itemOf(const Array& array, uint32_t index) const {
  return index < array.first.size() ? array.first[index] : array.item;
}

bool Stepper::mayGoOn(const Array& array, const Frame& top) const {
  return top.a < array.most && fits(itemOf(array, top.a), top.depth);
}

// a: elements.
void Stepper::step(const Array& array, Way way) {
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

bool Stepper::isSeen(const Frame& top, size_t index) {
  return (top.bits[index / 64] >> (index % 64) & 1) != 0;
}

bool Stepper::isUsable(const std::vector<Property>& properties, const Frame& top,
                       size_t index) const {
  return !isSeen(top, index) && fits(properties[index].value, top.depth);
}

bool Stepper::anyUsable(const std::vector<Property>& properties, const Frame& top, size_t from,
                        size_t to) const {
  for (size_t i = from; i < to; ++i) {
    if (isUsable(properties, top, i)) return true;
  }
  return false;
}

bool Stepper::allRequiredSeen(const std::vector<Property>& properties, const Frame& top) {
  for (size_t i = 0; i < properties.size(); ++i) {
    if (properties[i].required && !isSeen(top, i)) return false;
  }
  return true;
}

bool Stepper::mayBeAdditional(const Object& object, const Frame& top) const {
  return object.additional != kNoRule && fits(object.additional, top.depth);
}

// a, b: the properties that the key still matches, c: bytes of it; then c: which it is.
void Stepper::step(const Object& object, Way way) {
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
    const RuleId value = top.c == kAdditional ? object.additional : object.properties[top.c].value;
    top.c = 0;
    beginBehind(std::move(way), AfterMember, value);
  }
}

void Stepper::beginKey(const Object& object, Way way) {
  Frame& top = way.top;
  top.a = 0;
  top.b = static_cast<uint32_t>(object.properties.size());
  top.c = 0;
  top.flags = mayBeAdditional(object, top) ? kMayBeAdditional : 0;
  if (top.flags != 0 || anyUsable(object.properties, top, 0, top.b)) enter(way, Key);
}

void Stepper::stepKey(const Object& object, Way way) {
  Frame& top = way.top;
  const bool escaped = (top.flags & kKeyEscape) != 0;
  if (byte_ == '"' && !escaped) return endKey(object, std::move(way));
  narrow(top, [&](uint32_t i) -> std::string_view { return object.properties[i].name; });
  // Other names have no backslash: they could spell a declared one.
  bool additional = (top.flags & kMayBeAdditional) != 0;
  additional = additional && byte_ != '\\' && byte_ >= 0x20 && readUtf8(top.utf8, byte_);
  if (!additional) top.utf8 = kWholeCharacter;
  if (!additional && !anyUsable(object.properties, top, top.a, top.b)) return;
  top.flags = additional ? kMayBeAdditional : 0;
  if (byte_ == '\\' && !escaped) top.flags |= kKeyEscape;
  if (top.a == top.b) {  // no declared name any more: all others are one
    top.a = top.b = 0;
    top.c = 1;
  }
  keep(std::move(way));
}

void Stepper::endKey(const Object& object, Way way) {
  Frame& top = way.top;
  const bool declared = top.a < top.b && object.properties[top.a].name.size() == top.c;
  if (declared) {
    if (!isUsable(object.properties, top, top.a)) return;
    top.bits[top.a / 64] |= uint64_t{1} << (top.a % 64);
    top.c = top.a;
  } else {
    if ((top.flags & kMayBeAdditional) == 0 || top.utf8 != kWholeCharacter) return;
    top.c = kAdditional;
  }
  top.a = top.b = 0;
  top.flags = 0;
  enter(way, AfterKey);
}

// As an object. c: bytes of a tag, of a name; then which argument it is.
void Stepper::step(const Arguments& arguments, Way way) {
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

void Stepper::stepTag(const Arguments& arguments, Way way) {
  Frame& top = way.top;
  const auto& properties = arguments.properties;
  if (top.c == 0) {
    top.flags = anyUsable(properties, top, 0, properties.size()) ? kMayBegin : 0;
    if (allRequiredSeen(properties, top)) top.flags |= kMayEnd;
  }
  const auto goesOn = [&](std::string_view tag) { return tag[top.c] == static_cast<char>(byte_); };
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

void Stepper::stepName(const Arguments& arguments, Way way) {
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

}  // namespace zem::text::grammar
