// How a product's rows are shared out among threads.
#pragma once

#include <omp.h>

#include <cstddef>

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

}  // namespace qwen35
