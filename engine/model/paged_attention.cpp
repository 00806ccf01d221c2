// SPDX-License-Identifier: Apache-2.0
#include "engine/model/paged_attention.h"

#include <algorithm>
#include <cmath>

#include "kernels/kernel_table.h"
#include "kernels/packing.h"
#include "layers/softmax_attention.h"
#include "matmul/team.h"

namespace zem {
namespace {

using qwen35::Activations;
using qwen35::HeadGroup;
using qwen35::KernelTable;
using qwen35::kSoftmaxHeads;

// Scores of one block of tokens. A page that is in the processor's cache serves all of them.
constexpr size_t kScoreFloats = size_t{4} << 20;
// Components of the output that a thread mixes at least.
constexpr size_t kMixWidth = 64;

size_t divideUp(size_t a, size_t b) { return (a + b - 1) / b; }

class Attention {
 public:
  Attention(const AttentionSizes& sizes, const PageLayout& layout, size_t layer,
            const AttentionRun& run, const Activations& q, Activations& o)
      : sizes_(sizes),
        layout_(layout),
        layer_(layer),
        run_(run),
        groups_(qwen35::headGroups(sizes.heads, sizes.kvHeads)),
        q_(q),
        o_(o),
        kernels_(qwen35::kernelTable()),
        scale_(1.0F / std::sqrt(static_cast<float>(sizes.headSize))) {}

  void compute(std::vector<float>& scratch) {
    const size_t most = run_.position + run_.count;
    const size_t together = std::clamp<size_t>(kScoreFloats / (most * sizes_.heads), 1, run_.count);
    for (size_t first = 0; first < run_.count; first += together) {
      block(first, std::min(first + together, run_.count), scratch);
    }
  }

 private:
  size_t positions(size_t t) const { return run_.position + t + 1; }
  size_t pagesOf(size_t positions) const { return divideUp(positions, kPagePositions); }
  const float* query(size_t t, size_t head) const {
    return q_.token(run_.first + t) + 2 * head * sizes_.headSize;
  }

  // Tokens [begin, end) of the run.
  void block(size_t begin, size_t end, std::vector<float>& scratch) {
    begin_ = begin;
    end_ = end;
    most_ = positions(end - 1);
    const size_t width = sizes_.heads * sizes_.headSize;
    const size_t tokens = end - begin;
    scratch.resize(std::max(scratch.size(), tokens * (width + sizes_.heads * most_)));
    queries_ = scratch.data();
    scores_ = queries_ + tokens * width;
    packQueries();

    const size_t pages = pagesOf(most_);
    const bool worthwhile = tokens * most_ * width >= qwen35::kTeamWeights;
    qwen35::forEachUnit(groups_.size() * pages, worthwhile,
                        [&](size_t unit) { score(groups_[unit / pages], unit % pages); });
    qwen35::forEachUnit(groups_.size() * tokens, worthwhile, [&](size_t unit) {
      const HeadGroup& g = groups_[unit / tokens];
      const size_t t = begin_ + unit % tokens;
      float max[kSoftmaxHeads];
      float sum[kSoftmaxHeads];
      kernels_.softmax(scoresOf(g, t), positions(t), g.count, max, sum);
    });
    const size_t strips = stripsFor(groups_.size());
    const size_t stripWidth = sizes_.headSize / strips;
    qwen35::forEachUnit(groups_.size() * strips, worthwhile, [&](size_t unit) {
      const size_t first = unit % strips * stripWidth;
      mix(groups_[unit / strips], first, first + stripWidth);
    });
  }

  // Strips of a head's components, so that every thread has some.
  size_t stripsFor(size_t groups) const {
    size_t strips = 1;
    while (groups * strips < 2 * qwen35::teamSize() &&
           sizes_.headSize % (2 * strips * kMixWidth) == 0) {
      strips *= 2;
    }
    return strips;
  }

  float* queriesOf(const HeadGroup& g, size_t t) const {
    return queries_ + ((t - begin_) * sizes_.heads + g.first) * sizes_.headSize;
  }
  // Of position s and head h of the group: [s * g.count + h].
  float* scoresOf(const HeadGroup& g, size_t t) const {
    return scores_ + ((t - begin_) * sizes_.heads + g.first) * most_;
  }

