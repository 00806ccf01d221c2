// How a product's rows are shared out among threads.
#pragma once

#include <omp.h>

#include <cstddef>
#include <cstdint>

#include "qwen35_row_dots.h"

namespace qwen35 {

// Below this many weights, waking the team takes longer than the product.
inline constexpr size_t kTeamWeights = 32768;

// Calls work(thread, begin, end) on every member of the OpenMP team, which
// between them cover rows [0, rows) in order: with T threads each gets rows / T
// consecutive rows and the first rows % T one more. A product of fewer than
// kTeamWeights weights (rows x cols) has a team of one. `thread` is below
// omp_get_max_threads(). `work` must not throw: nothing can catch it.
template <typename Work>
void forEachRowRange(size_t rows, size_t cols, const Work& work) {
#pragma omp parallel if (rows * cols >= kTeamWeights)
  {
    const auto threads = static_cast<size_t>(omp_get_num_threads());
    const auto thread = static_cast<size_t>(omp_get_thread_num());
    const size_t share = rows / threads;
    const size_t extra = rows % threads;
    const size_t begin = thread * share + (thread < extra ? thread : extra);
    const size_t end = begin + share + (thread < extra ? 1 : 0);
    if (begin < end) work(thread, begin, end);
  }
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
