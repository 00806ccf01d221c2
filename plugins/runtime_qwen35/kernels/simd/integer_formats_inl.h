// SPDX-License-Identifier: Apache-2.0
// How the integer products read each encoding: formats_inl.h decodes the codes, and here are the
// scales as integers.
//
// A sink takes, for Q4_K and Q5_K, a block's minima, and then its codes (formats_inl.h, `columns`)
// with scales of this file. What it needs to know of an encoding:
//   kPartColumns   columns whose sum is rounded to float together: as many as 32 bits hold when
//                  all codes, scales and activations are at their ends
//   kOffset        what the codes that the format hands over lie above the stored ones
//   kSubColumns    columns that share a sub-scale; 0: none
//   kScaleEach     whether every part has a half-precision scale of its own
//   kHasMinima
#pragma once

#include "kernels/simd/formats_inl.h"

namespace qwen35 {
namespace {

// Sub-scale or minimum of a sub-block, a small integer for each row.
template <class V, size_t G>
struct SubScale {
  typename V::I of[G];
};

// The half-precision scale of a part, one for each row.
template <class V, size_t G>
struct PartScale {
  typename V::F of[G];
};

// Byte k of each lane as an integer.
template <class V, size_t kByte>
ZEM_INLINE typename V::I byteOf(typename V::I word) {
  if constexpr (kByte == 3) {
    return V::template shiftDown<24>(word);
  } else {
    return V::both(shift<V, -8 * static_cast<int>(kByte)>(word), V::setBits(0xFF));
  }
}

template <class V, size_t kByte>
ZEM_INLINE typename V::I signedByteOf(typename V::I word) {
  return V::template shiftDownSigned<24>(shift<V, 24 - 8 * static_cast<int>(kByte)>(word));
}

// Halves for a sum that is kept as low + 256 * high (RoundedVector): the integer, and 256 times it.
template <class V>
ZEM_INLINE typename V::I halvesFor(typename V::I v) {
  return V::select(V::setBits(0xFFFF), v, V::template shiftUp<24>(v));
}

// The scales of a block of Q4_K or Q5_K.
template <class V, size_t G>
struct AffineScales {
  PartScale<V, G> d;
  PartScale<V, G> dmin;
  SubScale<V, G> scales[8];
  SubScale<V, G> minima[8];

  ZEM_INLINE explicit AffineScales(const Tile<V, G>& tile) {
    for (size_t g = 0; g < G; ++g) {
      const SixBitHead<V> head(tile, g);
      d.of[g] = head.d();
      dmin.of[g] = head.dmin();
      for (size_t half = 0; half < 2; ++half) {
        unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
          const size_t j = 4 * half + k.value;
          scales[j].of[g] = byteOf<V, k.value>(head.scales[half]);
          minima[j].of[g] = byteOf<V, k.value>(head.minima[half]);
        });
      }
    }
  }
};

template <class Codes, size_t kColumnsOfPart>
struct IntegerAffine {
  static constexpr size_t kBlockColumns = Codes::kBlockColumns;
  static constexpr size_t kBlockBytes = Codes::kBlockBytes;
  static constexpr size_t kPartColumns = kColumnsOfPart;
  static constexpr size_t kSubColumns = 32;
  static constexpr uint32_t kOffset = 0;
  static constexpr bool kHasMinima = true;

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, size_t /*columns*/, Sink& sink) {
    const AffineScales<V, G> scales(tile);
    sink.minima(scales.minima, scales.dmin);
    sink.setScale(scales.d);
    Codes::template addCodes<V, G>(tile, scales.scales, sink);
    tile.advance(Codes::kBytes);
  }
};

using IntegerQ4K = IntegerAffine<Q4K, 256>;
using IntegerQ5K = IntegerAffine<Q5K, 128>;

struct IntegerQ6K {
  static constexpr size_t kBlockColumns = Q6K::kBlockColumns;
  static constexpr size_t kBlockBytes = Q6K::kBlockBytes;
  static constexpr size_t kPartColumns = 64;
  static constexpr size_t kSubColumns = 16;
  static constexpr uint32_t kOffset = 32;
  static constexpr bool kHasMinima = false;

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, size_t /*columns*/, Sink& sink) {
    PartScale<V, G> d;
    SubScale<V, G> scales[16];
    for (size_t g = 0; g < G; ++g) {
      typename V::I last[4];  // the scale is the upper half of the last word
      tile.template loadWords<4>(g, Q6K::kBytes - 16, last);
      d.of[g] = V::fromHalf(V::template shiftDown<16>(last[3]));
      typename V::I words[4];
      tile.template loadWords<4>(g, Q6K::kScales, words);
      for (size_t w = 0; w < 4; ++w) {
        unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
          scales[4 * w + k.value].of[g] = signedByteOf<V, k.value>(words[w]);
        });
      }
    }
    sink.setScale(d);
    Q6K::addCodes<V, G>(tile, scales, sink);
    tile.advance(Q6K::kBytes);
  }
};

// Up to eight stored blocks, which share an activation's scale.
struct IntegerQ80 {
  static constexpr size_t kBlockColumns = Q80::kBlockColumns;
  static constexpr size_t kBlockBytes = Q80::kBlockBytes;
  static constexpr size_t kPartColumns = kBlockColumns;
  static constexpr size_t kSubColumns = 0;
  static constexpr uint32_t kOffset = 128;
  static constexpr bool kHasMinima = false;

  template <class V, size_t G, class Sink>
  ZEM_INLINE static void add(Tile<V, G>& tile, size_t columns, Sink& sink) {
    const size_t blocks = columns / kBlockColumns;
    PartScale<V, G> scales[Q80::kBlocks];
    for (size_t b = 0; b < blocks; ++b) {
      for (size_t g = 0; g < G; ++g) {
        typename V::I first[4];  // the scale is the lower half of the first word
        tile.template loadWords<4>(g, b * kBlockBytes, first);
        scales[b].of[g] = V::fromHalf(first[0]);
      }
    }
    Q80::addCodes<V, G>(tile, blocks, scales, sink);
    tile.advance(blocks * kBlockBytes);
  }
};

}  // namespace
}  // namespace qwen35
