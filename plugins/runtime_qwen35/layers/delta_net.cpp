// SPDX-License-Identifier: Apache-2.0
#include "layers/delta_net.h"

#include <algorithm>
#include <cmath>

#include "kernels/kernel_table.h"
#include "kernels/reference.h"
#include "matmul/team.h"
#include "qwen35_model.h"

namespace qwen35 {

void writeStrengths(Activations& beta, size_t tokens) {
  for (size_t t = 0; t < tokens; ++t) {
    reference::sigmoid(beta.token(t), beta.token(t), beta.width);
  }
}

void logDecays(const DeltaNetWeights& weights, Activations& g, size_t tokens) {
  for (size_t t = 0; t < tokens; ++t) {
    float* head = g.token(t);
    for (size_t h = 0; h < g.width; ++h) head[h] += weights.decayBias[h];
    reference::softplus(head, head, g.width);
    for (size_t h = 0; h < g.width; ++h) head[h] *= weights.decay[h];
  }
}

void convolve(const DeltaNetSizes& sizes, const DeltaNetWeights& weights, StateRuns runs,
              Activations& qkv) {
  const size_t n = sizes.channels();
  const size_t stride = weights.tapStride;
  const KernelTable& kernels = kernelTable();
  constexpr size_t kSome = 128;
  const size_t parts = (n + kSome - 1) / kSome;
  forEachUnit(runs.size() * parts, runs.size() * n >= kTeamElements, [&](size_t unit) {
    const StateRun& run = runs[unit / parts];
    const size_t first = unit % parts * kSome;
    for (size_t t = run.first; t < run.first + run.count; ++t) {
      float* x = qkv.token(t) + first;
      kernels.convStep(weights.taps + first * stride, stride, run.window + 3 * first, x, x,
                       std::min(kSome, n - first));
    }
  });
}

void normaliseKeys(const DeltaNetSizes& sizes, Activations& qkv, size_t tokens) {
  const size_t heads = 2 * sizes.keyHeads;
  forEachUnit(tokens, tokens * sizes.keyChannels() >= kTeamElements, [&](size_t t) {
    float* keys = qkv.token(t);
    reference::l2NormBlocks(keys, keys, heads, sizes.headSize, kNormEps);
  });
}

void recur(const DeltaNetSizes& sizes, StateRuns runs, Activations& qkv, const Activations& beta,
           const Activations& g, bool decays) {
  const size_t size = sizes.headSize;
  const float scale = 1.0F / std::sqrt(static_cast<float>(size));
  const KernelTable& kernels = kernelTable();
  const size_t units = runs.size() * sizes.valueHeads;
  forEachUnit(units, units * size * size >= kTeamElements, [&](size_t unit) {
    const StateRun& run = runs[unit / sizes.valueHeads];
    const size_t h = unit % sizes.valueHeads;
    float* S = run.state + h * size * size;
    for (size_t t = run.first; t < run.first + run.count; ++t) {
      const float* q = qkv.token(t) + h % sizes.keyHeads * size;
      const float* k = q + sizes.keyHeads * size;
      float* v = qkv.token(t) + sizes.keyChannels() + h * size;
      const float logDecay = decays ? g.token(t)[h] : 0.0F;
      kernels.gdnStep(S, q, k, v, beta.token(t)[h], size, logDecay, scale);
    }
  });
}

void gateOutputs(const DeltaNetSizes& sizes, const DeltaNetWeights& weights, Activations& qkv,
                 const Activations& z, size_t tokens) {
  const KernelTable& kernels = kernelTable();
  const size_t units = tokens * sizes.valueHeads;
  forEachUnit(units, units * sizes.headSize >= kTeamElements, [&](size_t unit) {
    const size_t t = unit / sizes.valueHeads;
    const size_t first = unit % sizes.valueHeads * sizes.headSize;
    float* o = qkv.token(t) + sizes.keyChannels() + first;
    reference::rmsNorm(o, weights.norm, o, sizes.headSize, kNormEps);
    kernels.siluMul(z.token(t) + first, o, o, sizes.headSize);
  });
}

}  // namespace qwen35
