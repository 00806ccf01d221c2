// SPDX-License-Identifier: Apache-2.0
// The vector type of one level, for integer products. Only that level's source, which is compiled
// with the level's flags, includes this.
#pragma once

#include "kernels/simd/integer_lanes_avx512.h"

namespace qwen35 {
namespace {

struct Avx512Vnni : IntegerAvx512 {
  static constexpr bool kCodesKeepPlace = true;

  static I addPairs(I sum, I a, I b) { return _mm512_dpwssd_epi32(sum, a, b); }
  static void addCodes(I& high, I& low, I codes, const uint32_t* x) {
    high = _mm512_dpbusd_epi32(high, codes, setBits(x[0]));
    low = _mm512_dpbusd_epi32(low, codes, setBits(x[1]));
  }
  template <int kShift>
  static I addScaled(I sum, I high, I low, I scale) {
    const I value = shiftDownSigned<kShift>(wideSum(high, low));
    return addInts(sum, _mm512_mullo_epi32(value, scale));
  }
  static void addWideCodes(I& high, I& low, I codes, const uint32_t* x) {
    addCodes(high, low, codes, x);
  }
  static I wideSum(I high, I low) { return addInts(shiftUp<7>(high), low); }
};

}  // namespace
}  // namespace qwen35
