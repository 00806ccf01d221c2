// SPDX-License-Identifier: Apache-2.0
// A matrix times one vector. Rows lie in the lanes of a vector: column after column, every lane
// decodes its own row's weight, multiplies and adds, so that each row's sum has the order of the
// plain loop and its bits.
#pragma once

#include "kernels/simd/formats_inl.h"
#include "kernels/widened_rows.h"

namespace qwen35 {
namespace {

template <class V, size_t G, uint32_t kMask, typename WordOf>
ZEM_INLINE void addColumns(size_t words, const WordOf& wordOf, const Affine<V, G>& affine,
                           const float* x, typename V::F (&sums)[G]) {
  using F = typename V::F;
  F unit[4][G];
  F min[G];
  F sum[G];
  unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
    unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
      unit[k.value][g.value] = V::mul(affine.scale[g.value], V::set(fieldUnit<k.value, kMask>()));
    });
    min[g.value] = affine.min[g.value];
    sum[g.value] = sums[g.value];
  });
  // Hides the count from the compiler: GCC 12 unrolls a loop of four whole, runs out of registers
  // and loses a tenth of Q6_K's speed.
  asm("" : "+r"(words));
  for (size_t w = 0; w < words; ++w) {
    typename V::I word[G];
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA { word[g.value] = wordOf(g, w); });
    unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
      const F input = V::set(x[4 * w + k.value]);
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        const F weight = V::exactMulSub(field<V, k.value, kMask>(word[g.value]),
                                        unit[k.value][g.value], min[g.value]);
        sum[g.value] = V::add(sum[g.value], V::mul(weight, input));
      });
    });
  }
  unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA { sums[g.value] = sum[g.value]; });
}

// SumSink::columns by way of the library's block decoders, where the vector steps are not exact.
template <class V, size_t G>
[[gnu::noinline]] void addWidened(WidenBlocks widen, const Tile<V, G>& tile, const float* x,
                                  size_t columns, typename V::F (&sums)[G]) {
  for (size_t g = 0; g < G; ++g) {
    float lanes[V::kLanes];
    const uint8_t* rows[V::kLanes];
    for (size_t r = 0; r < V::kLanes; ++r) rows[r] = tile.row(g, r);
    V::store(lanes, sums[g]);
    addWidenedRows(widen, rows, V::kLanes, x, columns, lanes);
    sums[g] = V::load(lanes);
  }
}

// Multiplies each column by its x and adds it to the rows' sums. `x` belongs to the first column
// that the format hands over.
template <class V, size_t G>
struct SumSink {
  const float* x;
  typename V::F (&sums)[G];

  template <uint32_t kMask, typename WordOf>
  ZEM_INLINE void columns(size_t words, const WordOf& wordOf, const Affine<V, G>& affine,
                          size_t column) {
    addColumns<V, G, kMask>(words, wordOf, affine, x + column, sums);
  }

  template <typename Group>
  ZEM_INLINE void column(Group g, typename V::F weight, size_t column) {
    sums[g.value] = V::add(sums[g.value], V::mul(weight, V::set(x[column])));
  }

  ZEM_INLINE void widened(WidenBlocks widen, const Tile<V, G>& tile, size_t columns,
                          size_t column) {
    addWidened<V, G>(widen, tile, x + column, columns, sums);
  }
};

// The sums of `count` rows, at most G * V::kLanes; lanes beyond repeat the last row.
template <class V, class Format, size_t G>
void matvecTile(const uint8_t* W, size_t stride, size_t count, const float* x, size_t cols,
                float* y) {
  constexpr size_t kRows = G * V::kLanes;
  Tile<V, G> tile(W, stride, count);
  typename V::F sums[G];
  unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA { sums[g.value] = V::zero(); });

  size_t c = 0;
  for (; c + Format::kColumns <= cols; c += Format::kColumns) {
    SumSink<V, G> sink{x + c, sums};
    Format::template add<V, G>(tile, sink);
    tile.advance(Format::kBytes);
  }
  if constexpr (requires { &Format::template rest<V, G, SumSink<V, G>>; }) {
    SumSink<V, G> sink{x + c, sums};
    if (c < cols) Format::template rest<V, G>(tile, cols - c, sink);
  }

  float all[kRows];
  unrolled<G>([&](auto g)
                  ZEM_INLINE_LAMBDA { V::store(all + g.value * V::kLanes, sums[g.value]); });
  std::memcpy(y, all, count * sizeof(float));
}

// See Matvec.
template <class V, class Format>
void matvec(const void* W, const float* x, size_t rows, size_t cols, float* y) {
  constexpr size_t kGroups = Format::kMostRows < 2 * V::kLanes ? 1 : 2;
  const size_t stride = cols / Format::kBlockColumns * Format::kBlockBytes;
  const auto* base = static_cast<const uint8_t*>(W);
  while (rows > 0) {
    const size_t most = rows > V::kLanes ? kGroups * V::kLanes : V::kLanes;
    const size_t count = rows < most ? rows : most;
    if (count > V::kLanes) {
      matvecTile<V, Format, kGroups>(base, stride, count, x, cols, y);
    } else {
      matvecTile<V, Format, 1>(base, stride, count, x, cols, y);
    }
    base += count * stride;
    y += count;
    rows -= count;
  }
}

}  // namespace
}  // namespace qwen35
