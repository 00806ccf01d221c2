// SPDX-License-Identifier: Apache-2.0
// How the lanes of a vector read the rows of a stored matrix, for each encoding.
//
// All instruction sets share this text: each level's source includes it once and hands it the
// level's vector type V (lanes_*.h). Everything has internal linkage, so that no level's code can
// be linked into another.
//
// Why the fused steps below are exact: a half-precision scale has 11 significant bits, a
// sub-block's scale 6 to 8, a code 4 to 8, so their products fit the 24 bits of a float and
// multiplying them rounds nothing. `scale * code - min` in one fused step then rounds once, as
// the two steps of the plain loop do together. For the same reason a code may stay where it lies
// in its word: the mask leaves code * 2^k, and the scale is multiplied by 2^-k beforehand.
//
// A minus zero may become a plus zero on the way. The sums start at plus zero and come out the
// same for both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kernels/simd/lanes_inl.h"
#include "kiv/dequant.h"
#include "kiv/quant_k.h"

namespace qwen35 {
namespace {

constexpr int trailingZeros(uint32_t mask) {
  return (mask & 1) != 0 ? 0 : 1 + trailingZeros(mask >> 1);
}

// The lowest bit of `kMask` within a word, once the mask has moved to byte kByte.
// A field that holds the sign bit is shifted down instead of left in place.
template <size_t kByte, uint32_t kMask>
constexpr int kFieldBit = 8 * static_cast<int>(kByte) + trailingZeros(kMask);
template <size_t kByte, uint32_t kMask>
constexpr bool kFieldIsTop = kByte == 3 && (kMask & 0x80) != 0;

// The masked field of a word as floats; times fieldUnit it is the field's value.
template <class V, size_t kByte, uint32_t kMask>
ZEM_INLINE typename V::F field(typename V::I word) {
  if constexpr (kFieldIsTop<kByte, kMask>) {
    return V::fromInt(V::template shiftDown<kFieldBit<kByte, kMask>>(word));
  } else {
    return V::fromInt(V::both(word, V::setBits(kMask << (8 * kByte))));
  }
}

template <size_t kByte, uint32_t kMask>
constexpr float fieldUnit() {
  return kFieldIsTop<kByte, kMask> ? 1.0F
                                   : 1.0F / static_cast<float>(1U << kFieldBit<kByte, kMask>);
}

// Up for positive counts, down for negative ones.
template <class V, int kBits>
ZEM_INLINE typename V::I shift(typename V::I v) {
  if constexpr (kBits > 0) {
    return V::template shiftUp<kBits>(v);
  } else if constexpr (kBits < 0) {
    return V::template shiftDown<-kBits>(v);
  } else {
    return v;
  }
}

// Rows of one tile: G groups of V::kLanes each. While one group waits for its chain of additions,
// the other adds; the column's x is broadcast once for both.
template <class V, size_t G>
struct Tile {
  static constexpr size_t kRows = G * V::kLanes;

  // `count` rows from W on, `stride` bytes apart; lanes beyond repeat the last.
  Tile(const uint8_t* W, size_t stride, size_t count) : ahead(W + kRows * stride) {
    for (size_t r = 0; r < kRows; ++r) {
      rows[r / V::kLanes][r % V::kLanes] = W + (r < count ? r : count - 1) * stride;
    }
  }

  const uint8_t* rows[G][V::kLanes];  // where they begin
  size_t at = 0;                      // the current place, the same in every row
  const uint8_t* ahead;               // in the tile after this one, whose rows follow without a gap

  // Prefetches one of kParts parts of the next tile's block, which has kRowBytes bytes a row.
  // Formats call this evenly between the sums: prefetching a whole block at once would fill the
  // buffers that this block's own loads wait for.
  template <size_t kRowBytes, size_t kParts>
  ZEM_INLINE void fetchAhead() {
    constexpr size_t kPiece = G * V::kLanes * kRowBytes / kParts;
    for (size_t i = 0; i < kPiece; i += 64) __builtin_prefetch(ahead + i, 0, V::kFetchLocality);
    ahead += kPiece;
  }

  // Word w of group g's rows, from `offset` bytes behind the current place on, as V::loadWords.
  template <size_t kWords>
  ZEM_INLINE void loadWords(size_t g, size_t offset, typename V::I* words) const {
    V::template loadWords<kWords>(rows[g], at + offset, words);
  }

