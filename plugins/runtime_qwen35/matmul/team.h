// SPDX-License-Identifier: Apache-2.0
// How work is shared out among threads.
#pragma once

#include <omp.h>

#include <cstddef>

#include "matmul/thread_team.h"

namespace qwen35 {

// Below this many weights, waking the team takes longer than the product.
inline constexpr size_t kTeamWeights = 32768;

// As kTeamWeights, for loops over the elements of an activation.
inline constexpr size_t kTeamElements = 4096;

// Threads that loops on this thread have: those of ThreadTeam::current(), else OpenMP's.
inline size_t teamSize() {
  const ThreadTeam* team = ThreadTeam::current();
  return team != nullptr ? team->size() : static_cast<size_t>(omp_get_max_threads());
}

// Whether a team would have one member. Loops then do without a team: the OpenMP runtime sets up
// a team of one like any other, on Windows with kernel objects.
inline bool isAlone() { return teamSize() == 1; }

// Units that a member of a ThreadTeam takes at a time: a quarter of an equal share, so that a
// member that runs late leaves its part to the others; whole tiles of rows where there are many.
inline size_t unitsAtATime(size_t units, size_t threads) {
  constexpr size_t kRowsOfATile = 32;
  const size_t some = (units + 4 * threads - 1) / (4 * threads);
  return some < kRowsOfATile ? some : (some + kRowsOfATile - 1) / kRowsOfATile * kRowsOfATile;
}

// work(thread, begin, end) for consecutive parts of `some` units.
template <typename Work>
void forEachPart(ThreadTeam& team, size_t units, size_t some, const Work& work) {
  struct Loop {
    const Work& work;
    size_t units;
    size_t some;
  } loop{work, units, some};
  team.run((units + some - 1) / some,
           [](void* context, size_t thread, size_t i) {
             const Loop& l = *static_cast<const Loop*>(context);
             const size_t begin = i * l.some;
             l.work(thread, begin, begin + l.some < l.units ? begin + l.some : l.units);
           },
           &loop);
}

// Calls work(thread, begin, end) on the members of the team. Between them they cover units
// [0, units) in order, a member of a ThreadTeam with several calls. Of T threads of OpenMP each
// gets units / T consecutive units and the first units % T one more. Without `worthwhile` the
// calling thread does all of it. `thread` is below teamSize(). `work` must not throw: an exception
// cannot leave a team.
template <typename Work>
void forEachShare(size_t units, bool worthwhile, const Work& work) {
  if (units == 0) return;
  if (!worthwhile || isAlone()) return work(size_t{0}, size_t{0}, units);
  if (ThreadTeam* team = ThreadTeam::current()) {
    return forEachPart(*team, units, unitsAtATime(units, team->size()), work);
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
  if (ThreadTeam* team = ThreadTeam::current()) {
    constexpr size_t kMostPieces = 4096;
    const size_t some = (units + kMostPieces - 1) / kMostPieces;
    return forEachPart(*team, units, some, [&](size_t thread, size_t begin, size_t end) {
      for (size_t unit = begin; unit < end; ++unit) work(thread, unit);
    });
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
