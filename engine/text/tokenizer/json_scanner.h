// SPDX-License-Identifier: Apache-2.0
// Walks through a JSON text in place, without building a tree: a vocabulary has
// half a million texts, nearly all of which can be used where they lie.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace zem::text {

// Reads the values of a text one after the other; every call takes the next one,
// whole, or throws ReadError with the byte where the text is not JSON or has
// another value. Objects and arrays are walked with a loop:
//
//   for (scanner.enter('{'); scanner.more('}');) { key = scanner.key(); ...value... }
//   for (scanner.enter('['); scanner.more(']');) { ...value... }
//
// Views point into the text.
class JsonScanner {
 public:
  // Strings with escapes are put into `owned`, where their views point.
  // REQUIRES: `text` is well-formed UTF-8.
  JsonScanner(std::string_view text, std::deque<std::string>& owned) : text_(text), owned_(owned) {}

  char peek();               // the next value's first byte; 0 at the end of the text
  void enter(char bracket);  // '{' or '['
  bool more(char bracket);   // false: took the closing `bracket`
  std::string_view key();
  std::string_view string();
  uint64_t wholeNumber();   // not negative, without point or exponent
  std::string_view skip();  // any value, as the text has it
  void end();               // nothing but white space is left

  [[noreturn]] void fail(const std::string& problem) const;

 private:
  void skipSpace();
  void expect(char c);
  std::string_view unescaped(size_t begin);
  uint32_t escapedPoint();
  uint32_t hexUnit();
  void skipLiteral(std::string_view literal);
  void skipNumber();
  void skipValue(int depth);

  std::string_view text_;
  std::deque<std::string>& owned_;
  size_t at_ = 0;
  bool first_ = false;  // nothing was taken of the object or array just entered
};

}  // namespace zem::text
