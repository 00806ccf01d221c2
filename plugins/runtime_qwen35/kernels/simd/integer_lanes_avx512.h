// SPDX-License-Identifier: Apache-2.0
// The vector type of one level, for integer products. Only sources that are compiled with the
// level's flags include this.
#pragma once

#include "kernels/simd/lanes_avx512.h"
#include "kernels/simd/lanes_inl.h"

namespace qwen35 {
namespace {

// What the levels with vectors of 512 bits share.
struct IntegerAvx512 : Avx512 {
  // I with its lanes in the type. Sums that live in registers have this type: g++ 12 keeps arrays
  // of I on the stack, because instructions take I as vectors of other lanes.
  using Ints = int __attribute__((vector_size(64)));

  static constexpr size_t kIntegerTokens = 12;  // of one group: sums fill 24 of 32 registers
  static constexpr size_t kIntegerGroups = 2;   // of rows that matvec takes together
  static constexpr int kFetchLocality = 2;      // of weights: the panel needs the first-level cache
  static constexpr bool kSplitsBytes = true;

  static I addInts(I a, I b) { return _mm512_add_epi32(a, b); }
  static I mulHalves(I a, I b) { return _mm512_mullo_epi16(a, b); }
  static I subHalves(I a, I b) { return _mm512_sub_epi16(a, b); }
  template <int kBits>
  static I shiftDownSigned(I v) {
    return _mm512_srai_epi32(v, kBits);
  }
};

// Without instructions for sums of four products: pairs first, then pairs of them.
struct Avx512Bw : IntegerAvx512 {
  static constexpr bool kCodesKeepPlace = false;

  static I addPairs(I sum, I a, I b) { return addInts(sum, _mm512_madd_epi16(a, b)); }
  static void addCodes(I& high, I& low, I codes, const uint32_t* x) {
    high = _mm512_add_epi16(high, _mm512_maddubs_epi16(codes, setBits(x[0])));
    low = _mm512_add_epi16(low, _mm512_maddubs_epi16(codes, setBits(x[1])));
  }
  template <int kShift>
  static I addScaled(I sum, I high, I low, I scale) {
    static_assert(kShift == 0);
    const I pairs = select(setBits(0xFFFF), scale, shiftUp<16>(scale));
    sum = addPairs(sum, low, pairs);
    return addPairs(sum, high, _mm512_slli_epi16(pairs, 7));
  }
  static void addWideCodes(I& high, I& low, I codes, const uint32_t* x) {
    const I ones = setBits(0x00010001);
    high = addPairs(high, _mm512_maddubs_epi16(codes, setBits(x[0])), ones);
    low = addPairs(low, _mm512_maddubs_epi16(codes, setBits(x[1])), ones);
  }
  static I wideSum(I high, I low) { return addInts(shiftUp<7>(high), low); }
};

}  // namespace
}  // namespace qwen35
