// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/split_pattern.h"

#include <array>
#include <utility>

#include "engine/text/unicode/properties.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text {
namespace {

using unicode::Kind;

constexpr std::string_view kFamilyRegex =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?[\p{L}\p{M}]+|\p{N}| ?[^\s\p{L}\p{M}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";
constexpr std::string_view kFamilyWithoutMarksRegex =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";
constexpr std::string_view kGpt2Regex =
    R"('s|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^\s\p{L}\p{N}]+|\s+(?!\S)|\s+)";

constexpr uint32_t kLongS = 0x17F;  // the one character beyond ASCII that folds to one of these

// A character of the text: its kind as the pattern sees it, and where it ends.
struct Character {
  uint32_t point;
  Kind kind;
  size_t end;
};

enum class Marks : uint8_t { WithLetters, WithPunctuation };

template <Marks marks>
class Cutter {
 public:
  explicit Cutter(std::string_view text) : text_(text) {}

  bool atEnd(size_t at) const { return at == text_.size(); }

  Character character(size_t at) const {
    size_t end = at;
    const uint32_t point = nextPoint(text_, end);
    const Kind kind = unicode::kindOf(point);
    if (kind != Kind::Mark) return {point, kind, end};
    return {point, marks == Marks::WithLetters ? Kind::Letter : Kind::Other, end};
  }

  // The end of the run of characters of a kind that begins at `at`.
  size_t runEnd(size_t at, Kind kind) const {
    while (!atEnd(at)) {
      const Character next = character(at);
      if (next.kind != kind) break;
      at = next.end;
    }
    return at;
  }

  size_t lineBreaksEnd(size_t at) const {
    while (!atEnd(at) && isLineBreak(static_cast<uint8_t>(text_[at]))) ++at;
    return at;
  }

  // \s*[\r\n]+ where `toLineBreak` is set, then \s+(?!\S), then \s+.
  // REQUIRES: whitespace at 0.
  size_t whitespaceEnd(bool toLineBreak) const {
    size_t last = 0;            // where the last character begins
    size_t end = 0;             // of the run
    size_t afterLineBreak = 0;  // behind the last one
    while (!atEnd(end)) {
      const Character next = character(end);
      if (next.kind != Kind::Space) break;
      last = end;
      end = next.end;
      if (isLineBreak(next.point)) afterLineBreak = end;
    }
    if (toLineBreak && afterLineBreak != 0) return afterLineBreak;
    return atEnd(end) || last == 0 ? end : last;
  }

  // The end of 's, 't, 're, 've, 'm, 'll or 'd, or 0. REQUIRES: ' at 0.
  size_t contractionEnd(bool anyCase) const {
    if (atEnd(1)) return 0;
    const Character first = character(1);
    switch (folded(first.point, anyCase)) {
      case 's':
      case 't':
      case 'm':
      case 'd':
        return first.end;
      case 'r':
      case 'v':
        return endAfter('e', first.end, anyCase);
      case 'l':
        return endAfter('l', first.end, anyCase);
      default:
        return 0;
    }
  }

  static bool isLineBreak(uint32_t point) { return point == '\r' || point == '\n'; }

 private:
  static uint32_t folded(uint32_t point, bool anyCase) {
    if (!anyCase) return point;
    if (point == kLongS) return 's';
    return point >= 'A' && point <= 'Z' ? point - 'A' + 'a' : point;
  }

  size_t endAfter(uint32_t wanted, size_t at, bool anyCase) const {
    if (atEnd(at)) return 0;
    const Character next = character(at);
    return folded(next.point, anyCase) == wanted ? next.end : 0;
  }

  std::string_view text_;
};

template <Marks marks>
size_t familyPiece(std::string_view text) {
  const Cutter<marks> cutter(text);
  const Character first = cutter.character(0);
  if (first.kind == Kind::Letter) return cutter.runEnd(first.end, Kind::Letter);
  if (first.kind == Kind::Number) return first.end;
  if (first.point == '\'') {
    if (const size_t end = cutter.contractionEnd(true)) return end;
  }
  if (!cutter.atEnd(first.end) && !cutter.isLineBreak(first.point)) {
    const Character second = cutter.character(first.end);
    if (second.kind == Kind::Letter) return cutter.runEnd(second.end, Kind::Letter);
    if (first.point == ' ' && second.kind == Kind::Other) {
      return cutter.lineBreaksEnd(cutter.runEnd(second.end, Kind::Other));
    }
  }
  if (first.kind == Kind::Space) return cutter.whitespaceEnd(true);
  return cutter.lineBreaksEnd(cutter.runEnd(first.end, Kind::Other));
}

size_t gpt2Piece(std::string_view text) {
  const Cutter<Marks::WithPunctuation> cutter(text);
  const Character first = cutter.character(0);
  if (first.point == '\'') {
    if (const size_t end = cutter.contractionEnd(false)) return end;
  }
  if (first.kind != Kind::Space) return cutter.runEnd(first.end, first.kind);
  if (first.point == ' ' && !cutter.atEnd(first.end)) {
    const Character second = cutter.character(first.end);
    if (second.kind != Kind::Space) return cutter.runEnd(second.end, second.kind);
  }
  return cutter.whitespaceEnd(false);
}

}  // namespace

std::optional<SplitPattern> patternOfRegex(std::string_view regex) {
  if (regex == kFamilyRegex) return SplitPattern::Family;
  if (regex == kFamilyWithoutMarksRegex) return SplitPattern::FamilyWithoutMarks;
  if (regex == kGpt2Regex) return SplitPattern::Gpt2;
  return {};
}

std::optional<SplitPattern> patternOfGgufName(std::string_view name) {
  constexpr std::array<std::pair<std::string_view, SplitPattern>, 3> kNames = {{
      {"qwen35", SplitPattern::Family},
      {"qwen2", SplitPattern::FamilyWithoutMarks},
      {"gpt-2", SplitPattern::Gpt2},
  }};
  for (const auto& [known, pattern] : kNames) {
    if (name == known) return pattern;
  }
  return {};
}

size_t pieceLength(SplitPattern pattern, std::string_view text) {
  switch (pattern) {
    case SplitPattern::Family:
      return familyPiece<Marks::WithLetters>(text);
    case SplitPattern::FamilyWithoutMarks:
      return familyPiece<Marks::WithPunctuation>(text);
    case SplitPattern::Gpt2:
      break;
  }
  return gpt2Piece(text);
}

}  // namespace zem::text
