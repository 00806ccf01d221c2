// SPDX-License-Identifier: Apache-2.0
#include "layers/softmax_attention.h"

#include <algorithm>

#include "kernels/packing.h"
#include "matmul/team.h"

namespace qwen35 {
namespace {

constexpr float kScoreScale = 0.0625F;  // 1 / sqrt(256)
// Slots that one call scores, and that one call mixes.
constexpr size_t kScoreSlots = 256;
constexpr size_t kMixSlots = 32;
// Components of the output that a thread mixes at least.
constexpr size_t kMixWidth = 64;

size_t divideUp(size_t a, size_t b) { return (a + b - 1) / b; }

class Attention {
 public:
  Attention(const Model& m, const Layer& L, const TokenRun& run, const Activations& q, Floats& o)
      : m_(m),
        L_(L),
        run_(run),
        groups_(headGroups(m.nHead, m.nHeadKv)),
        q_(q),
        o_(o),
        kernels_(kernelTable()) {}

  SoftmaxTotals compute() { return run_.count == 1 ? oneToken() : manyTokens(); }

 private:
  size_t slots(size_t t) const { return L_.kvLen + t + 1; }
  size_t width() const { return m_.nHead * m_.headDim; }
  const float* keys(const HeadGroup& g) const {
    return L_.kCache.data() + g.kv * m_.kvCap * m_.headDim;
  }
  const float* values(const HeadGroup& g) const {
    return L_.vCache.data() + g.kv * m_.kvCap * m_.headDim;
  }
  const float* query(size_t t, size_t head) const { return q_.token(t) + 2 * head * m_.headDim; }

  // Spreads the slots, then the components of the output, over the team.
  SoftmaxTotals oneToken() {
    const size_t n = slots(0);
    const bool worthwhile = n * width() >= kTeamWeights;
    Floats scores(n * m_.nHead);
    Floats queries(width());
    std::vector<SoftmaxTotals> totals(groups_.size());
    for (const HeadGroup& g : groups_) packQueries(g, 0, queries.data() + g.first * m_.headDim);

    const size_t parts = divideUp(n, kScoreSlots);
    forEachUnit(groups_.size() * parts, worthwhile, [&](size_t unit) {
      const HeadGroup& g = groups_[unit / parts];
      const size_t first = unit % parts * kScoreSlots;
      score(g, queries.data() + g.first * m_.headDim, first, std::min(first + kScoreSlots, n),
            scores.data() + g.first * n);
    });
    forEachUnit(groups_.size(), worthwhile, [&](size_t i) {
      const HeadGroup& g = groups_[i];
      kernels_.softmax(scores.data() + g.first * n, n, g.count, totals[i].max, totals[i].sum);
    });
    const size_t strips = divideUp(m_.headDim, kMixWidth);
    forEachUnit(groups_.size() * strips, worthwhile, [&](size_t unit) {
      const HeadGroup& g = groups_[unit / strips];
      const size_t first = unit % strips * kMixWidth;
      mix(g, 0, scores.data() + g.first * n, first, std::min(first + kMixWidth, m_.headDim));
    });
    return totals.front();
  }

  // Gives each thread whole tokens of a group.
  SoftmaxTotals manyTokens() {
    const size_t most = slots(run_.count - 1);
    const auto threads = teamSize();
    const size_t share = (most + m_.headDim) * kSoftmaxHeads;
    Floats scratch(threads * share);
    std::vector<SoftmaxTotals> totals(groups_.size());
    forEachUnitInTurn(groups_.size() * run_.count, [&](size_t thread, size_t unit) {
      const HeadGroup& g = groups_[unit / run_.count];
      const size_t t = unit % run_.count;
      float* queries = scratch.data() + thread * share;
      float* scores = queries + m_.headDim * kSoftmaxHeads;
      SoftmaxTotals ofToken;
      packQueries(g, t, queries);
      score(g, queries, 0, slots(t), scores);
      kernels_.softmax(scores, slots(t), g.count, ofToken.max, ofToken.sum);
      mix(g, t, scores, 0, m_.headDim);
      if (t + 1 == run_.count) totals[unit / run_.count] = ofToken;
    });
    return totals.front();
  }

  void packQueries(const HeadGroup& g, size_t t, float* packed) const {
    packTokens(query(t, g.first), 2 * m_.headDim, g.count, m_.headDim, g.count, 0, m_.headDim,
               packed);
  }

  // scores[s * count + h] for slots [begin, end).
  void score(const HeadGroup& g, const float* queries, size_t begin, size_t end,
             float* scores) const {
    float dots[kSoftmaxHeads * kScoreSlots];
    for (size_t s = begin; s < end; s += kScoreSlots) {
      const size_t some = std::min(kScoreSlots, end - s);
      kernels_.matmul[kiv::DType::F32](keys(g) + s * m_.headDim, queries, g.count, some, m_.headDim,
                                       dots, kScoreSlots);
      for (size_t i = 0; i < some; ++i) {
        for (size_t h = 0; h < g.count; ++h) {
          scores[(s + i) * g.count + h] = dots[h * kScoreSlots + i] * kScoreScale;
        }
      }
    }
  }

  // Components [begin, end) of token t's output: the weighted values, gated.
  void mix(const HeadGroup& g, size_t t, const float* weights, size_t begin, size_t end) const {
    float* out = o_.data() + t * width() + g.first * m_.headDim;
    for (size_t h = 0; h < g.count; ++h) {
      std::fill(out + h * m_.headDim + begin, out + h * m_.headDim + end, 0.0F);
    }
    const size_t whole = begin + (end - begin) / kernels_.tileRows * kernels_.tileRows;
    for (size_t s = 0; s < slots(t); s += kMixSlots) {
      const size_t some = std::min(kMixSlots, slots(t) - s);
      kernels_.addColumns(values(g) + s * m_.headDim + begin, m_.headDim, weights + s * g.count,
                          g.count, some, whole - begin, out + begin, m_.headDim);
    }
    for (size_t h = 0; h < g.count; ++h) {
      float* head = out + h * m_.headDim;
      for (size_t d = whole; d < end; ++d) {
        for (size_t s = 0; s < slots(t); ++s) {
          head[d] += weights[s * g.count + h] * values(g)[s * m_.headDim + d];
        }
      }
      const float* gate = query(t, g.first + h) + m_.headDim;
      kernels_.sigmoidGate(gate + begin, head + begin, head + begin, end - begin);
    }
  }

  const Model& m_;
  const Layer& L_;
  TokenRun run_;
  std::vector<HeadGroup> groups_;
  const Activations& q_;
  Floats& o_;
  const KernelTable& kernels_;
};

}  // namespace

std::vector<HeadGroup> headGroups(size_t heads, size_t kvHeads) {
  const size_t sharing = heads / kvHeads;
  std::vector<HeadGroup> groups;
  for (size_t kv = 0; kv < kvHeads; ++kv) {
    for (size_t h = 0; h < sharing; h += kSoftmaxHeads) {
      groups.push_back({kv, kv * sharing + h, std::min(kSoftmaxHeads, sharing - h)});
    }
  }
  return groups;
}

SoftmaxTotals softmaxAttention(const Model& m, const Layer& L, const TokenRun& run,
                               const Activations& q, Floats& o) {
  return Attention(m, L, run, q, o).compute();
}

}  // namespace qwen35
