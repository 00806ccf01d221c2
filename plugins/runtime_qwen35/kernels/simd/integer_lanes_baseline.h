// SPDX-License-Identifier: Apache-2.0
// The vector type of one level, for integer products. Only that level's source, which is compiled
// with the level's flags, includes this.
#pragma once

#include "kernels/simd/lanes_baseline.h"
#include "kernels/simd/lanes_inl.h"

namespace qwen35 {
namespace {

// SSE2 multiplies no bytes. The halves of a word of x are pairs of columns: 0 and 2, 1 and 3.
struct IntegerBaseline : Baseline {
  // I with its lanes in the type. Sums that live in registers have this type: g++ 12 keeps arrays
  // of I on the stack, because instructions take I as vectors of other lanes.
  using Ints = int __attribute__((vector_size(16)));

  static constexpr size_t kIntegerTokens = 6;  // of one group: sums fill 12 of 16 registers
  static constexpr size_t kIntegerGroups = 1;  // of rows that matvec takes together
  static constexpr int kFetchLocality = 2;     // of weights: the panel needs the first-level cache
  static constexpr bool kSplitsBytes = false;
  static constexpr bool kCodesKeepPlace = false;

  static I addInts(I a, I b) { return _mm_add_epi32(a, b); }
  static I mulHalves(I a, I b) { return _mm_mullo_epi16(a, b); }
  static I subHalves(I a, I b) { return _mm_sub_epi16(a, b); }
  template <int kBits>
  static I shiftDownSigned(I v) {
    return _mm_srai_epi32(v, kBits);
  }

  static I addPairs(I sum, I a, I b) { return addInts(sum, _mm_madd_epi16(a, b)); }
  static void addCodes(I& even, I& odd, I codes, const uint32_t* x) {
    even = addPairs(even, both(codes, setBits(0x00FF00FF)), setBits(x[0]));
    odd = addPairs(odd, _mm_srli_epi16(codes, 8), setBits(x[1]));
  }
  template <int kShift>
  static I addScaled(I sum, I even, I odd, I scale) {
    static_assert(kShift == 0);
    return addInts(sum, mulInts(addInts(even, odd), scale));
  }
  static void addWideCodes(I& even, I& odd, I codes, const uint32_t* x) {
    addCodes(even, odd, codes, x);
  }
  static I wideSum(I even, I odd) { return addInts(even, odd); }

 private:
  // The low 32 bits of each product.
  static I mulInts(I a, I b) {
    const I even = _mm_mul_epu32(a, b);
    const I odd = _mm_mul_epu32(_mm_srli_epi64(a, 32), _mm_srli_epi64(b, 32));
    return _mm_unpacklo_epi32(_mm_shuffle_epi32(even, 0x08), _mm_shuffle_epi32(odd, 0x08));
  }
};

}  // namespace
}  // namespace qwen35