  void packQueries() {
    for (size_t t = begin_; t < end_; ++t) {
      for (const HeadGroup& g : groups_) {
        qwen35::packTokens(query(t, g.first), 2 * sizes_.headSize, g.count, sizes_.headSize,
                           g.count, 0, sizes_.headSize, queriesOf(g, t));
      }
    }
  }

  // sums[h * sumStride + r] += the sum over columns c of column c's number r times factor h.
  void addColumns(size_t page, size_t number, size_t stride, const float* factors, size_t heads,
                  size_t count, size_t rows, float* sums, size_t sumStride) const {
    const Page& p = *run_.pages[page];
    if (layout_.type() == CacheType::F16) {
      kernels_.addHalfColumns(p.halves() + number, stride, factors, heads, count, rows, sums,
                              sumStride);
    } else {
      kernels_.addColumns(p.floats() + number, stride, factors, heads, count, rows, sums,
                          sumStride);
    }
  }

  // The scores of one page with every token that sees some of it.
  void score(const HeadGroup& g, size_t page) const {
    const size_t first = page * kPagePositions;
    for (size_t t = begin_; t < end_; ++t) {
      if (positions(t) <= first) continue;
      float dots[kSoftmaxHeads * kPagePositions] = {};
      addColumns(page, layout_.keys(layer_, g.kv), kPagePositions, queriesOf(g, t), g.count,
                 sizes_.headSize, kPagePositions, dots, kPagePositions);
      float* scores = scoresOf(g, t) + first * g.count;
      const size_t some = std::min(kPagePositions, positions(t) - first);
      for (size_t s = 0; s < some; ++s) {
        for (size_t h = 0; h < g.count; ++h) {
          scores[s * g.count + h] = dots[h * kPagePositions + s] * scale_;
        }
      }
    }
  }

  // Components [begin, end) of every token's output: the weighted values, gated.
  void mix(const HeadGroup& g, size_t begin, size_t end) const {
    for (size_t t = begin_; t < end_; ++t) {
      for (size_t h = 0; h < g.count; ++h) {
        std::fill(output(g, t, h) + begin, output(g, t, h) + end, 0.0F);
      }
    }
    for (size_t page = 0; page < pagesOf(most_); ++page) mixPage(g, page, begin, end);
    for (size_t t = begin_; t < end_; ++t) {
      for (size_t h = 0; h < g.count; ++h) {
        float* head = output(g, t, h);
        const float* gate = query(t, g.first + h) + sizes_.headSize;
        kernels_.sigmoidGate(gate + begin, head + begin, head + begin, end - begin);
      }
    }
  }

  void mixPage(const HeadGroup& g, size_t page, size_t begin, size_t end) const {
    const size_t first = page * kPagePositions;
    const size_t number = layout_.values(layer_, g.kv) + begin;
    for (size_t t = begin_; t < end_; ++t) {
      if (positions(t) <= first) continue;
      const size_t some = std::min(kPagePositions, positions(t) - first);
      addColumns(page, number, sizes_.headSize, scoresOf(g, t) + first * g.count, g.count, some,
                 end - begin, output(g, t, 0) + begin, sizes_.headSize);
    }
  }

  float* output(const HeadGroup& g, size_t t, size_t h) const {
    return o_.token(run_.first + t) + (g.first + h) * sizes_.headSize;
  }

  const AttentionSizes& sizes_;
  const PageLayout& layout_;
  size_t layer_;
  const AttentionRun& run_;
  std::vector<HeadGroup> groups_;
  const Activations& q_;
  Activations& o_;
  const KernelTable& kernels_;
  float scale_;

  // Of the block of tokens [begin_, end_), which sees most_ positions.
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t most_ = 0;
  float* queries_ = nullptr;
  float* scores_ = nullptr;
};

}  // namespace

void pagedAttention(const AttentionSizes& sizes, const PageLayout& layout, size_t layer,
                    const AttentionRun& run, const Activations& q, Activations& o,
                    std::vector<float>& scratch) {
  Attention(sizes, layout, layer, run, q, o).compute(scratch);
}

}  // namespace zem
