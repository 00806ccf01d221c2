// SPDX-License-Identifier: Apache-2.0
#include "engine/text/unicode/nfc.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "engine/text/unicode/properties.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text::unicode {
namespace {

// Hangul syllables are composed by arithmetic.
constexpr uint32_t kSyllables = 0xAC00;
constexpr uint32_t kSyllableCount = 11172;
constexpr uint32_t kLeads = 0x1100;
constexpr uint32_t kLeadCount = 19;
constexpr uint32_t kVowels = 0x1161;
constexpr uint32_t kVowelCount = 21;
constexpr uint32_t kTails = 0x11A7;  // one before the first: "no tail"
constexpr uint32_t kTailCount = 28;

// Wraps around below `first`.
bool isWithin(uint32_t point, uint32_t first, uint32_t count) { return point - first < count; }

struct Character {
  uint32_t point;
  uint8_t combiningClass;
};

uint8_t combiningClassOf(uint32_t point) {
  if (!Properties(point).hasCombiningClass()) return 0;
  const auto after =
      std::upper_bound(kCombining.begin(), kCombining.end(), point,
                       [](uint32_t p, const CombiningRange& range) { return p < range.first; });
  return (after - 1)->combiningClass;
}

const Decomposition* decompositionOf(uint32_t point) {
  const auto found =
      std::lower_bound(kDecompositions.begin(), kDecompositions.end(), point,
                       [](const Decomposition& entry, uint32_t p) { return entry.point < p; });
  return found != kDecompositions.end() && found->point == point ? &*found : nullptr;
}

void decompose(uint32_t point, std::vector<Character>& out) {
  if (isWithin(point, kSyllables, kSyllableCount)) {
    const uint32_t index = point - kSyllables;
    out.push_back({kLeads + index / (kVowelCount * kTailCount), 0});
    out.push_back({kVowels + index / kTailCount % kVowelCount, 0});
    if (index % kTailCount != 0) out.push_back({kTails + index % kTailCount, 0});
    return;
  }
  const Decomposition* step = decompositionOf(point);
  if (step == nullptr) {
    out.push_back({point, combiningClassOf(point)});
    return;
  }
  decompose(step->first, out);
  if (step->second != 0) decompose(step->second, out);
}

// The point that two neighbours make, or 0.
uint32_t composed(uint32_t first, uint32_t second) {
  if (isWithin(first, kLeads, kLeadCount) && isWithin(second, kVowels, kVowelCount)) {
    return kSyllables + ((first - kLeads) * kVowelCount + (second - kVowels)) * kTailCount;
  }
  if (isWithin(first, kSyllables, kSyllableCount) && (first - kSyllables) % kTailCount == 0 &&
      isWithin(second, kTails + 1, kTailCount - 1)) {
    return first + (second - kTails);
  }
  const auto found =
      std::lower_bound(kCompositions.begin(), kCompositions.end(), first,
                       [second](const Composition& entry, uint32_t point) {
                         return entry.first != point ? entry.first < point : entry.second < second;
                       });
  const bool joins =
      found != kCompositions.end() && found->first == first && found->second == second;
  return joins ? found->point : 0;
}

// Puts every run of combining marks into the order of their classes.
void reorder(std::vector<Character>& characters) {
  const auto isMark = [](const Character& c) { return c.combiningClass != 0; };
  for (auto at = characters.begin(); at != characters.end();) {
    const auto first = std::find_if(at, characters.end(), isMark);
    at = std::find_if_not(first, characters.end(), isMark);
    std::stable_sort(first, at, [](const Character& a, const Character& b) {
      return a.combiningClass < b.combiningClass;
    });
  }
}

void compose(std::vector<Character>& characters) {
  size_t end = 0;
  Character* starter = nullptr;
  for (const Character current : characters) {
    // A mark in between of the same or a higher class, or a starter, keeps them apart.
    const bool adjacent = starter != nullptr && starter == characters.data() + end - 1;
    const bool reaches = starter != nullptr &&
                         (adjacent || characters[end - 1].combiningClass < current.combiningClass);
    const uint32_t joined = reaches ? composed(starter->point, current.point) : 0;
    if (joined != 0) {
      starter->point = joined;
      continue;
    }
    characters[end++] = current;
    if (current.combiningClass == 0) starter = characters.data() + end - 1;
  }
  characters.resize(end);
}

// What has to be normalised as a whole: from the last point before `at` that starts
// afresh to the next one behind it.
struct Stretch {
  size_t begin;
  size_t end;
};

// Finds the first stretch at or behind `from` that is not in the form for certain.
// REQUIRES: a point that starts afresh, or the beginning of the text, is at `from`.
Stretch findStretch(std::string_view text, size_t from) {
  Stretch stretch{from, from};
  uint8_t lastClass = 0;
  bool certain = true;
  while (stretch.end < text.size()) {
    size_t next = stretch.end;
    const uint32_t point = nextPoint(text, next);
    const Properties properties(point);
    if (properties.startsAfresh()) {
      if (!certain) return stretch;
      stretch.begin = stretch.end;
      lastClass = 0;
    } else {
      const uint8_t itsClass = combiningClassOf(point);
      const bool disordered = itsClass != 0 && itsClass < lastClass;
      certain = certain && !disordered && !properties.mayChangeInNfc();
      lastClass = itsClass;
    }
    stretch.end = next;
  }
  return certain ? Stretch{text.size(), text.size()} : stretch;
}

}  // namespace

size_t nfcLength(std::string_view text) { return findStretch(text, 0).begin; }

std::string toNfc(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::vector<Character> characters;
  for (size_t at = 0; at < text.size();) {
    const Stretch stretch = findStretch(text, at);
    out.append(text.substr(at, stretch.begin - at));
    characters.clear();
    for (size_t i = stretch.begin; i < stretch.end;) decompose(nextPoint(text, i), characters);
    reorder(characters);
    compose(characters);
    for (const Character& character : characters) appendUtf8(character.point, out);
    at = stretch.end;
  }
  return out;
}

}  // namespace zem::text::unicode
