// SPDX-License-Identifier: Apache-2.0
// The vector type of one level. Only that level's source, which is compiled with the level's
// flags, includes this.
#pragma once

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

// SSE2, which every x86-64 processor has.
struct Baseline {
  static constexpr size_t kLanes = 4;
  static constexpr size_t kTokens = 6;      // of one group: their sums fill 12 of 16 registers
  static constexpr int kFetchLocality = 3;  // of weights: into the first-level cache
  static constexpr size_t kStateVectors = 2;
  using F = __m128;
  using I = __m128i;

  static F zero() { return _mm_setzero_ps(); }
  static F set(float x) { return _mm_set1_ps(x); }
  static I setBits(uint32_t x) { return _mm_set1_epi32(static_cast<int>(x)); }
  static F load(const float* p) { return _mm_loadu_ps(p); }
  static F loadHalf(const uint16_t* p) {
    const I halves = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return fromHalf(_mm_unpacklo_epi16(halves, _mm_setzero_si128()));
  }
  static I loadBits(const uint32_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }
  static void store(float* p, F v) { _mm_storeu_ps(p, v); }

  static F add(F a, F b) { return _mm_add_ps(a, b); }
  static F sub(F a, F b) { return _mm_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm_mul_ps(a, b); }
  // There is no fused instruction. In double the product is exact, and so the one
  // rounding of the sum is to be the float's: rounding the double's sum to odd
  // first keeps what that needs (Boldo and Melquiond, "Emulation of a FMA and
  // correctly rounded sums: proved algorithms using rounding to odd", 2008).
  static F fma(F a, F b, F c) {
    const __m128 low = roundedFma(_mm_cvtps_pd(a), _mm_cvtps_pd(b), _mm_cvtps_pd(c));
    const __m128 high =
        roundedFma(_mm_cvtps_pd(upper(a)), _mm_cvtps_pd(upper(b)), _mm_cvtps_pd(upper(c)));
    return _mm_movelh_ps(low, high);
  }
  static F exactMulSub(F a, F b, F c) { return _mm_sub_ps(_mm_mul_ps(a, b), c); }
  static F fromInt(I v) { return _mm_cvtepi32_ps(v); }
  // The exponent moves up by 112, which is exact and right for subnormal halves
  // too; infinities and NaNs (exponent 31) get the largest exponent instead.
  static F fromHalf(I v) {
    const I magnitude = shiftUp<13>(both(v, setBits(0x7FFF)));
    const I special = _mm_cmpgt_epi32(magnitude, setBits(0x0F7FFFFF));
    const F scaled = mul(asFloat(magnitude), asFloat(setBits(0x77800000)));
    const I bits =
        select(special, either(magnitude, setBits(0x7F800000)), _mm_castps_si128(scaled));
    return asFloat(either(bits, shiftUp<16>(both(v, setBits(0x8000)))));
  }
  static F asFloat(I v) { return _mm_castsi128_ps(v); }
  static bool allFinite(F v) {
    const I exponent = both(_mm_castps_si128(v), setBits(0x7F800000));
    return _mm_movemask_epi8(_mm_cmpeq_epi32(exponent, setBits(0x7F800000))) == 0;
  }

  static I both(I a, I b) { return _mm_and_si128(a, b); }
  static I either(I a, I b) { return _mm_or_si128(a, b); }
  static I select(I mask, I a, I b) { return either(both(mask, a), _mm_andnot_si128(mask, b)); }
  static I flip(I v, I bits) { return _mm_xor_si128(v, bits); }
  template <int kBits>
  static I shiftUp(I v) {
    return _mm_slli_epi32(v, kBits);
  }
  template <int kBits>
  static I shiftDown(I v) {
    return _mm_srli_epi32(v, kBits);
  }

  // Lane r of words[w] becomes the w-th of kWords (4, 8 or 16) 32-bit words at
  // rows[r] + offset.
  template <size_t kWords>
  static void loadWords(const uint8_t* const* rows, size_t offset, I* words) {
    for (size_t w = 0; w < kWords; w += 4) loadFourWords(rows, offset + 4 * w, words + w);
  }

 private:
  static F upper(F v) { return _mm_movehl_ps(v, v); }

  static __m128 roundedFma(__m128d a, __m128d b, __m128d c) {
    const __m128d product = _mm_mul_pd(a, b);
    const __m128d sum = _mm_add_pd(product, c);
    // What the addition lost (Knuth); NaN where the sum is infinite or NaN.
    const __m128d part = _mm_sub_pd(sum, product);
    const __m128d lost =
        _mm_add_pd(_mm_sub_pd(product, _mm_sub_pd(sum, part)), _mm_sub_pd(c, part));
    const __m128d zero = _mm_setzero_pd();
    const I inexact =
        _mm_castpd_si128(_mm_or_pd(_mm_cmplt_pd(lost, zero), _mm_cmpgt_pd(lost, zero)));
    // An inexact sum with an even last bit moves one step towards what it lost.
    const I bits = _mm_castpd_si128(sum);
    const I one = _mm_set_epi32(0, 1, 0, 1);
    const I step = _mm_and_si128(inexact, _mm_andnot_si128(bits, one));
    const I signs = _mm_xor_si128(bits, _mm_castpd_si128(lost));
    const I inward = _mm_sub_epi64(_mm_setzero_si128(), _mm_srli_epi64(signs, 63));
    const I signedStep = _mm_sub_epi64(_mm_xor_si128(step, inward), inward);
    return _mm_cvtpd_ps(_mm_castsi128_pd(_mm_add_epi64(bits, signedStep)));
  }

  static void loadFourWords(const uint8_t* const* rows, size_t offset, I* words) {
    const I t0 = row(rows[0] + offset);
    const I t1 = row(rows[1] + offset);
    const I t2 = row(rows[2] + offset);
    const I t3 = row(rows[3] + offset);
    const I a0 = _mm_unpacklo_epi32(t0, t1);
    const I a1 = _mm_unpackhi_epi32(t0, t1);
    const I b0 = _mm_unpacklo_epi32(t2, t3);
    const I b1 = _mm_unpackhi_epi32(t2, t3);
    words[0] = _mm_unpacklo_epi64(a0, b0);
    words[1] = _mm_unpackhi_epi64(a0, b0);
    words[2] = _mm_unpacklo_epi64(a1, b1);
    words[3] = _mm_unpackhi_epi64(a1, b1);
  }

  static I row(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
};

}  // namespace
}  // namespace qwen35
