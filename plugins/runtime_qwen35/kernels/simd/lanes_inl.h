// SPDX-License-Identifier: Apache-2.0
// Tools for code over the lanes of a vector. Only the sources of the levels include this.
// Everything has internal linkage, so that no level's code can be linked into another.
#pragma once

#include <cstddef>
#include <utility>

#define ZEM_INLINE [[gnu::always_inline]] inline
#define ZEM_INLINE_LAMBDA __attribute__((always_inline))

namespace qwen35 {
namespace {

template <size_t I>
struct Index {
  static constexpr size_t value = I;
};

template <typename Use, size_t... I>
ZEM_INLINE void callWithEach(const Use& use, std::index_sequence<I...>) {
  (use(Index<I>{}), ...);
}

// use(Index<0>), ..., use(Index<N - 1>): a loop whose counter is a constant, so
// that arrays indexed by it live in registers whatever the compiler unrolls.
template <size_t N, typename Use>
ZEM_INLINE void unrolled(const Use& use) {
  callWithEach(use, std::make_index_sequence<N>{});
}

}  // namespace
}  // namespace qwen35
