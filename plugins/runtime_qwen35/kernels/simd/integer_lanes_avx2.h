// SPDX-License-Identifier: Apache-2.0
// The vector type of one level, for integer products. Only that level's source, which is compiled
// with the level's flags, includes this.
#pragma once

#include "kernels/simd/lanes_avx2.h"
#include "kernels/simd/lanes_inl.h"

namespace qwen35 {
namespace {

struct IntegerAvx2 : Avx2 {
  // I with its lanes in the type. Sums that live in registers have this type: g++ 12 keeps arrays
  // of I on the stack, because instructions take I as vectors of other lanes.
  using Ints = int __attribute__((vector_size(32)));

  static constexpr size_t kIntegerTokens = 6;  // of one group: sums fill 12 of 16 registers
  static constexpr size_t kIntegerGroups = 1;  // of rows that matvec takes together
  static constexpr int kFetchLocality = 2;     // of weights: the panel needs the first-level cache
  static constexpr bool kSplitsBytes = true;
  static constexpr bool kCodesKeepPlace = false;

  static I addInts(I a, I b) { return _mm256_add_epi32(a, b); }
  static I mulHalves(I a, I b) { return _mm256_mullo_epi16(a, b); }
  static I subHalves(I a, I b) { return _mm256_sub_epi16(a, b); }
  template <int kBits>
  static I shiftDownSigned(I v) {
    return _mm256_srai_epi32(v, kBits);
  }

  static I addPairs(I sum, I a, I b) { return addInts(sum, _mm256_madd_epi16(a, b)); }
  static void addCodes(I& high, I& low, I codes, const uint32_t* x) {
    high = _mm256_add_epi16(high, _mm256_maddubs_epi16(codes, setBits(x[0])));
    low = _mm256_add_epi16(low, _mm256_maddubs_epi16(codes, setBits(x[1])));
  }
  template <int kShift>
  static I addScaled(I sum, I high, I low, I scale) {
    static_assert(kShift == 0);
    const I pairs = _mm256_blend_epi16(scale, shiftUp<16>(scale), 0xAA);
    sum = addPairs(sum, low, pairs);
    return addPairs(sum, high, _mm256_slli_epi16(pairs, 7));
  }
  static void addWideCodes(I& high, I& low, I codes, const uint32_t* x) {
    const I ones = setBits(0x00010001);
    high = addPairs(high, _mm256_maddubs_epi16(codes, setBits(x[0])), ones);
    low = addPairs(low, _mm256_maddubs_epi16(codes, setBits(x[1])), ones);
  }
  static I wideSum(I high, I low) { return addInts(shiftUp<7>(high), low); }
};

}  // namespace
}  // namespace qwen35
