// SPDX-License-Identifier: Apache-2.0
// How work is shared out among threads.
#pragma once

#include <omp.h>

#include <cstddef>

namespace qwen35 {

// Below this many weights, waking the team takes longer than the product.
inline constexpr size_t kTeamWeights = 32768;

// As kTeamWeights, for loops over the elements of an activation.
inline constexpr size_t kTeamElements = 4096;

// Whether a team would have one member. Loops then do without a team: the OpenMP runtime sets up
// a team of one like any other, on Windows with kernel objects.
inline bool isAlone() { return omp_get_max_threads() == 1; }

// Calls work(thread, begin, end) on every member of the OpenMP team. Between them they cover
// units [0, units) in order: of T threads each gets units / T consecutive units and the first
// units % T one more. Without `worthwhile` the calling thread does all of it. `thread` is below
// omp_get_max_threads(). `work` must not throw: an exception cannot leave a team.
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

}  // namespace qwen35
