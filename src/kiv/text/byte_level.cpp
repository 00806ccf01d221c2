// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/byte_level.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kiv {
namespace {

constexpr std::string_view kBytePrefix = "<0x";
constexpr size_t kByteLength = 6;  // "<0xNN>"
constexpr uint32_t kFirstSpelling = 0x100;

// Bytes that are spelled as the character of the same number.
constexpr bool spellsItself(uint32_t byte) {
  return (byte >= 0x21 && byte <= 0x7E) || (byte >= 0xA1 && byte <= 0xAC) ||
         (byte >= 0xAE && byte <= 0xFF);
}

// The other 68, in order, are spelled as U+0100, U+0101, ...
constexpr auto kOthers = [] {
  std::array<uint8_t, 68> bytes{};
  size_t next = 0;
  for (uint32_t byte = 0; byte < 256; ++byte) {
    if (!spellsItself(byte)) bytes[next++] = static_cast<uint8_t>(byte);
  }
  return bytes;
}();

bool continues(std::string_view text, size_t at) {
  return (static_cast<uint8_t>(text[at]) & 0xC0U) == 0x80;
}

// Bytes of the well-formed character that `text` begins with, and its number; 0
// where there is none.
size_t readCharacter(std::string_view text, uint32_t& number) {
  constexpr std::array<uint32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<uint8_t>(text[0]);
  size_t length = 1;
  number = lead;
  if (lead >= 0x80) {
    if (lead < 0xC2 || lead > 0xF4) return 0;
    length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    number = lead & (0x7FU >> length);
  }
  if (text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!continues(text, i)) return 0;
    number = number << 6U | (static_cast<uint8_t>(text[i]) & 0x3FU);
  }
  const bool surrogate = number >= 0xD800 && number <= 0xDFFF;
  return number < kSmallest[length] || surrogate || number > 0x10FFFF ? 0 : length;
}

void appendByte(uint8_t byte, std::string& out) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  out.append(kBytePrefix);
  out.push_back(kDigits[byte >> 4U]);
  out.push_back(kDigits[byte & 0xFU]);
  out.push_back('>');
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool looksLikeByte(std::string_view text) {
  return text.size() >= kByteLength && text.starts_with(kBytePrefix) && isHexDigit(text[3]) &&
         isHexDigit(text[4]) && text[5] == '>';
}

}  // namespace

bool byteLevelToBytes(std::string_view spelled, std::string& bytes) {
  std::string decoded;
  while (!spelled.empty()) {
    uint32_t number = 0;
    const size_t length = readCharacter(spelled, number);
    if (length == 0) return false;
    if (spellsItself(number)) {
      decoded.push_back(static_cast<char>(number));
    } else if (number >= kFirstSpelling && number - kFirstSpelling < kOthers.size()) {
      decoded.push_back(static_cast<char>(kOthers[number - kFirstSpelling]));
    } else {
      return false;
    }
    spelled.remove_prefix(length);
  }
  bytes = std::move(decoded);
  return true;
}

bool isWholeText(std::string_view bytes) {
  uint32_t number = 0;
  while (!bytes.empty()) {
    const size_t length = readCharacter(bytes, number);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string storedToken(std::string_view bytes) {
  const bool whole = isWholeText(bytes);
  std::string out;
  while (!bytes.empty()) {
    size_t taken = 1;
    if (!whole || looksLikeByte(bytes)) {
      appendByte(static_cast<uint8_t>(bytes[0]), out);
    } else if (bytes.starts_with(kSpaceMarker)) {
      taken = kSpaceMarker.size();
      for (const char c : kSpaceMarker) appendByte(static_cast<uint8_t>(c), out);
    } else if (bytes[0] == ' ') {
      out.append(kSpaceMarker);
    } else {
      out.push_back(bytes[0]);
    }
    bytes.remove_prefix(taken);
  }
  return out;
}

bool storedAsText(std::string_view bytes) {
  if (!isWholeText(bytes) || bytes.find(kSpaceMarker) != std::string_view::npos) return false;
  for (size_t at = bytes.find(kBytePrefix); at != std::string_view::npos;
       at = bytes.find(kBytePrefix, at + 1)) {
    if (looksLikeByte(bytes.substr(at))) return false;
  }
  return true;
}

}  // namespace kiv
