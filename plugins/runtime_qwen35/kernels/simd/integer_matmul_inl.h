// SPDX-License-Identifier: Apache-2.0
// A matrix times many rounded vectors.
//
// The kernel decodes a block of a tile of rows into a panel of integers that stays in the
// first-level cache: code times sub-scale, which fits 16 bits, two columns in each lane. Then each
// group of tokens runs through the panel, its sums in registers. The minima need no products of
// their own: they are more pairs of columns, which multiply the sums of the activations.
#pragma once

#include <type_traits>

#include "kernels/integer_kernels.h"
#include "kernels/simd/integer_formats_inl.h"

namespace qwen35 {
namespace {

// Two vectors of rows share the broadcast of a token's pair.
inline constexpr size_t kIntegerTileGroups = 2;
// Tokens that one decoding of a block serves: their sums are kept beside the panel.
inline constexpr size_t kIntegerSumTokens = 96;

// One block of a tile of rows.
template <class V>
struct IntegerPanel {
  static constexpr size_t G = kIntegerTileGroups;
  static constexpr size_t kRows = G * V::kLanes;
  static constexpr size_t kMostParts = 8;

  // A run of `pairs` rows of the panel and what its sums are multiplied by.
  struct Part {
    size_t pairs;
    PartScale<V, G> scale;
  };

  typename V::I pairs[kSumRows + kPairRows][G];  // the rows of a token's block
  Part parts[kMostParts];
  size_t firstPair = 0;  // of the first part
  size_t partCount = 0;
};

template <class V>
ZEM_INLINE void addPairsTo(typename V::Ints& sum, typename V::I a, typename V::I b) {
  sum = reinterpret_cast<typename V::Ints>(V::addPairs(reinterpret_cast<typename V::I>(sum), a, b));
}

template <class V>
ZEM_INLINE typename V::F floatsOf(typename V::Ints v) {
  return V::fromInt(reinterpret_cast<typename V::I>(v));
}

// Where a part stands in its block: what to do with the values of the parts before it, and with
// its own.
enum class PartPlace { First, Middle, Last, Only };

// The sums of T tokens over one part, and what becomes of them: `values` collects a block's parts,
// and with the last part, times the tokens' scales, they are added to the sums of the rows.
template <class V, size_t T, PartPlace kPlace>
ZEM_INLINE void addIntegerPart(const typename V::I (*panel)[kIntegerTileGroups], const uint32_t* x,
                               size_t pairs, const PartScale<V, kIntegerTileGroups>& scale,
                               typename V::F (*values)[kIntegerTileGroups],
                               const uint32_t* tokenScales, float* sums) {
  constexpr size_t G = kIntegerTileGroups;
  constexpr bool kIsFirst = kPlace == PartPlace::First || kPlace == PartPlace::Only;
  constexpr bool kIsLast = kPlace == PartPlace::Last || kPlace == PartPlace::Only;
  using I = typename V::I;
  using F = typename V::F;
  using Ints = typename V::Ints;
  Ints sum[T][G];
  unrolled<T>([&](auto t) ZEM_INLINE_LAMBDA {
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA { sum[t.value][g.value] = Ints{}; });
  });
  for (size_t p = 0; p < pairs; ++p) {
    const I w0 = panel[p][0];
    const I w1 = panel[p][1];
    unrolled<T>([&](auto t) ZEM_INLINE_LAMBDA {
      const I in = V::setBits(x[t.value]);
      addPairsTo<V>(sum[t.value][0], w0, in);
      addPairsTo<V>(sum[t.value][1], w1, in);
    });
    x += T;
  }
  unrolled<T>([&](auto t) ZEM_INLINE_LAMBDA {
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      F value = V::mul(floatsOf<V>(sum[t.value][g.value]), scale.of[g.value]);
      if constexpr (!kIsFirst) value = V::add(values[t.value][g.value], value);
      if constexpr (kIsLast) {
        float* at = sums + t.value * IntegerPanel<V>::kRows + g.value * V::kLanes;
        const F tokenScale = V::asFloat(V::setBits(tokenScales[t.value]));
        V::store(at, V::add(V::load(at), V::mul(value, tokenScale)));
      } else {
        values[t.value][g.value] = value;
      }
    });
  });
}

