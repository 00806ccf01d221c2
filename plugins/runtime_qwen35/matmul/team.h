// How work is shared out among threads.
#pragma once

#include <omp.h>

#include <cstddef>
#include <cstdint>

#include "kernels/row_dots.h"

namespace qwen35 {

// Below this many weights, waking the team takes longer than the product.
inline constexpr size_t kTeamWeights = 32768;

// The same for loops over the elements of an activation.
inline constexpr size_t kTeamElements = 4096;

// Whether a team would have one member. It is not asked for then: the OpenMP runtime
// sets up a team of one like any other, on Windows with kernel objects.
inline bool isAlone() { return omp_get_max_threads() == 1; }

// Calls work(thread, begin, end) on every member of the OpenMP team, which
// between them cover units [0, units) in order: with T threads each gets
// units / T consecutive ones and the first units % T one more. Without
// `worthwhile` the team is one. `thread` is below omp_get_max_threads(). `work`
// must not throw: nothing can catch it.
template <typename Work>
void forEachShare(size_t units, bool worthwhile, const Work& work) {
  if (!worthwhile || isAlone()) {
    if (units > 0) work(size_t{0}, size_t{0}, units);
    return;
  }
#pragma omp parallel
  {
    const auto threads = static_cast<size_t>(omp_get_num_threads());
    const auto thread = static_cast<size_t>(omp_get_thread_num());
    const size_t share = units / threads;
    const size_t extra = units % threads;
    const size_t begin = thread * share + (thread < extra ? thread : extra);
    const size_t end = begin + share + (thread < extra ? 1 : 0);
    if (begin < end) work(thread, begin, end);
  }
}

// work(unit) for each of [0, units), shared out in the same way.
template <typename Work>
void forEachUnit(size_t units, bool worthwhile, const Work& work) {
  forEachShare(units, worthwhile, [&](size_t /*thread*/, size_t begin, size_t end) {
    for (size_t unit = begin; unit < end; ++unit) work(unit);
  });
}

// work(thread, unit) for each of [0, units), each on the next thread that is
// free: for units that take unequal time.
template <typename Work>
void forEachUnitInTurn(size_t units, const Work& work) {
  if (units <= 1 || isAlone()) {
    for (size_t unit = 0; unit < units; ++unit) work(size_t{0}, unit);
    return;
  }
#pragma omp parallel for schedule(dynamic)
  for (size_t unit = 0; unit < units; ++unit) {
    work(static_cast<size_t>(omp_get_thread_num()), unit);
  }
}

// The shares of a product's rows: a product of fewer than kTeamWeights weights
// (rows x cols) has a team of one.
template <typename Work>
void forEachRowRange(size_t rows, size_t cols, const Work& work) {
  forEachShare(rows, rows * cols >= kTeamWeights, work);
}

// Calls use(row, dot product of the row with x) for every row of a matrix at
// `W`, whose rows lie `stride` bytes apart, on the team.
template <typename Use>
void forEachRowDot(RowDots dotRows, const void* W, size_t stride, const float* x, size_t rows,
                   size_t cols, const Use& use) {
  const auto* base = static_cast<const uint8_t*>(W);
  forEachRowRange(rows, cols, [&](size_t /*thread*/, size_t begin, size_t end) {
    float dots[kRowDotsRows];
    for (size_t r = begin; r < end; r += kRowDotsRows) {
      const size_t count = end - r < kRowDotsRows ? end - r : kRowDotsRows;
      dotRows(base + r * stride, x, count, cols, dots);
      for (size_t i = 0; i < count; ++i) use(r + i, dots[i]);
    }
  });
}

}  // namespace qwen35
