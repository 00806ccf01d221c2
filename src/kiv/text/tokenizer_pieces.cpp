// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/tokenizer_pieces.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace kiv {
namespace {

constexpr size_t kMaxDigits = 3;
constexpr std::string_view kRightQuote = "\xE2\x80\x99";  // U+2019
constexpr std::array<std::string_view, 7> kContractions = {"s", "t", "re", "ve", "m", "ll", "d"};

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isLetter(char c) {
  return static_cast<uint8_t>(c) >= 0x80 || (lowered(c) >= 'a' && lowered(c) <= 'z');
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isPunctuation(char c) { return !isLetter(c) && !isDigit(c) && !isSpace(c); }

// Each of these returns where the run ends that begins at `at`.
size_t lettersEnd(std::string_view text, size_t at) {
  while (at < text.size() && isLetter(text[at])) at += utf8Length(text.substr(at));
  return at;
}

template <typename Predicate>
size_t runEnd(std::string_view text, size_t at, Predicate belongs) {
  while (at < text.size() && belongs(text[at])) ++at;
  return at;
}

// The length of the contraction that `text` begins with, or 0.
size_t contractionLength(std::string_view text) {
  size_t mark = 0;
  if (text[0] == '\'') mark = 1;
  if (text.starts_with(kRightQuote)) mark = kRightQuote.size();
  if (mark == 0) return 0;
  const std::string_view rest = text.substr(mark);
  for (const std::string_view suffix : kContractions) {
    const bool matches =
        rest.size() >= suffix.size() &&
        std::equal(suffix.begin(), suffix.end(), rest.begin(),
                   [](char expected, char actual) { return expected == lowered(actual); });
    if (matches) return mark + suffix.size();
  }
  return 0;
}

size_t pieceLength(std::string_view text) {
  if (const size_t contraction = contractionLength(text)) return contraction;
  const char c = text[0];
  if (c == '\r' || c == '\n') return runEnd(text, 0, isSpace);
  if (isLetter(c)) return lettersEnd(text, 0);
  if (isDigit(c)) return runEnd(text.substr(0, kMaxDigits), 0, isDigit);
  if (text.size() > 1 && isLetter(text[1])) return lettersEnd(text, 1);
  if (text.size() > 1 && c == ' ' && isPunctuation(text[1])) return runEnd(text, 1, isPunctuation);
  return isPunctuation(c) ? runEnd(text, 0, isPunctuation) : runEnd(text, 0, isSpace);
}

}  // namespace

size_t utf8Length(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text[0]);
  size_t length = 1;
  if ((lead & 0xE0) == 0xC0) length = 2;
  if ((lead & 0xF0) == 0xE0) length = 3;
  if ((lead & 0xF8) == 0xF0) length = 4;
  return std::min(length, text.size());
}

std::string_view nextPiece(std::string_view text) { return text.substr(0, pieceLength(text)); }

}  // namespace kiv
