#include <emmintrin.h>

#include "qwen35_row_dots.h"
#include "qwen35_row_dots_inl.h"

namespace qwen35 {
namespace {

// SSE2, which every x86-64 processor has.
struct Baseline {
  static constexpr size_t kLanes = 4;
  using F = __m128;
  using I = __m128i;

  static F zero() { return _mm_setzero_ps(); }
  static F set(float x) { return _mm_set1_ps(x); }
  static I setBits(uint32_t x) { return _mm_set1_epi32(static_cast<int>(x)); }
  static F load(const float* p) { return _mm_loadu_ps(p); }
  static I loadBits(const uint32_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }
  static void store(float* p, F v) { _mm_storeu_ps(p, v); }

  static F add(F a, F b) { return _mm_add_ps(a, b); }
  static F sub(F a, F b) { return _mm_sub_ps(a, b); }
  static F mul(F a, F b) { return _mm_mul_ps(a, b); }
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

constinit const RowDotsTable kRowDotsBaseline = rowDotsTableOf<Baseline>();

}  // namespace qwen35