  // The current place of a row.
  const uint8_t* row(size_t g, size_t lane) const { return rows[g][lane] + at; }

  ZEM_INLINE void advance(size_t bytes) { at += bytes; }
};

// Scale and minimum of a sub-block, one row a lane.
template <class V, size_t G>
struct Affine {
  typename V::F scale[G];
  typename V::F min[G];
};

// The six-bit scales, or minima, of four sub-blocks: one in each byte of a word.
template <class V, size_t G>
ZEM_INLINE void widenSixBits(typename V::I word, typename V::F d, size_t g,
                             typename V::F (Affine<V, G>::*part)[G], Affine<V, G>* affines) {
  unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
    (affines[k.value].*part)[g] =
        V::mul(field<V, k.value, 0x3F>(word), V::mul(d, V::set(fieldUnit<k.value, 0x3F>())));
  });
}

// What the first 16 bytes of Q4_K and Q5_K hold, one row a lane: the half-precision scales in
// `halves`, and the six-bit scales and minima of sub-blocks 0 to 3 and 4 to 7, one in each byte.
// See kiv::quant::getScaleMinK4; this takes four sub-blocks at once.
template <class V>
struct SixBitHead {
  typename V::I halves;
  typename V::I scales[2];
  typename V::I minima[2];

  template <size_t G>
  ZEM_INLINE SixBitHead(const Tile<V, G>& tile, size_t g) {
    using I = typename V::I;
    const I six = V::setBits(0x3F3F3F3F);
    const I four = V::setBits(0x0F0F0F0F);
    const I two = V::setBits(0x30303030);
    I head[4];
    tile.template loadWords<4>(g, 0, head);
    const I scaleTop = V::both(V::template shiftDown<2>(head[1]), two);
    const I minTop = V::both(V::template shiftDown<2>(head[2]), two);
    const I minLow = V::both(V::template shiftDown<4>(head[3]), four);
    halves = head[0];
    scales[0] = V::both(head[1], six);
    scales[1] = V::either(V::both(head[3], four), scaleTop);
    minima[0] = V::both(head[2], six);
    minima[1] = V::either(minLow, minTop);
  }

  ZEM_INLINE typename V::F d() const { return V::fromHalf(halves); }
  ZEM_INLINE typename V::F dmin() const { return V::fromHalf(V::template shiftDown<16>(halves)); }
};

// Scales and minima of the eight sub-blocks of Q4_K and Q5_K, which begin with the same 16 bytes.
template <class V, size_t G>
ZEM_INLINE void loadAffines(const Tile<V, G>& tile, Affine<V, G>* affines) {
  for (size_t g = 0; g < G; ++g) {
    const SixBitHead<V> head(tile, g);
    const auto d = head.d();
    const auto dmin = head.dmin();
    for (size_t half = 0; half < 2; ++half) {
      Affine<V, G>* const four = affines + 4 * half;
      widenSixBits<V, G>(head.scales[half], d, g, &Affine<V, G>::scale, four);
      widenSixBits<V, G>(head.minima[half], dmin, g, &Affine<V, G>::min, four);
    }
  }
}

// 4 * N bytes of each row as transposed words. They stay in the first-level cache while the low
// and then the high parts of their bytes are used: one transposition serves both.
template <class V, size_t G, size_t N>
struct Words {
  typename V::I at[G][N];

  ZEM_INLINE void load(const Tile<V, G>& tile, size_t offset) {
    for (size_t g = 0; g < G; ++g) tile.template loadWords<N>(g, offset, at[g]);
  }
};

// A row is stored in units of kBlockColumns columns in kBlockBytes bytes. Each format hands
// kColumns columns, stored in kBytes bytes a row, to a sink:
//   columns<mask>(words, wordOf, affine, column)
//       4 * words quantised columns: the four bytes of word w hold, under the
//       mask, the codes of columns 4w to 4w + 3; wordOf(group, w) gives the word
//   column(group, weight, column)
//       one column of plain numbers
//   widened(widen, tile, columns, column)
//       columns that the library's block decoder has to widen, because the
//       vector steps are not exact for them
// `column` counts from the first of the kColumns. Columns arrive in order. `rest`, where there is
// one, hands over what is left at the end of a row. matvec reads kMostRows rows side by side.
// `addCodes` hands over the quantised columns alone, with scales that the caller has loaded: the
// integer products have scales of another kind.
inline constexpr size_t kBlockRows = 32;

