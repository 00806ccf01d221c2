// SPDX-License-Identifier: Apache-2.0
#include "console/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace zemtool {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

enum class Form : uint8_t { Whole, Cut, Invalid };

struct Character {
  Form form;
  size_t length;  // of a whole one, else of the part to replace or to keep back
};

struct Lead {
  size_t following;   // bytes after the first; 0 for a byte that begins nothing
  uint8_t low, high;  // bounds of the second byte
};

Lead classifyLead(uint8_t byte) {
  if (byte < 0xC2 || byte > 0xF4) return {0, 0, 0};
  if (byte < 0xE0) return {1, 0x80, 0xBF};
  if (byte == 0xE0) return {2, 0xA0, 0xBF};  // shorter forms exist
  if (byte == 0xED) return {2, 0x80, 0x9F};  // surrogates
  if (byte < 0xF0) return {2, 0x80, 0xBF};
  if (byte == 0xF0) return {3, 0x90, 0xBF};  // shorter forms exist
  if (byte == 0xF4) return {3, 0x80, 0x8F};  // beyond U+10FFFF
  return {3, 0x80, 0xBF};
}

// The character at the start of `s`, which is not empty.
Character scan(std::string_view s) {
  const auto first = static_cast<uint8_t>(s[0]);
  if (first < 0x80) return {Form::Whole, 1};
  Lead lead = classifyLead(first);
  if (lead.following == 0) return {Form::Invalid, 1};
  for (size_t i = 1; i <= lead.following; ++i) {
    if (i == s.size()) return {Form::Cut, i};
    const auto byte = static_cast<uint8_t>(s[i]);
    if (byte < lead.low || byte > lead.high) return {Form::Invalid, i};
    lead.low = 0x80;
    lead.high = 0xBF;
  }
  return {Form::Whole, lead.following + 1};
}

bool isControl(std::string_view character) {
  const auto first = static_cast<uint8_t>(character[0]);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  return first == 0xC2 && static_cast<uint8_t>(character[1]) < 0xA0;
}

std::string spellByte(char byte) {
  std::array<char, 8> spelled{};
  std::snprintf(spelled.data(), spelled.size(), "\\x%02x", static_cast<uint8_t>(byte));
  return spelled.data();
}

std::string spellControl(std::string_view character) {
  switch (character.back()) {
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      return spellByte(character.back());
  }
}

}  // namespace

std::string Utf8Joiner::push(std::string_view bytes) {
  held_.append(bytes);
  return take(false);
}

std::string Utf8Joiner::finish() { return take(true); }

std::string Utf8Joiner::take(bool all) {
  std::string ready;
  std::string_view rest = held_;
  while (!rest.empty()) {
    const Character c = scan(rest);
    if (c.form == Form::Cut && !all) break;
    ready.append(c.form == Form::Whole ? rest.substr(0, c.length) : kReplacement);
    rest.remove_prefix(c.length);
  }
  held_ = std::string(rest);
  return ready;
}

std::string escapeControls(std::string_view bytes, std::string_view keep) {
  std::string shown;
  while (!bytes.empty()) {
    const Character c = scan(bytes);
    const std::string_view character = bytes.substr(0, c.length);
    if (c.form != Form::Whole) {
      shown.append(kReplacement);
    } else if (isControl(character) && keep.find(character) == std::string_view::npos) {
      shown.append(spellControl(character));
    } else {
      shown.append(character);
    }
    bytes.remove_prefix(c.length);
  }
  return shown;
}

std::string escapeBytes(std::string_view bytes) {
  std::string shown;
  while (!bytes.empty()) {
    const Character c = scan(bytes);
    const std::string_view character = bytes.substr(0, c.length);
    if (c.form == Form::Whole) {
      shown += escapeControls(character);
    } else {
      for (const char byte : character) shown += spellByte(byte);
    }
    bytes.remove_prefix(c.length);
  }
  return shown;
}

bool isWholeUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const Character c = scan(bytes);
    if (c.form != Form::Whole) return false;
    bytes.remove_prefix(c.length);
  }
  return true;
}

size_t countCharacters(std::string_view text) {
  return static_cast<size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<uint8_t>(c) & 0xC0) != 0x80; }));
}

std::string formatBytes(uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  return formatNumber(value, 2) + " " + kUnits[unit];
}

std::string formatNumber(double value, int decimals) {
  const int length = std::snprintf(nullptr, 0, "%.*f", decimals, value);
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  text.pop_back();
  return text;
}

std::string formatTable(const std::vector<std::vector<std::string>>& rows,
                        const std::vector<size_t>& right) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], countCharacters(row[i]));
    }
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - countCharacters(row[i]), ' ');
      const bool flushRight = std::find(right.begin(), right.end(), i) != right.end();
      line += "  " + (flushRight ? padding + row[i] : row[i] + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

}  // namespace zemtool
