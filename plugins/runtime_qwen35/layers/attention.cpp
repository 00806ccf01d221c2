// Softmax attention over the key/value cache.
//
// Query heads that share a key/value head go through its cache together, up to
// kSoftmaxHeads of them: their scores lie side by side for each slot, the slots in
// the lanes while they are computed, the components of the values while those are
// mixed.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "kernels/step_loops.h"
#include "layers/blocks.h"
#include "matmul/team.h"
#include "model/diagnostics.h"
#include "qwen35_kernels.h"

namespace qwen35 {
namespace {

constexpr float kScoreScale = 0.0625F;  // 1 / sqrt(256)
// Slots that are scored, and mixed, at a time.
constexpr size_t kScoreSlots = 256;
constexpr size_t kMixSlots = 32;
// Components of the output that a thread mixes at least.
constexpr size_t kMixWidth = 64;

size_t divideUp(size_t a, size_t b) { return (a + b - 1) / b; }

// Query heads [first, first + count) share key/value head `kv`.
struct HeadGroup {
  size_t kv;
  size_t first;
  size_t count;
};

std::vector<HeadGroup> headGroups(const Model& m) {
  const size_t sharing = m.nHead / m.nHeadKv;
  std::vector<HeadGroup> groups;
  for (size_t kv = 0; kv < m.nHeadKv; ++kv) {
    for (size_t h = 0; h < sharing; h += kSoftmaxHeads) {
      groups.push_back({kv, kv * sharing + h, std::min(kSoftmaxHeads, sharing - h)});
    }
  }
  return groups;
}

struct SoftmaxTotals {
  float max[kSoftmaxHeads];
  float sum[kSoftmaxHeads];
};

// One run of tokens in one layer, whose keys and values are in the cache already.
class Attention {
 public:
  // q: the run's query heads with their gates, 2 * headDim floats a head. o: nHead *
  // headDim floats a token.
  Attention(const Model& m, const Layer& L, const TokenRun& run, const Activations& q, Floats& o)
      : m_(m),
        L_(L),
        run_(run),
        groups_(headGroups(m)),
        q_(q),
        o_(o),
        loops_(stepLoops(currentCpuLevel())),
        kernels_(tokenDotsTable(currentCpuLevel())) {}

  // All tokens; the totals of head 0 for the last one.
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
      loops_.softmax(scores.data() + g.first * n, n, g.count, totals[i].max, totals[i].sum);
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
    const auto threads = static_cast<size_t>(omp_get_max_threads());
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
      loops_.softmax(scores, slots(t), g.count, ofToken.max, ofToken.sum);
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
      kernels_.f32(keys(g) + s * m_.headDim, queries, g.count, some, m_.headDim, dots, kScoreSlots);
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
      kernels_.columnSums(values(g) + s * m_.headDim + begin, m_.headDim, weights + s * g.count,
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
      loops_.sigmoidGate(gate + begin, head + begin, head + begin, end - begin);
    }
  }

  const Model& m_;
  const Layer& L_;
  TokenRun run_;
  std::vector<HeadGroup> groups_;
  const Activations& q_;
  Floats& o_;
  const StepLoops& loops_;
  const TokenDotsTable& kernels_;
};

void addBias(const TensorView* bias, Activations& y, size_t tokens) {
  Floats copy;
  const float* b = floatsOf(bias, y.width, copy);
  for (size_t t = 0; t < tokens; ++t) {
    for (size_t i = 0; i < y.width; ++i) y.token(t)[i] += b[i];
  }
}

// Puts the normalised, rotated keys and the raw values of the run into the slots
// from kvLen on.
void cacheKeysAndValues(const Model& m, Layer& L, const Activations& k, const Activations& v,
                        const TokenRun& run, const RotaryAngles& angles) {
  Floats copy;
  const float* weight = floatsOf(L.k_norm, m.headDim, copy);
  L.kvUsed = std::max(L.kvUsed, L.kvLen + run.count);
  forEachUnit(run.count * m.nHeadKv, run.count > 1, [&](size_t unit) {
    const size_t t = unit / m.nHeadKv;
    const size_t g = unit % m.nHeadKv;
    const size_t slot = (g * m.kvCap + L.kvLen + t) * m.headDim;
    float* key = L.kCache.data() + slot;
    rmsNorm(k.token(t) + g * m.headDim, weight, key, m.headDim, kNormEps);
    angles.apply(key, t);
    std::copy_n(v.token(t) + g * m.headDim, m.headDim, L.vCache.data() + slot);
  });
}

// Normalises and rotates the query heads in place; their gates stay as they are.
void prepareQueries(const Model& m, const Layer& L, Activations& q, const TokenRun& run,
                    const RotaryAngles& angles) {
  Floats copy;
  const float* weight = floatsOf(L.q_norm, m.headDim, copy);
  const size_t heads = run.count * m.nHead;
  forEachUnit(heads, heads * m.headDim >= kTeamElements, [&](size_t unit) {
    const size_t t = unit / m.nHead;
    float* head = q.token(t) + unit % m.nHead * 2 * m.headDim;
    rmsNorm(head, weight, head, m.headDim, kNormEps);
    angles.apply(head, t);
  });
}

void printAttention(const Layer& L, const SoftmaxTotals& totals) {
  const double entropy = std::log(static_cast<double>(totals.sum[0])) + totals.max[0] + 1e-9;
  std::fprintf(stderr, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", L.kvLen,
               static_cast<double>(totals.max[0]), entropy, L.kvLen + 1);
}

}  // namespace

void fullAttention(Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                   const RotaryAngles& angles, size_t il) {
  if (run.count > m.kvCap - L.kvLen) throw std::length_error("qwen35: key/value cache is full");
  Floats xn(run.count * m.nEmb);
  normTokens(L.attn_norm, x, xn.data(), run.count, m.nEmb);
  const ProductInput input(xn.data(), m.nEmb, run.count, m.nEmb);
  Activations q = product(m, L.wq, input);
  Activations k = product(m, L.wk, input);
  Activations v = product(m, L.wv, input);
  if (L.qb != nullptr) {
    addBias(L.qb, q, run.count);
    addBias(L.kb, k, run.count);
    addBias(L.vb, v, run.count);
  }

  cacheKeysAndValues(m, L, k, v, run, angles);
  prepareQueries(m, L, q, run, angles);
  Floats o(run.count * m.nHead * m.headDim);
  const SoftmaxTotals totals = Attention(m, L, run, q, o).compute();
  if (run.pos % 8 == 0 && il == 3 && diagnosticSet("QWEN35_DBG3")) printAttention(L, totals);
  L.kvLen += run.count;
  const size_t width = m.nHead * m.headDim;
  products(m, L.wo, ProductInput(o.data(), width, run.count, width), out);
}

}  // namespace qwen35