struct Q4K {
  static constexpr size_t kMostRows = kBlockRows;
  static constexpr size_t kColumns = kiv::quant::kBlock256;
  static constexpr size_t kBytes = sizeof(kiv::quant::Q4KBlock);
  static constexpr size_t kBlockColumns = kColumns;
  static constexpr size_t kBlockBytes = kBytes;
  static constexpr size_t kCodes = offsetof(kiv::quant::Q4KBlock, qs);

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, Sink& sink) {
    Affine<V, G> affines[8];
    loadAffines<V, G>(tile, affines);
    addCodes<V, G>(tile, affines, sink);
  }

  template <class V, size_t G, class Scale, class Sink>
  ZEM_INLINE static void addCodes(Tile<V, G>& tile, const Scale* scales, Sink& sink) {
    for (size_t c = 0; c < 4; ++c) {
      Words<V, G, 8> codes;
      codes.load(tile, kCodes + 32 * c);
      const auto wordOf = [&](auto g, size_t w) ZEM_INLINE_LAMBDA { return codes.at[g.value][w]; };
      tile.template fetchAhead<kBytes, 8>();
      sink.template columns<0x0F>(8, wordOf, scales[2 * c], 64 * c);
      tile.template fetchAhead<kBytes, 8>();
      sink.template columns<0xF0>(8, wordOf, scales[2 * c + 1], 64 * c + 32);
    }
  }
};

struct Q5K {
  static constexpr size_t kMostRows = kBlockRows;
  static constexpr size_t kColumns = kiv::quant::kBlock256;
  static constexpr size_t kBytes = sizeof(kiv::quant::Q5KBlock);
  static constexpr size_t kBlockColumns = kColumns;
  static constexpr size_t kBlockBytes = kBytes;
  static constexpr size_t kFifthBits = offsetof(kiv::quant::Q5KBlock, qh);
  static constexpr size_t kCodes = offsetof(kiv::quant::Q5KBlock, qs);

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, Sink& sink) {
    Affine<V, G> affines[8];
    loadAffines<V, G>(tile, affines);
    addCodes<V, G>(tile, affines, sink);
  }

  template <class V, size_t G, class Scale, class Sink>
  ZEM_INLINE static void addCodes(Tile<V, G>& tile, const Scale* scales, Sink& sink) {
    Words<V, G, 8> fifth;
    fifth.load(tile, kFifthBits);
    const auto nibbles = V::setBits(0x0F0F0F0F);
    unrolled<4>([&](auto chunk) ZEM_INLINE_LAMBDA {
      constexpr size_t c = decltype(chunk)::value;
      constexpr int up = 4 - 2 * static_cast<int>(c);  // bit 2c of a byte to bit 4
      Words<V, G, 8> codes;
      codes.load(tile, kCodes + 32 * c);
      const auto low = [&](auto g, size_t w) ZEM_INLINE_LAMBDA {
        return V::select(nibbles, codes.at[g.value][w], shift<V, up>(fifth.at[g.value][w]));
      };
      const auto high = [&](auto g, size_t w) ZEM_INLINE_LAMBDA {
        return V::select(nibbles, V::template shiftDown<4>(codes.at[g.value][w]),
                         shift<V, up - 1>(fifth.at[g.value][w]));
      };
      tile.template fetchAhead<kBytes, 8>();
      sink.template columns<0x1F>(8, low, scales[2 * c], 64 * c);
      tile.template fetchAhead<kBytes, 8>();
      sink.template columns<0x1F>(8, high, scales[2 * c + 1], 64 * c + 32);
    });
  }
};

struct Q6K {
  static constexpr size_t kMostRows = kBlockRows;
  static constexpr size_t kColumns = kiv::quant::kBlock256;
  static constexpr size_t kBytes = sizeof(kiv::quant::Q6KBlock);
  static constexpr size_t kBlockColumns = kColumns;
  static constexpr size_t kBlockBytes = kBytes;
  static constexpr size_t kHigh = offsetof(kiv::quant::Q6KBlock, qh);
  static constexpr size_t kScales = offsetof(kiv::quant::Q6KBlock, scales);
  static_assert(offsetof(kiv::quant::Q6KBlock, d) == kBytes - 2);

