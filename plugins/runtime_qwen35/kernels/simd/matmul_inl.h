// SPDX-License-Identifier: Apache-2.0
// A matrix times many vectors.
//
// The kernel decodes a tile of rows into a panel of floats that stays in the first-level cache:
// columns one after the other, rows side by side. Then each group of tokens runs through the
// panel, its sums in registers. Rows lie in the lanes, as in matvec_inl.h, and every sum keeps
// the plain loop's order.
#pragma once

#include "kernels/simd/formats_inl.h"
#include "kernels/widened_rows.h"

namespace qwen35 {
namespace {

// Two vectors of rows share the broadcast of a token's x.
inline constexpr size_t kTileGroups = 2;
// Of a panel. 128 columns of 32 rows are 16 KiB; a group's x takes 4 more.
inline constexpr size_t kPanelColumns = 128;
// Tokens that one decoding of a tile serves: their sums are kept beside the panel.
inline constexpr size_t kSumTokens = 48;

template <class V>
ZEM_INLINE typename V::F widened(const float* p) {
  return V::load(p);
}
template <class V>
ZEM_INLINE typename V::F widened(const uint16_t* p) {
  return V::loadHalf(p);
}

// Adds `count` columns of floats or halves to the sums of one tile and T tokens. Column c of the
// tile's rows stands at columns + c * stride, x of its tokens at packed + c * T.
template <class V, size_t T, typename E>
[[gnu::noinline]] void addPanel(const E* columns, size_t stride, const float* packed, size_t count,
                                float* sums, size_t sumStride) {
  using F = typename V::F;
  F sum[T][kTileGroups];
  unrolled<T>([&](auto t) ZEM_INLINE_LAMBDA {
    unrolled<kTileGroups>([&](auto g) ZEM_INLINE_LAMBDA {
      sum[t.value][g.value] = V::load(sums + t.value * sumStride + g.value * V::kLanes);
    });
  });
  for (size_t c = 0; c < count; ++c) {
    F weight[kTileGroups];
    unrolled<kTileGroups>([&](auto g) ZEM_INLINE_LAMBDA {
      weight[g.value] = widened<V>(columns + g.value * V::kLanes);
    });
    unrolled<T>([&](auto t) ZEM_INLINE_LAMBDA {
      const F x = V::set(packed[t.value]);
      unrolled<kTileGroups>([&](auto g) ZEM_INLINE_LAMBDA {
        F& s = sum[t.value][g.value];
        s = V::add(s, V::mul(weight[g.value], x));
      });
    });
    columns += stride;
    packed += T;
  }
  unrolled<T>([&](auto t) ZEM_INLINE_LAMBDA {
    unrolled<kTileGroups>([&](auto g) ZEM_INLINE_LAMBDA {
      V::store(sums + t.value * sumStride + g.value * V::kLanes, sum[t.value][g.value]);
    });
  });
}

template <typename E>
using AddPanel = void (*)(const E*, size_t, const float*, size_t, float*, size_t);

template <class V, typename E, typename Counts>
struct AddPanels;
template <class V, typename E, size_t... I>
struct AddPanels<V, E, std::index_sequence<I...>> {
  static constexpr AddPanel<E> kOf[] = {addPanel<V, I + 1, E>...};
};

// The instance for 1 to V::kTokens tokens.
template <class V, typename E>
AddPanel<E> addPanelFor(size_t tokens) {
  return AddPanels<V, E, std::make_index_sequence<V::kTokens>>::kOf[tokens - 1];
}

// Collects a tile's columns and adds them to the sums whenever the panel is full.
template <class V>
struct PanelSink {
  static constexpr size_t G = kTileGroups;
  static constexpr size_t kRows = G * V::kLanes;

  PanelSink(const float* packedTokens, size_t tokenCount, size_t columnCount)
      : packed(packedTokens), tokens(tokenCount), cols(columnCount) {}

  const float* packed;
  size_t tokens;  // at most kSumTokens
  size_t cols;
  size_t blockStart = 0;  // the column of the matrix that is the format's first
  alignas(64) float panel[kPanelColumns * kRows];
  alignas(64) float sums[kSumTokens * kRows];  // kRows a token

  // Where a column of the format goes.
  ZEM_INLINE float* place(size_t column) {
    return panel + (blockStart + column) % kPanelColumns * kRows;
  }

