// SPDX-License-Identifier: Apache-2.0
#include "engine/text/unicode/utf8.h"

#include <algorithm>
#include <cstring>

namespace zem::text {
namespace {

// The second byte's range depends on the first one: no long forms, no surrogates,
// nothing beyond U+10FFFF.
struct SecondByte {
  uint8_t low;
  uint8_t high;
};

SecondByte secondByteAfter(uint8_t lead) {
  switch (lead) {
    case 0xE0:
      return {0xA0, 0xBF};
    case 0xED:
      return {0x80, 0x9F};
    case 0xF0:
      return {0x90, 0xBF};
    case 0xF4:
      return {0x80, 0x8F};
    default:
      return {0x80, 0xBF};
  }
}

size_t asciiLength(std::string_view bytes) {
  constexpr uint64_t kHighBits = 0x8080808080808080U;
  size_t at = 0;
  for (; at + 8 <= bytes.size(); at += 8) {
    uint64_t word = 0;
    std::memcpy(&word, bytes.data() + at, sizeof(word));
    if ((word & kHighBits) != 0) break;
  }
  while (at < bytes.size() && static_cast<uint8_t>(bytes[at]) < 0x80) ++at;
  return at;
}

}  // namespace

Utf8Start utf8Start(std::string_view bytes) {
  using State = Utf8Start::State;
  const auto lead = static_cast<uint8_t>(bytes[0]);
  if (lead < 0x80) return {State::Whole, 1, lead};
  if (lead < 0xC2 || lead > 0xF4) return {State::Invalid, 1, 0};
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  const SecondByte second = secondByteAfter(lead);
  uint32_t point = lead & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    if (i == bytes.size()) return {State::Cut, i, 0};
    const auto byte = static_cast<uint8_t>(bytes[i]);
    const uint8_t low = i == 1 ? second.low : 0x80;
    const uint8_t high = i == 1 ? second.high : 0xBF;
    if (byte < low || byte > high) return {State::Invalid, i, 0};
    point = point << 6U | (byte & 0x3FU);
  }
  return {State::Whole, length, point};
}

size_t wellFormedLength(std::string_view bytes) {
  size_t at = 0;
  for (;;) {
    at += asciiLength(bytes.substr(at));
    if (at == bytes.size()) return at;
    const Utf8Start start = utf8Start(bytes.substr(at));
    if (start.state != Utf8Start::State::Whole) return at;
    at += start.length;
  }
}

void appendWellFormed(std::string_view bytes, std::string& out) {
  while (!bytes.empty()) {
    const size_t length = wellFormedLength(bytes);
    out.append(bytes.substr(0, length));
    bytes.remove_prefix(length);
    if (bytes.empty()) return;
    out.append(kReplacement);
    bytes.remove_prefix(utf8Start(bytes).length);
  }
}

void appendUtf8(uint32_t point, std::string& out) {
  const auto put = [&out](uint32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (point < 0x80) {
    put(point);
    return;
  }
  if (point < 0x800) {
    put(0xC0U | point >> 6U);
  } else if (point < 0x10000) {
    put(0xE0U | point >> 12U);
    put(0x80U | (point >> 6U & 0x3FU));
  } else {
    put(0xF0U | point >> 18U);
    put(0x80U | (point >> 12U & 0x3FU));
    put(0x80U | (point >> 6U & 0x3FU));
  }
  put(0x80U | (point & 0x3FU));
}

}  // namespace zem::text