// Adds one block of T tokens to their sums, which lie a tile's rows apart.
template <class V, size_t T>
[[gnu::noinline]] void addIntegerBlock(const IntegerPanel<V>& panel, const uint32_t* x,
                                       float* sums) {
  typename V::F values[T][kIntegerTileGroups];
  const uint32_t* scales = x + (kTokenWords - 1) * T;
  const auto* pairs = panel.pairs + panel.firstPair;
  x += panel.firstPair * T;
  const auto* part = panel.parts;
  const auto add = [&](auto place) ZEM_INLINE_LAMBDA {
    addIntegerPart<V, T, decltype(place)::value>(pairs, x, part->pairs, part->scale, values, scales,
                                                 sums);
    pairs += part->pairs;
    x += part->pairs * T;
    ++part;
  };
  if (panel.partCount == 1) {
    add(std::integral_constant<PartPlace, PartPlace::Only>{});
    return;
  }
  add(std::integral_constant<PartPlace, PartPlace::First>{});
  for (size_t i = 2; i < panel.partCount; ++i) {
    add(std::integral_constant<PartPlace, PartPlace::Middle>{});
  }
  add(std::integral_constant<PartPlace, PartPlace::Last>{});
}

template <class V>
using AddIntegerBlock = void (*)(const IntegerPanel<V>&, const uint32_t*, float*);

template <class V, typename Counts>
struct AddIntegerBlocks;
template <class V, size_t... I>
struct AddIntegerBlocks<V, std::index_sequence<I...>> {
  static constexpr AddIntegerBlock<V> kOf[] = {addIntegerBlock<V, I + 1>...};
};

// The instance for 1 to V::kIntegerTokens tokens.
template <class V>
AddIntegerBlock<V> addIntegerBlockFor(size_t tokens) {
  return AddIntegerBlocks<V, std::make_index_sequence<V::kIntegerTokens>>::kOf[tokens - 1];
}

// Fills a panel with the columns of one block.
template <class V, class Format>
struct IntegerPanelSink {
  static constexpr size_t G = kIntegerTileGroups;
  using I = typename V::I;

  IntegerPanel<V>& panel;
  PartScale<V, G> d;

  ZEM_INLINE explicit IntegerPanelSink(IntegerPanel<V>& filled) : panel(filled) {
    panel.firstPair = Format::kHasMinima ? 0 : kSumRows;
    panel.partCount = 0;
  }

  ZEM_INLINE void setScale(const PartScale<V, G>& scale) { d = scale; }

  ZEM_INLINE void endPart(size_t pairs, const PartScale<V, G>& scale) {
    panel.parts[panel.partCount++] = {pairs, scale};
  }

  // The codes in the bytes `kByte` and `kByte` + 2 of a word, less the offset, times the scale.
  template <uint32_t kMask, size_t kByte, typename Scale>
  ZEM_INLINE static I pairOf(I word, const Scale& scale, size_t g) {
    constexpr int kDown = trailingZeros(kMask) + 8 * static_cast<int>(kByte);
    I codes =
        V::both(shift<V, -kDown>(word), V::setBits((kMask >> trailingZeros(kMask)) * 0x00010001));
    if constexpr (Format::kOffset != 0) {
      codes = V::subHalves(codes, V::setBits(Format::kOffset * 0x00010001));
    }
    if constexpr (Format::kSubColumns != 0) codes = V::mulHalves(codes, scale.of[g]);
    return codes;
  }