  template <uint32_t kMask, typename WordOf>
  ZEM_INLINE void columns(size_t words, const WordOf& wordOf, const Affine<V, G>& affine,
                          size_t column) {
    using F = typename V::F;
    F unit[4][G];
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
        unit[k.value][g.value] = V::mul(affine.scale[g.value], V::set(fieldUnit<k.value, kMask>()));
      });
    });
    float* out = place(column);
    for (size_t w = 0; w < words; ++w) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        const auto word = wordOf(g, w);
        unrolled<4>([&](auto k) ZEM_INLINE_LAMBDA {
          V::store(out + k.value * kRows + g.value * V::kLanes,
                   V::exactMulSub(field<V, k.value, kMask>(word), unit[k.value][g.value],
                                  affine.min[g.value]));
        });
      });
      out += 4 * kRows;
    }
    addIfFull(column + 4 * words);
  }

  template <typename Group>
  ZEM_INLINE void column(Group g, typename V::F weight, size_t column) {
    V::store(place(column) + g.value * V::kLanes, weight);
  }

  [[gnu::noinline]] void widened(WidenBlocks widen, const Tile<V, G>& tile, size_t columns,
                                 size_t column) {
    float wide[kRows][256];
    for (size_t r = 0; r < kRows; ++r) {
      widen(tile.row(r / V::kLanes, r % V::kLanes), wide[r], columns);
    }
    for (size_t c = 0; c < columns; ++c) {
      float* out = place(column + c);
      for (size_t r = 0; r < kRows; ++r) out[r] = wide[r][c];
      addIfFull(column + c + 1);
    }
  }

  // Called with the column after the last one that was placed.
  ZEM_INLINE void addIfFull(size_t column) {
    if ((blockStart + column) % kPanelColumns == 0) add(blockStart + column, kPanelColumns);
  }

  // Adds the panel's `count` columns, of which the last is column end - 1 of the matrix.
  [[gnu::noinline]] void add(size_t end, size_t count) {
    for (size_t first = 0; first < tokens; first += V::kTokens) {
      const size_t group = tokens - first < V::kTokens ? tokens - first : V::kTokens;
      addPanelFor<V, float>(group)(panel, kRows, packed + first * cols + (end - count) * group,
                                   count, sums + first * kRows, kRows);
    }
  }
};

// `count` rows, at most one tile, with the sink's tokens.
template <class V, class Format>
void matmulTile(const uint8_t* W, size_t stride, size_t count, size_t cols, PanelSink<V>& sink,
                float* y, size_t yStride) {
  constexpr size_t kRows = PanelSink<V>::kRows;
  Tile<V, kTileGroups> tile(W, stride, count);
  std::memset(sink.sums, 0, sink.tokens * kRows * sizeof(float));
  sink.blockStart = 0;
  while (sink.blockStart + Format::kColumns <= cols) {
    Format::template add<V, kTileGroups>(tile, sink);
    // Formats of whole blocks fill the panel, and empty it, on their way.
    if constexpr (Format::kColumns < kPanelColumns) sink.addIfFull(Format::kColumns);
    tile.advance(Format::kBytes);
    sink.blockStart += Format::kColumns;
  }
  if constexpr (requires { &Format::template rest<V, kTileGroups, PanelSink<V>>; }) {
    if (sink.blockStart < cols) {
      Format::template rest<V, kTileGroups>(tile, cols - sink.blockStart, sink);
    }
  }
  if (cols % kPanelColumns != 0) sink.add(cols, cols % kPanelColumns);
  for (size_t t = 0; t < sink.tokens; ++t) {
    std::memcpy(y + t * yStride, sink.sums + t * kRows, count * sizeof(float));
  }
}

// See Matmul.
template <class V, class Format>
void matmul(const void* W, const float* packed, size_t tokens, size_t rows, size_t cols, float* y,
            size_t yStride) {
  static_assert(kSumTokens % V::kTokens == 0);
  constexpr size_t kRows = PanelSink<V>::kRows;
  const size_t stride = cols / Format::kBlockColumns * Format::kBlockBytes;
  const auto* base = static_cast<const uint8_t*>(W);
  for (size_t first = 0; first < tokens; first += kSumTokens) {
    const size_t some = tokens - first < kSumTokens ? tokens - first : kSumTokens;
    PanelSink<V> sink(packed + first * cols, some, cols);
    for (size_t r = 0; r < rows; r += kRows) {
      const size_t count = rows - r < kRows ? rows - r : kRows;
      matmulTile<V, Format>(base + r * stride, stride, count, cols, sink, y + first * yStride + r,
                            yStride);
    }
  }
}

// See AddColumns.
template <class V, typename E>
void addColumns(const E* columns, size_t stride, const float* packed, size_t tokens, size_t count,
                size_t rows, float* sums, size_t sumStride) {
  constexpr size_t kRows = kTileGroups * V::kLanes;
  const AddPanel<E> add = addPanelFor<V, E>(tokens);
  for (size_t r = 0; r < rows; r += kRows) {
    add(columns + r, stride, packed, count, sums + r, sumStride);
  }
}

}  // namespace
}  // namespace qwen35