  // Scales of the 16 sub-blocks, and as minima 32 times each, because codes stand for code - 32.
  // False when a row's d is infinite or NaN: the fused step is not exact then.
  template <class V, size_t G>
  ZEM_INLINE static bool loadScales(const Tile<V, G>& tile, Affine<V, G>* affines) {
    const auto flip = V::setBits(0x80808080);
    bool finite = true;
    for (size_t g = 0; g < G; ++g) {
      typename V::I last[4];  // the scale is the upper half of the last word
      tile.template loadWords<4>(g, kBytes - 16, last);
      const auto d = V::fromHalf(V::template shiftDown<16>(last[3]));
      finite = finite && V::allFinite(d);
      const auto bias = V::mul(d, V::set(128.0F));
      typename V::I words[4];
      tile.template loadWords<4>(g, kScales, words);
      for (size_t w = 0; w < 4; ++w) {
        const auto word = V::flip(words[w], flip);  // -128 to 127 becomes 0 to 255
        unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
          const auto unit = V::mul(d, V::set(fieldUnit<k.value, 0xFF>()));
          const auto scale = V::exactMulSub(field<V, k.value, 0xFF>(word), unit, bias);
          affines[4 * w + k.value].scale[g] = scale;
          affines[4 * w + k.value].min[g] = V::mul(scale, V::set(32.0F));
        });
      }
    }
    return finite;
  }

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, Sink& sink) {
    Affine<V, G> affines[16];
    if (!loadScales<V, G>(tile, affines)) {
      sink.widened(kiv::quant::dequantQ6K, tile, kColumns, 0);
      return;
    }
    addCodes<V, G>(tile, affines, sink);
  }

  template <class V, size_t G, class Scale, class Sink>
  ZEM_INLINE static void addCodes(Tile<V, G>& tile, const Scale* scales, Sink& sink) {
    for (size_t half = 0; half < 2; ++half) {
      Words<V, G, 16> low;
      Words<V, G, 8> high;
      low.load(tile, 64 * half);
      high.load(tile, kHigh + 32 * half);
      addHalf<V, G>(tile, low, high, scales + 8 * half, 128 * half, sink);
    }
  }

  template <class V, size_t G, class Scale, class Sink>
  ZEM_INLINE static void addHalf(Tile<V, G>& tile, const Words<V, G, 16>& low,
                                 const Words<V, G, 8>& high, const Scale* scales, size_t column,
                                 Sink& sink) {
    const auto nibbles = V::setBits(0x0F0F0F0F);
    unrolled<4>([&](auto quarter) ZEM_INLINE_LAMBDA {
      constexpr size_t q = decltype(quarter)::value;
      constexpr int up = 4 - 2 * static_cast<int>(q);  // bits 2q, 2q + 1 to bits 4, 5
      tile.template fetchAhead<kBytes, 8>();
      for (size_t s = 0; s < 2; ++s) {
        const auto wordOf = [&](auto g, size_t w) ZEM_INLINE_LAMBDA {
          const auto code = low.at[g.value][8 * (q % 2) + 4 * s + w];
          return V::select(nibbles, shift < V, q < 2 ? 0 : -4 > (code),
                           shift<V, up>(high.at[g.value][4 * s + w]));
        };
        sink.template columns<0x3F>(4, wordOf, scales[2 * q + s], column + 32 * q + 16 * s);
      }
    });
  }
};

