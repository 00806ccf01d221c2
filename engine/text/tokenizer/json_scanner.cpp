// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/json_scanner.h"

#include <charconv>

#include "engine/text/tokenizer/read_error.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text {
namespace {

constexpr int kMaxDepth = 64;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isHighSurrogate(uint32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool isLowSurrogate(uint32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

}  // namespace

void JsonScanner::fail(const std::string& problem) const {
  throw ReadError("byte " + std::to_string(at_) + ": " + problem);
}

void JsonScanner::skipSpace() {
  while (at_ < text_.size()) {
    const char c = text_[at_];
    if (c != ' ' && c != '\n' && c != '\t' && c != '\r') return;
    ++at_;
  }
}

char JsonScanner::peek() {
  skipSpace();
  return at_ < text_.size() ? text_[at_] : '\0';
}

void JsonScanner::expect(char c) {
  if (peek() != c) fail(std::string("expected '") + c + "'");
  ++at_;
}

void JsonScanner::enter(char bracket) {
  expect(bracket);
  first_ = true;
}

bool JsonScanner::more(char bracket) {
  const bool wasFirst = first_;
  first_ = false;
  if (peek() == bracket) {
    ++at_;
    return false;
  }
  if (!wasFirst) expect(',');
  return true;
}

std::string_view JsonScanner::key() {
  const std::string_view text = string();
  expect(':');
  return text;
}

std::string_view JsonScanner::string() {
  expect('"');
  const size_t begin = at_;
  for (; at_ < text_.size(); ++at_) {
    const char c = text_[at_];
    if (c == '"') return text_.substr(begin, at_++ - begin);
    if (c == '\\') return unescaped(begin);
    if (static_cast<uint8_t>(c) < 0x20) fail("a control character inside a string");
  }
  fail("the text ends inside a string");
}

// The string from `begin`, with its first escape at the position.
std::string_view JsonScanner::unescaped(size_t begin) {
  std::string& out = owned_.emplace_back(text_.substr(begin, at_ - begin));
  while (at_ < text_.size()) {
    const char c = text_[at_];
    if (static_cast<uint8_t>(c) < 0x20) fail("a control character inside a string");
    ++at_;
    if (c == '"') return out;
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    appendUtf8(escapedPoint(), out);
  }
  fail("the text ends inside a string");
}

// What stands behind a backslash.
uint32_t JsonScanner::escapedPoint() {
  if (at_ == text_.size()) fail("the text ends inside a string");
  const char c = text_[at_++];
  switch (c) {
    case '"':
    case '\\':
    case '/':
      return static_cast<uint8_t>(c);
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'u':
      break;
    default:
      fail("an unknown escape in a string");
  }
  const uint32_t unit = hexUnit();
  if (isLowSurrogate(unit)) fail("half of a surrogate pair in a string");
  if (!isHighSurrogate(unit)) return unit;
  if (!text_.substr(at_).starts_with("\\u")) fail("half of a surrogate pair in a string");
  at_ += 2;
  const uint32_t low = hexUnit();
  if (!isLowSurrogate(low)) fail("half of a surrogate pair in a string");
  return 0x10000 + ((unit - 0xD800) << 10U) + (low - 0xDC00);
}

uint32_t JsonScanner::hexUnit() {
  uint32_t unit = 0;
  const char* const begin = text_.data() + at_;
  if (text_.size() - at_ < 4) fail("the text ends inside a string");
  const auto [end, error] = std::from_chars(begin, begin + 4, unit, 16);
  if (error != std::errc{} || end != begin + 4) fail("no four hexadecimal digits behind \\u");
  at_ += 4;
  return unit;
}

uint64_t JsonScanner::wholeNumber() {
  uint64_t number = 0;
  if (!isDigit(peek())) fail("expected a whole number");
  const char* const begin = text_.data() + at_;
  const auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), number);
  const size_t length = static_cast<size_t>(end - begin);
  const char next = at_ + length < text_.size() ? text_[at_ + length] : '\0';
  const bool longer = next == '.' || next == 'e' || next == 'E' || (*begin == '0' && length > 1);
  if (error != std::errc{} || longer) fail("expected a whole number");
  at_ += length;
  return number;
}

std::string_view JsonScanner::skip() {
  skipSpace();
  const size_t begin = at_;
  skipValue(0);
  return text_.substr(begin, at_ - begin);
}

void JsonScanner::skipValue(int depth) {
  if (depth > kMaxDepth) fail("nested deeper than 64 levels");
  switch (peek()) {
    case '{':
      for (enter('{'); more('}');) {
        (void)key();
        skipValue(depth + 1);
      }
      return;
    case '[':
      for (enter('['); more(']');) skipValue(depth + 1);
      return;
    case '"':
      (void)string();
      return;
    case 't':
      return skipLiteral("true");
    case 'f':
      return skipLiteral("false");
    case 'n':
      return skipLiteral("null");
    default:
      return skipNumber();
  }
}

void JsonScanner::skipLiteral(std::string_view literal) {
  if (!text_.substr(at_).starts_with(literal)) fail("expected a value");
  at_ += literal.size();
}

void JsonScanner::skipNumber() {
  const auto digits = [this] {
    if (at_ == text_.size() || !isDigit(text_[at_])) fail("expected a value");
    while (at_ < text_.size() && isDigit(text_[at_])) ++at_;
  };
  const auto take = [this](char c) {
    const bool there = at_ < text_.size() && text_[at_] == c;
    at_ += there ? 1 : 0;
    return there;
  };
  (void)take('-');
  if (!take('0')) digits();
  if (take('.')) digits();
  if (take('e') || take('E')) {
    if (!take('-')) (void)take('+');
    digits();
  }
}

void JsonScanner::end() {
  if (peek() != '\0' || at_ != text_.size()) fail("more behind the end");
}

}  // namespace zem::text
