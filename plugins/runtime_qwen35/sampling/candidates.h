// SPDX-License-Identifier: Apache-2.0
// Finding the few candidates that matter without sorting a vocabulary.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "kernels/kernel_table.h"

namespace qwen35 {

struct Candidate {
  float value;  // logit / temperature
  int id;
};

// Largest first, equal values by id, NaN behind everything: a total order, so
// that a sorted list is the same on every machine and for every sort.
bool ranksBefore(const Candidate& a, const Candidate& b);

// The softmax weight before normalisation: e^(value - max).
double weightOf(float value, float max);

// Candidates in no particular order: candidate i has the value x[i] * scale, and
// ids[i], or i without ids. The arrays belong to the caller.
struct CandidateList {
  const float* x;
  size_t n;
  float scale;
  const int* ids;
};

// The `count` candidates of the best ranks, unsorted. Takes linear time, except for
// lists made to be slow. REQUIRES: no NaN, a finite largest value, count <= n; `extent`
// is the list's.
std::vector<Candidate> bestCandidates(const CandidateList& list, const Extent& extent, size_t count,
                                      const SamplingLoops& loops);

// The id that the draw `u` selects among all candidates. By definition, a walk down
// the ranking subtracts each weight from u * (sum of the weights in ranking order) and
// selects the candidate at which nothing is left. This function adds the weights in
// another order, so it rounds differently. It answers only when the nearest border
// between two candidates is further away than all rounding errors together; otherwise it
// returns nothing, and the caller takes the walk. That happens for one draw in ten
// thousand when all of 250,000 candidates weigh the same, and less often otherwise.
// REQUIRES: as above, and 0 <= u < 1.
std::optional<int> drawByWeight(const CandidateList& list, const Extent& extent, double u,
                                const SamplingLoops& loops);

}  // namespace qwen35
