// SPDX-License-Identifier: Apache-2.0
// A matrix times one rounded vector. Rows lie in the lanes of a vector, as in matvec_inl.h; four
// columns at a time are multiplied as bytes.
#pragma once

#include "kernels/integer_kernels.h"
#include "kernels/simd/integer_formats_inl.h"

namespace qwen35 {
namespace {

// Adds up one block's parts.
template <class V, class Format, size_t G>
struct IntegerSumSink {
  using I = typename V::I;
  using F = typename V::F;

  ZEM_INLINE explicit IntegerSumSink(const RoundedVector& block) : x(block) {
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      value[g.value] = V::zero();
      sum[g.value] = V::setBits(0);
    });
  }

  const RoundedVector& x;
  PartScale<V, G> d;
  I sum[G];
  F value[G];

  ZEM_INLINE void setScale(const PartScale<V, G>& scale) { d = scale; }

  template <uint32_t kMask, typename WordOf, typename Scale>
  ZEM_INLINE void columns(size_t words, const WordOf& wordOf, const Scale& scale, size_t column) {
    // Codes may stay where they lie in their bytes: their sum then moves down.
    constexpr int kDown = trailingZeros(kMask);
    constexpr int kShift = V::kCodesKeepPlace ? kDown : 0;
    constexpr uint32_t kKept = kMask >> (kDown - kShift);
    const uint32_t(*in)[2] = x.words + column / 4;
    I a[G];
    I b[G];
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      a[g.value] = V::setBits(0);
      b[g.value] = V::setBits(0);
    });
    for (size_t w = 0; w < words; ++w) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        const I word = shift<V, kShift - kDown>(wordOf(g, w));
        const I codes = kKept == 0xFF ? word : V::both(word, V::setBits(kKept * 0x01010101));
        if constexpr (kMask == 0xFF) {
          V::addWideCodes(a[g.value], b[g.value], codes, in[w]);
        } else {
          V::addCodes(a[g.value], b[g.value], codes, in[w]);
        }
      });
    }
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      I& s = sum[g.value];
      if constexpr (Format::kSubColumns == 0) {
        s = V::addInts(V::wideSum(a[g.value], b[g.value]),
                       V::setBits(static_cast<uint32_t>(x.minus128Sums[column / 32])));
      } else {
        s = V::template addScaled<kShift>(s, a[g.value], b[g.value], scale.of[g.value]);
      }
      if constexpr (Format::kOffset == 32) {
        s = V::addPairs(s, halvesFor<V>(scale.of[g.value]), V::setBits(x.minus32Sums[column / 16]));
      }
    });
    if constexpr (Format::kSubColumns == 0) {
      endPart(scale);
    } else {
      if ((column + 4 * words) % Format::kPartColumns == 0) endPart(d);
    }
  }

  ZEM_INLINE void endPart(const PartScale<V, G>& scale) {
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      const F part = V::mul(V::fromInt(sum[g.value]), scale.of[g.value]);
      value[g.value] = V::add(value[g.value], part);
      sum[g.value] = V::setBits(0);
    });
  }

  ZEM_INLINE void minima(const SubScale<V, G>* minima, const PartScale<V, G>& dmin) {
    for (size_t j = 0; j < kRoundedColumns / 32; ++j) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        sum[g.value] =
            V::addPairs(sum[g.value], halvesFor<V>(minima[j].of[g.value]), V::setBits(x.sums[j]));
      });
    }
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      const F part = V::mul(V::fromInt(sum[g.value]), dmin.of[g.value]);
      value[g.value] = V::sub(value[g.value], part);
      sum[g.value] = V::setBits(0);
    });
  }
};

// The products of `count` rows, at most G * V::kLanes; lanes beyond repeat the last row.
template <class V, class Format, size_t G>
void integerMatvecTile(const uint8_t* W, size_t stride, size_t count, const RoundedVector* x,
                       size_t cols, float* y) {
  Tile<V, G> tile(W, stride, count);
  typename V::F sums[G];
  unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA { sums[g.value] = V::zero(); });

  for (size_t c = 0; c < cols; c += kRoundedColumns) {
    const RoundedVector& block = x[c / kRoundedColumns];
    IntegerSumSink<V, Format, G> sink(block);
    Format::template add<V, G>(tile, cols - c < kRoundedColumns ? cols - c : kRoundedColumns, sink);
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      sums[g.value] = V::add(sums[g.value], V::mul(sink.value[g.value], V::set(block.scale)));
    });
  }

  float all[G * V::kLanes];
  unrolled<G>([&](auto g)
                  ZEM_INLINE_LAMBDA { V::store(all + g.value * V::kLanes, sums[g.value]); });
  std::memcpy(y, all, count * sizeof(float));
}

// See IntegerMatvec.
template <class V, class Format>
void integerMatvec(const void* W, const RoundedVector* x, size_t rows, size_t cols, float* y) {
  const size_t stride = cols / Format::kBlockColumns * Format::kBlockBytes;
  const auto* base = static_cast<const uint8_t*>(W);
  while (rows > 0) {
    constexpr size_t kMost = V::kIntegerGroups * V::kLanes;
    const size_t most = rows > V::kLanes ? kMost : V::kLanes;
    const size_t count = rows < most ? rows : most;
    if (count > V::kLanes) {
      integerMatvecTile<V, Format, V::kIntegerGroups>(base, stride, count, x, cols, y);
    } else {
      integerMatvecTile<V, Format, 1>(base, stride, count, x, cols, y);
    }
    base += count * stride;
    y += count;
    rows -= count;
  }
}

}  // namespace
}  // namespace qwen35
