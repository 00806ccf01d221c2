// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat/python_text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace zem::text {
namespace {

// repr() of a float: the shortest digits that read back as the same number, with an
// exponent below 1e-4 and from 1e16 on.
std::string pythonFloat(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value < 0 ? "-Infinity" : "Infinity";
  std::array<char, 40> buffer{};
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                 std::chars_format::scientific);
  std::string text(buffer.data(), end.ptr);
  const size_t mark = text.find('e');
  const int exponent = std::atoi(text.c_str() + mark + 1);
  if (exponent < -4 || exponent >= 16) return text;
  const std::string sign = text[0] == '-' ? "-" : "";
  std::string digits;
  for (const char c : text.substr(0, mark)) {
    if (c >= '0' && c <= '9') digits.push_back(c);
  }
  if (exponent < 0) return sign + "0." + std::string(size_t(-exponent - 1), '0') + digits;
  const auto whole = static_cast<size_t>(exponent) + 1;
  if (digits.size() <= whole) return sign + digits + std::string(whole - digits.size(), '0') + ".0";
  return sign + digits.substr(0, whole) + "." + digits.substr(whole);
}

void appendJson(const Json& value, std::string& out) {
  if (value.is_string()) {
    out += quotedJson(value.get_ref<const std::string&>());
  } else if (value.is_number_float()) {
    out += pythonFloat(value.get<double>());
  } else if (value.is_array()) {
    out += '[';
    for (size_t i = 0; i < value.size(); ++i) {
      if (i > 0) out += ", ";
      appendJson(value[i], out);
    }
    out += ']';
  } else if (value.is_object()) {
    out += '{';
    const char* separator = "";
    for (const auto& [key, member] : value.items()) {
      out.append(separator).append(quotedJson(key)).append(": ");
      appendJson(member, out);
      separator = ", ";
    }
    out += '}';
  } else {
    out += value.dump();
  }
}

// The bytes of the blank that `text` begins with; 0 when it begins with none.
size_t blankAt(std::string_view text) {
  if (text.empty()) return 0;
  const char first = text[0];
  if ((first >= '\x09' && first <= '\x0D') || (first >= '\x1C' && first <= ' ')) return 1;
  if (text.substr(0, 2) == "\xC2\x85" || text.substr(0, 2) == "\xC2\xA0") return 2;
  const std::string_view three = text.substr(0, 3);
  if (three.size() < 3) return 0;
  if (three == "\xE1\x9A\x80" || three == "\xE2\x81\x9F" || three == "\xE3\x80\x80") return 3;
  if (three.substr(0, 2) != "\xE2\x80") return 0;
  const auto last = static_cast<unsigned char>(three[2]);
  const bool blank = last <= 0x8A || last == 0xA8 || last == 0xA9 || last == 0xAF;
  return last >= 0x80 && blank ? 3 : 0;
}

// The bytes of the blank that `text` ends with.
size_t blankBefore(std::string_view text) {
  for (size_t length = 1; length <= 3 && length <= text.size(); ++length) {
    if (blankAt(text.substr(text.size() - length)) == length) return length;
  }
  return 0;
}

}  // namespace

void appendEscaped(std::string_view text, std::string& out) {
  constexpr std::string_view kHex = "0123456789abcdef";
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        if (static_cast<unsigned char>(c) >= 0x20) {
          out += c;
        } else {
          out.append("\\u00").append(1, kHex[c >> 4 & 0xF]).append(1, kHex[c & 0xF]);
        }
    }
  }
}

std::string quotedJson(std::string_view text) {
  std::string out = "\"";
  appendEscaped(text, out);
  out += '"';
  return out;
}

std::string quotedStart(std::string_view text) {
  constexpr size_t kLongest = 80;
  if (text.size() <= kLongest) return quotedJson(text);
  size_t end = kLongest;
  while (end > 0 && (text[end] & 0xC0) == 0x80) --end;
  return quotedJson(text.substr(0, end));
}

std::string pythonJson(const Json& value) {
  std::string out;
  appendJson(value, out);
  return out;
}

std::string pythonText(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return "None";
  if (value.is_boolean()) return value.get<bool>() ? "True" : "False";
  return pythonJson(value);
}

std::string_view pythonStrip(std::string_view text) {
  while (const size_t length = blankAt(text)) text.remove_prefix(length);
  while (const size_t length = blankBefore(text)) text.remove_suffix(length);
  return text;
}

}  // namespace zem::text
