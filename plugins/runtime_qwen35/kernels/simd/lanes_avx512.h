// SPDX-License-Identifier: Apache-2.0
// The vector type of one level. Only that level's source, which is compiled with the level's
// flags, includes this.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

struct Avx512 {
  static constexpr size_t kLanes = 16;
  static constexpr size_t kTokens = 8;      // of one group: their sums fill 16 of 32 registers
  static constexpr int kFetchLocality = 3;  // of weights: into the first-level cache
  static constexpr size_t kStateVectors = 8;
  using F = __m512;
  using I = __m512i;

  static F zero() { return _mm512_setzero_ps(); }
  static F set(float x) { return _mm512_set1_ps(x); }
  static I setBits(uint32_t x) { return _mm512_set1_epi32(static_cast<int>(x)); }
  static F load(const float* p) { return _mm512_loadu_ps(p); }
  static F loadHalf(const uint16_t* p) {
    return _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
  }
  static I loadBits(const uint32_t* p) { return _mm512_loadu_si512(p); }
  static void store(float* p, F v) { _mm512_storeu_ps(p, v); }

  static F add(F a, F b) { return _mm512_add_ps(a, b); }
  static F sub(F a, F b) { return _mm512_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm512_mul_ps(a, b); }
  static F fma(F a, F b, F c) { return _mm512_fmadd_ps(a, b, c); }
  static F exactMulSub(F a, F b, F c) { return _mm512_fmsub_ps(a, b, c); }
  static F fromInt(I v) { return _mm512_cvtepi32_ps(v); }
  static F fromHalf(I v) { return _mm512_cvtph_ps(_mm512_cvtepi32_epi16(v)); }
  static F asFloat(I v) { return _mm512_castsi512_ps(v); }
  static bool allFinite(F v) {
    const __m512i exponent = _mm512_and_si512(_mm512_castps_si512(v), setBits(0x7F800000));
    return _mm512_cmpeq_epi32_mask(exponent, setBits(0x7F800000)) == 0;
  }

  static I both(I a, I b) { return _mm512_and_si512(a, b); }
  static I either(I a, I b) { return _mm512_or_si512(a, b); }
  // The bits of a where `mask` is set, of b elsewhere.
  static I select(I mask, I a, I b) { return _mm512_ternarylogic_epi32(mask, a, b, 0xCA); }
  static I flip(I v, I bits) { return _mm512_xor_si512(v, bits); }
  template <int kBits>
  static I shiftUp(I v) {
    return _mm512_slli_epi32(v, kBits);
  }
  template <int kBits>
  static I shiftDown(I v) {
    return _mm512_srli_epi32(v, kBits);
  }

  // Lane r of words[w] becomes the w-th of kWords (4, 8 or 16) 32-bit words at
  // rows[r] + offset. 32 bytes of a row at a time take four steps a word where 16
  // take five; 64 bytes take four as well and were slower.
  template <size_t kWords>
  static void loadWords(const uint8_t* const* rows, size_t offset, I* words) {
    if constexpr (kWords == 4) {
      loadFourWords(rows, offset, words);
    } else {
      for (size_t w = 0; w < kWords; w += 8) loadEightWords(rows, offset + 4 * w, words + w);
    }
  }

 private:
  static void loadFourWords(const uint8_t* const* rows, size_t offset, I* words) {
    transposeQuarters(fourRows(rows, offset), fourRows(rows + 1, offset),
                      fourRows(rows + 2, offset), fourRows(rows + 3, offset), words);
  }

  static void loadEightWords(const uint8_t* const* rows, size_t offset, I* words) {
    I a[4];  // rows 0 to 3, 4 to 7: words 0 to 3 in the even quarters, 4 to 7 in the odd
    I b[4];  // rows 8 to 11, 12 to 15
    transposeQuarters(twoRows(rows, offset), twoRows(rows + 1, offset), twoRows(rows + 2, offset),
                      twoRows(rows + 3, offset), a);
    transposeQuarters(twoRows(rows + 8, offset), twoRows(rows + 9, offset),
                      twoRows(rows + 10, offset), twoRows(rows + 11, offset), b);
    for (size_t w = 0; w < 4; ++w) {
      words[w] = _mm512_shuffle_i32x4(a[w], b[w], 0x88);
      words[4 + w] = _mm512_shuffle_i32x4(a[w], b[w], 0xDD);
    }
  }

  // In each quarter, t0 to t3 hold four words of four rows.
  static void transposeQuarters(I t0, I t1, I t2, I t3, I* words) {
    const I a0 = _mm512_unpacklo_epi32(t0, t1);
    const I a1 = _mm512_unpackhi_epi32(t0, t1);
    const I b0 = _mm512_unpacklo_epi32(t2, t3);
    const I b1 = _mm512_unpackhi_epi32(t2, t3);
    words[0] = _mm512_unpacklo_epi64(a0, b0);
    words[1] = _mm512_unpackhi_epi64(a0, b0);
    words[2] = _mm512_unpacklo_epi64(a1, b1);
    words[3] = _mm512_unpackhi_epi64(a1, b1);
  }

  static __m128i quarter(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }

  static __m256i half(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  }

  // 16 bytes of rows 0, 4, 8 and 12.
  static I fourRows(const uint8_t* const* rows, size_t offset) {
    I v = _mm512_castsi128_si512(quarter(rows[0] + offset));
    v = _mm512_inserti32x4(v, quarter(rows[4] + offset), 1);
    v = _mm512_inserti32x4(v, quarter(rows[8] + offset), 2);
    return _mm512_inserti32x4(v, quarter(rows[12] + offset), 3);
  }

  // 32 bytes of rows 0 and 4.
  static I twoRows(const uint8_t* const* rows, size_t offset) {
    return _mm512_inserti64x4(_mm512_castsi256_si512(half(rows[0] + offset)),
                              half(rows[4] + offset), 1);
  }
};

}  // namespace
}  // namespace qwen35
