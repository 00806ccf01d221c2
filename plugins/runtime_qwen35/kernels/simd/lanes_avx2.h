// SPDX-License-Identifier: Apache-2.0
// The vector type of one level. Only that level's source, which is compiled with the level's
// flags, includes this.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

struct Avx2 {
  static constexpr size_t kLanes = 8;
  static constexpr size_t kTokens = 6;      // of one group: their sums fill 12 of 16 registers
  static constexpr int kFetchLocality = 3;  // of weights: into the first-level cache
  static constexpr size_t kStateVectors = 4;
  using F = __m256;
  using I = __m256i;

  static F zero() { return _mm256_setzero_ps(); }
  static F set(float x) { return _mm256_set1_ps(x); }
  static I setBits(uint32_t x) { return _mm256_set1_epi32(static_cast<int>(x)); }
  static F load(const float* p) { return _mm256_loadu_ps(p); }
  static F loadHalf(const uint16_t* p) {
    return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  }
  static I loadBits(const uint32_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  }
  static void store(float* p, F v) { _mm256_storeu_ps(p, v); }

  static F add(F a, F b) { return _mm256_add_ps(a, b); }
  static F sub(F a, F b) { return _mm256_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm256_mul_ps(a, b); }
  static F fma(F a, F b, F c) { return _mm256_fmadd_ps(a, b, c); }
  static F exactMulSub(F a, F b, F c) { return _mm256_fmsub_ps(a, b, c); }
  static F fromInt(I v) { return _mm256_cvtepi32_ps(v); }
  static F fromHalf(I v) {
    const I low = both(v, setBits(0xFFFF));
    const I packed = _mm256_packus_epi32(low, low);
    return _mm256_cvtph_ps(
        _mm_unpacklo_epi64(_mm256_castsi256_si128(packed), _mm256_extracti128_si256(packed, 1)));
  }
  static F asFloat(I v) { return _mm256_castsi256_ps(v); }
  static bool allFinite(F v) {
    const I exponent = both(_mm256_castps_si256(v), setBits(0x7F800000));
    return _mm256_movemask_epi8(_mm256_cmpeq_epi32(exponent, setBits(0x7F800000))) == 0;
  }

  static I both(I a, I b) { return _mm256_and_si256(a, b); }
  static I either(I a, I b) { return _mm256_or_si256(a, b); }
  static I select(I mask, I a, I b) { return either(both(mask, a), _mm256_andnot_si256(mask, b)); }
  static I flip(I v, I bits) { return _mm256_xor_si256(v, bits); }
  template <int kBits>
  static I shiftUp(I v) {
    return _mm256_slli_epi32(v, kBits);
  }
  template <int kBits>
  static I shiftDown(I v) {
    return _mm256_srli_epi32(v, kBits);
  }

  // Lane r of words[w] becomes the w-th of kWords (4, 8 or 16) 32-bit words at
  // rows[r] + offset.
  template <size_t kWords>
  static void loadWords(const uint8_t* const* rows, size_t offset, I* words) {
    for (size_t w = 0; w < kWords; w += 4) loadFourWords(rows, offset + 4 * w, words + w);
  }

 private:
  static void loadFourWords(const uint8_t* const* rows, size_t offset, I* words) {
    const I t0 = twoRows(rows, offset);
    const I t1 = twoRows(rows + 1, offset);
    const I t2 = twoRows(rows + 2, offset);
    const I t3 = twoRows(rows + 3, offset);
    const I a0 = _mm256_unpacklo_epi32(t0, t1);
    const I a1 = _mm256_unpackhi_epi32(t0, t1);
    const I b0 = _mm256_unpacklo_epi32(t2, t3);
    const I b1 = _mm256_unpackhi_epi32(t2, t3);
    words[0] = _mm256_unpacklo_epi64(a0, b0);
    words[1] = _mm256_unpackhi_epi64(a0, b0);
    words[2] = _mm256_unpacklo_epi64(a1, b1);
    words[3] = _mm256_unpackhi_epi64(a1, b1);
  }

  static __m128i half(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }

  // 16 bytes of rows 0 and 4.
  static I twoRows(const uint8_t* const* rows, size_t offset) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(half(rows[0] + offset)),
                                   half(rows[4] + offset), 1);
  }
};

}  // namespace
}  // namespace qwen35
