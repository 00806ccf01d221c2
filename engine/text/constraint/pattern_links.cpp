// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/pattern_links.h"

#include <algorithm>
#include <string>

namespace zem::text::pattern {
namespace {

constexpr uint32_t kLastPoint = 0x10FFFF;

std::string utf8(uint32_t point) {
  std::string out;
  const auto put = [&](uint32_t byte) { out += static_cast<char>(byte); };
  if (point < 0x80) {
    put(point);
  } else if (point < 0x800) {
    put(0xC0 | point >> 6);
    put(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    put(0xE0 | point >> 12);
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  } else {
    put(0xF0 | point >> 18);
    put(0x80 | (point >> 12 & 0x3F));
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  }
  return out;
}

}  // namespace

Ranges normalised(Ranges ranges) {
  std::sort(ranges.begin(), ranges.end(), [](Range a, Range b) { return a.first < b.first; });
  Ranges out;
  for (const Range& range : ranges) {
    if (!out.empty() && range.first <= out.back().last + 1) {
      out.back().last = std::max(out.back().last, range.last);
    } else {
      out.push_back(range);
    }
  }
  return out;
}

Ranges complement(const Ranges& ranges) {
  Ranges out;
  uint32_t next = 0;
  for (const Range& range : normalised(ranges)) {
    if (range.first > next) out.push_back({next, range.first - 1});
    next = range.last + 1;
  }
  if (next <= kLastPoint) out.push_back({next, kLastPoint});
  return out;
}

Ranges intersection(const Ranges& a, const Ranges& b) {
  Ranges out;
  for (const Range& x : a) {
    for (const Range& y : b) {
      const Range common = {std::max(x.first, y.first), std::min(x.last, y.last)};
      if (common.first <= common.last) out.push_back(common);
    }
  }
  return out;
}

const Ranges& alphabet() {
  static const Ranges ranges = {{0x8, 0xA}, {0xC, 0xD}, {0x20, 0xD7FF}, {0xE000, kLastPoint}};
  return ranges;
}

// The range is cut where the number of bytes changes, and so
// that in each piece all bytes behind the first that differs run through all values.
void addRange(Links& links, int from, int to, Range range) {
  for (const uint32_t edge : {0x7FU, 0x7FFU, 0xFFFFU}) {
    if (range.first <= edge && range.last > edge) {
      addRange(links, from, to, {range.first, edge});
      addRange(links, from, to, {edge + 1, range.last});
      return;
    }
  }
  for (uint32_t bits = 6; bits < 24; bits += 6) {
    const uint32_t low = (1U << bits) - 1;
    if ((range.first & ~low) == (range.last & ~low)) break;
    uint32_t cut = range.last + 1;
    if ((range.first & low) != 0) {
      cut = (range.first | low) + 1;
    } else if ((range.last & low) != low) {
      cut = range.last & ~low;
    }
    if (cut > range.last) continue;
    addRange(links, from, to, {range.first, cut - 1});
    addRange(links, from, to, {cut, range.last});
    return;
  }
  const std::string first = utf8(range.first);
  const std::string last = utf8(range.last);
  for (size_t i = 0; i < first.size(); ++i) {
    const int next = i + 1 == first.size() ? to : links.add();
    links.step(from, static_cast<uint8_t>(first[i]), static_cast<uint8_t>(last[i]), next);
    from = next;
  }
}

}  // namespace zem::text::pattern
