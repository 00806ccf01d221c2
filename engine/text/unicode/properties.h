// SPDX-License-Identifier: Apache-2.0
// What kind of character a code point is.
#pragma once

#include <cstdint>

#include "engine/text/unicode/tables.h"

namespace zem::text::unicode {

// As regular expressions class characters: \p{L}, \p{M}, \p{N}, \s, by Unicode 16.0.
// No point is in two of them.
enum class Kind : uint8_t { Other = 0, Letter = 1, Mark = 2, Number = 3, Space = 4 };

// Every property of a point in one byte.
class Properties {
 public:
  // REQUIRES: `point` < kPoints.
  explicit Properties(uint32_t point)
      : bits_(kProperties[kBlockOf[point / kBlockPoints] * kBlockPoints + point % kBlockPoints]) {}

  Kind kind() const { return static_cast<Kind>(bits_ & 7U); }

  // By Unicode 9.0, in which points assigned later are inert.
  bool hasCombiningClass() const { return (bits_ & 8U) != 0; }  // one other than 0
  // NFC may change the point, or join it with the one before it.
  bool mayChangeInNfc() const { return (bits_ & 16U) != 0; }
  // Neither of the two: NFC may be computed for what stands before the point and
  // for what begins with it one by one.
  bool startsAfresh() const { return (bits_ & 24U) == 0; }

 private:
  uint8_t bits_;
};

inline Kind kindOf(uint32_t point) { return Properties(point).kind(); }

}  // namespace zem::text::unicode
