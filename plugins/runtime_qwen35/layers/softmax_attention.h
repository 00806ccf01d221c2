// SPDX-License-Identifier: Apache-2.0
// Softmax attention over the key/value cache.
//
// Query heads that share a key/value head go through its cache together, up to kSoftmaxHeads of
// them: their scores lie side by side for each slot. Slots lie in the lanes while scores are
// computed, components of the values while those are mixed.
#pragma once

#include "kernels/kernel_table.h"
#include "layers/blocks.h"
#include "qwen35_model.h"

namespace qwen35 {

// Of some query heads: the largest score, and the sum of exp(score - max).
struct SoftmaxTotals {
  float max[kSoftmaxHeads];
  float sum[kSoftmaxHeads];
};

// Query heads [first, first + count), at most kSoftmaxHeads, share key/value head `kv`.
struct HeadGroup {
  size_t kv;
  size_t first;
  size_t count;
};

// All query heads of a layer, in order. `heads` is a multiple of `kvHeads`.
std::vector<HeadGroup> headGroups(size_t heads, size_t kvHeads);

// A run of tokens in one layer. Their keys and values are in the cache already, in the slots from
// kvLen on. `q` holds the query heads, each with its gate behind it: 2 * headDim floats a head.
// Token t's `o`, nHead * headDim floats, becomes softmax(q k / 16) v * sigmoid(gate). Returns the
// totals of the last token's first heads.
SoftmaxTotals softmaxAttention(const Model& m, const Layer& L, const TokenRun& run,
                               const Activations& q, Floats& o);

}  // namespace qwen35
