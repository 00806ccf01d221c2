// SPDX-License-Identifier: Apache-2.0
// Softmax attention over the pages of one conversation.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include "engine/model/cache_pages.h"
#include "layers/activations.h"

namespace zem {

struct AttentionSizes {
  size_t heads;
  size_t kvHeads;  // heads / kvHeads query heads share one
  size_t headSize;
};

// Consecutive tokens of one conversation, `first` among the rows of the buffers, at positions
// from `position` on. Their keys and values are in `pages` already.
struct AttentionRun {
  std::span<const std::shared_ptr<Page>> pages;
  size_t position;
  size_t first;
  size_t count;
};

// Token t's row of `o`, heads * headSize floats, becomes softmax(q k / sqrt(headSize)) v *
// sigmoid(gate) over the positions up to its own. A row of `q` holds the query heads, each with
// its gate behind it. `layer` counts the layers with full attention. `scratch` keeps its memory
// from call to call: some MiB, or as much as the scores of one token take. The sums run from
// component and position 0 upward, in float; with F32 pages every bit is that of attention over
// one contiguous cache.
void pagedAttention(const AttentionSizes& sizes, const PageLayout& layout, size_t layer,
                    const AttentionRun& run, const qwen35::Activations& q, qwen35::Activations& o,
                    std::vector<float>& scratch);

}  // namespace zem
