// SPDX-License-Identifier: Apache-2.0
// UTF-8, well-formed or not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zem::text {

inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// What the beginning of some bytes is.
struct Utf8Start {
  enum class State : uint8_t {
    Whole,    // a well-formed character
    Cut,      // well-formed so far, but the bytes end inside the character
    Invalid,  // no character: the longest part that could begin one, or one byte
  };
  State state;
  size_t length;   // bytes of it
  uint32_t point;  // of a whole character
};

// REQUIRES: `bytes` is not empty.
Utf8Start utf8Start(std::string_view bytes);

// The length of the longest part from the start that is well-formed.
size_t wellFormedLength(std::string_view bytes);

// Appends `bytes` with U+FFFD for each part that is Cut or Invalid: what decoders
// of the Web and of common libraries make of them.
void appendWellFormed(std::string_view bytes, std::string& out);

// Appends the character of `point`, which is none of the surrogates.
void appendUtf8(uint32_t point, std::string& out);

// The point that well-formed text has at `at`; moves `at` behind it.
// REQUIRES: `text` is well-formed, a character begins at `at`.
inline uint32_t nextPoint(std::string_view text, size_t& at) {
  const auto byte = [&](size_t i) -> uint32_t { return static_cast<uint8_t>(text[at + i]); };
  const uint32_t lead = byte(0);
  uint32_t point = lead;
  size_t length = 1;
  if (lead >= 0xF0) {
    point = (lead & 7U) << 18U | (byte(1) & 63U) << 12U | (byte(2) & 63U) << 6U | (byte(3) & 63U);
    length = 4;
  } else if (lead >= 0xE0) {
    point = (lead & 15U) << 12U | (byte(1) & 63U) << 6U | (byte(2) & 63U);
    length = 3;
  } else if (lead >= 0x80) {
    point = (lead & 31U) << 6U | (byte(1) & 63U);
    length = 2;
  }
  at += length;
  return point;
}

}  // namespace zem::text