  template <uint32_t kMask, typename WordOf, typename Scale>
  ZEM_INLINE void columns(size_t words, const WordOf& wordOf, const Scale& scale, size_t column) {
    Scale twice = scale;
    if constexpr (Format::kSubColumns != 0) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        const I s = scale.of[g.value];
        twice.of[g.value] = V::select(V::setBits(0xFFFF), s, V::template shiftUp<16>(s));
      });
    }
    auto* out = panel.pairs + kSumRows + column / 2;
    for (size_t w = 0; w < words; ++w) {
      unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
        const I word = wordOf(g, w);
        out[2 * w][g.value] = pairOf<kMask, 0>(word, twice, g.value);
        out[2 * w + 1][g.value] = pairOf<kMask, 1>(word, twice, g.value);
      });
    }
    if constexpr (Format::kSubColumns == 0) {
      endPart(Format::kPartColumns / 2, scale);
    } else {
      if ((column + 4 * words) % Format::kPartColumns == 0) endPart(Format::kPartColumns / 2, d);
    }
  }

  ZEM_INLINE void minima(const SubScale<V, G>* minima, const PartScale<V, G>& dmin) {
    PartScale<V, G> negative;
    unrolled<G>([&](auto g) ZEM_INLINE_LAMBDA {
      negative.of[g.value] = V::mul(dmin.of[g.value], V::set(-1.0F));
      for (size_t j = 0; j < kSumRows; ++j) {
        panel.pairs[j][g.value] = halvesFor<V>(minima[j].of[g.value]);
      }
    });
    endPart(kSumRows, negative);
  }
};

// `count` rows, at most one tile, with at most kIntegerSumTokens tokens. `packed` holds the
// tokens' groups, each `blocks` blocks long.
template <class V, class Format>
void integerMatmulTile(const uint8_t* W, size_t stride, size_t count, const uint32_t* packed,
                       size_t tokens, size_t cols, float* y, size_t yStride) {
  constexpr size_t kRows = IntegerPanel<V>::kRows;
  Tile<V, kIntegerTileGroups> tile(W, stride, count);
  IntegerPanel<V> panel;
  alignas(64) float sums[kIntegerSumTokens * kRows];
  std::memset(sums, 0, tokens * kRows * sizeof(float));
  const size_t blocks = (cols + kRoundedColumns - 1) / kRoundedColumns;
  for (size_t b = 0; b < blocks; ++b) {
    const size_t left = cols - b * kRoundedColumns;
    IntegerPanelSink<V, Format> sink(panel);
    Format::template add<V, kIntegerTileGroups>(
        tile, left < kRoundedColumns ? left : kRoundedColumns, sink);
    for (size_t first = 0; first < tokens; first += V::kIntegerTokens) {
      const size_t group = tokens - first < V::kIntegerTokens ? tokens - first : V::kIntegerTokens;
      addIntegerBlockFor<V>(group)(panel, packed + (first * blocks + b * group) * kTokenWords,
                                   sums + first * kRows);
    }
  }
  for (size_t t = 0; t < tokens; ++t) {
    std::memcpy(y + t * yStride, sums + t * kRows, count * sizeof(float));
  }
}

// See IntegerMatmul.
template <class V, class Format>
void integerMatmul(const void* W, const uint32_t* packed, size_t tokens, size_t rows, size_t cols,
                   float* y, size_t yStride) {
  static_assert(kIntegerSumTokens % V::kIntegerTokens == 0);
  constexpr size_t kRows = IntegerPanel<V>::kRows;
  const size_t blocks = (cols + kRoundedColumns - 1) / kRoundedColumns;
  const size_t stride = cols / Format::kBlockColumns * Format::kBlockBytes;
  const auto* base = static_cast<const uint8_t*>(W);
  for (size_t first = 0; first < tokens; first += kIntegerSumTokens) {
    const size_t some = tokens - first < kIntegerSumTokens ? tokens - first : kIntegerSumTokens;
    for (size_t r = 0; r < rows; r += kRows) {
      integerMatmulTile<V, Format>(base + r * stride, stride, rows - r < kRows ? rows - r : kRows,
                                   packed + first * blocks * kTokenWords, some, cols,
                                   y + first * yStride + r, yStride);
    }
  }
}

}  // namespace
}  // namespace qwen35