struct Q80 {
  static constexpr size_t kMostRows = kBlockRows;
  static constexpr size_t kBlocks = 8;  // that load their scales together
  static constexpr size_t kBlockColumns = kiv::quant::kBlock32;
  static constexpr size_t kBlockBytes = sizeof(kiv::quant::Q80Block);
  static constexpr size_t kColumns = kBlocks * kBlockColumns;
  static constexpr size_t kBytes = kBlocks * kBlockBytes;
  static constexpr size_t kCodes = offsetof(kiv::quant::Q80Block, qs);

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, Sink& sink) {
    addBlocks<V, G>(tile, kBlocks, sink);
  }

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void rest(Tile<V, G>& tile, size_t columns, Sink& sink) {
    addBlocks<V, G>(tile, columns / kBlockColumns, sink);
  }

  template <class V, size_t G>
  ZEM_INLINE static bool loadScales(const Tile<V, G>& tile, size_t blocks, Affine<V, G>* affines) {
    bool finite = true;
    for (size_t b = 0; b < blocks; ++b) {
      for (size_t g = 0; g < G; ++g) {
        typename V::I first[4];  // the scale is the lower half of the first word
        tile.template loadWords<4>(g, b * kBlockBytes, first);
        const auto d = V::fromHalf(first[0]);
        finite = finite && V::allFinite(d);
        affines[b].scale[g] = d;
        affines[b].min[g] = V::mul(d, V::set(128.0F));
      }
    }
    return finite;
  }

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void addBlocks(Tile<V, G>& tile, size_t blocks, Sink& sink) {
    Affine<V, G> affines[kBlocks];
    if (!loadScales<V, G>(tile, blocks, affines)) {
      sink.widened(kiv::quant::dequantQ80, tile, blocks * kBlockColumns, 0);
      return;
    }
    addCodes<V, G>(tile, blocks, affines, sink);
  }

  template <class V, size_t G, class Scale, class Sink>
  ZEM_INLINE static void addCodes(Tile<V, G>& tile, size_t blocks, const Scale* scales,
                                  Sink& sink) {
    const auto flip = V::setBits(0x80808080);
    for (size_t b = 0; b < blocks; ++b) {
      Words<V, G, 8> codes;
      codes.load(tile, b * kBlockBytes + kCodes);
      const auto wordOf = [&](auto g, size_t w) ZEM_INLINE_LAMBDA {
        return V::flip(codes.at[g.value][w], flip);  // -128 to 127 becomes 0 to 255
      };
      tile.template fetchAhead<kBlockBytes, 1>();
      sink.template columns<0xFF>(8, wordOf, scales[b], b * kBlockColumns);
    }
  }
};

// Plain numbers go a cache line of each row at a time, over 16 rows. The processor's own
// prefetching follows that many, and their lines fit the first-level cache even when a row's
// length is a multiple of 1024 bytes and all fall into the same sets. Tried and lost: 32 rows ran
// at half the rate, and prefetching as for blocks was slower too.
inline constexpr size_t kPlainRows = 16;
struct Bf16 {
  static constexpr size_t kMostRows = kPlainRows;
  static constexpr size_t kColumns = 32;
  static constexpr size_t kBytes = 64;
  static constexpr size_t kBlockColumns = 1;
  static constexpr size_t kBlockBytes = 2;

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, Sink& sink) {
    const auto upper = V::setBits(0xFFFF0000);
    Words<V, G, 16> pairs;
    pairs.load(tile, 0);
    for (size_t w = 0; w < 16; ++w) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        const auto pair = pairs.at[g.value][w];
        sink.column(g, V::asFloat(V::template shiftUp<16>(pair)), 2 * w);
        sink.column(g, V::asFloat(V::both(pair, upper)), 2 * w + 1);
      });
    }
  }

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void rest(Tile<V, G>& tile, size_t columns, Sink& sink) {
    addNumbers<V, G, uint16_t, 16>(tile, columns, sink);
  }

  // Column by column, for the few at the end of a row.
  template <class V, size_t G, typename Stored, int kShift, class Sink>
  ZEM_INLINE static void addNumbers(const Tile<V, G>& tile, size_t columns, Sink& sink) {
    for (size_t c = 0; c < columns; ++c) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        uint32_t bits[V::kLanes];
        for (size_t r = 0; r < V::kLanes; ++r) {
          Stored stored = 0;
          std::memcpy(&stored, tile.row(g.value, r) + c * sizeof(Stored), sizeof(Stored));
          bits[r] = static_cast<uint32_t>(stored) << kShift;
        }
        sink.column(g, V::asFloat(V::loadBits(bits)), c);
      });
    }
  }
};

struct F32 {
  static constexpr size_t kMostRows = kPlainRows;
  static constexpr size_t kColumns = 16;
  static constexpr size_t kBytes = 64;
  static constexpr size_t kBlockColumns = 1;
  static constexpr size_t kBlockBytes = 4;

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, Sink& sink) {
    Words<V, G, 16> weights;
    weights.load(tile, 0);
    for (size_t w = 0; w < 16; ++w) {
      unrolled<G>([&](auto g)
                      ZEM_INLINE_LAMBDA { sink.column(g, V::asFloat(weights.at[g.value][w]), w); });
    }
  }

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void rest(Tile<V, G>& tile, size_t columns, Sink& sink) {
    Bf16::addNumbers<V, G, uint32_t, 0>(tile, columns, sink);
  }
};

}  // namespace
}  // namespace qwen35
