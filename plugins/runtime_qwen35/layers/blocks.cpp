// SPDX-License-Identifier: Apache-2.0
// What the two kinds of attention and the feed-forward block share.
#include "layers/blocks.h"

#include "kernels/reference.h"
#include "matmul/team.h"

namespace qwen35 {

RotaryAngles::RotaryAngles(size_t nRot, const TokenRun& run)
    : nRot_(nRot), cosines_(run.count * (nRot / 2)), sines_(cosines_.size()) {
  for (size_t t = 0; t < run.count; ++t) {
    reference::ropeAngles(nRot, run.pos + t, cosines_.data() + t * (nRot / 2),
                          sines_.data() + t * (nRot / 2));
  }
}

void RotaryAngles::apply(float* x, size_t t) const {
  reference::ropeRotate(x, nRot_, cosines_.data() + t * (nRot_ / 2),
                        sines_.data() + t * (nRot_ / 2));
}

GpuHook gpuOf(const Model& m) { return {m.gpuCtx, m.gpuGemvRow, m.gpuGemvGroup}; }

Activations project(const Model& m, const TensorView* W, const PackedTokens& X) {
  Activations y{matrixRows(*W), {}};
  y.values.resize(X.tokens() * y.width);
  matmul(gpuOf(m), *W, X, y.values.data());
  return y;
}

std::vector<Activations> projectAll(const Model& m,
                                    std::initializer_list<const TensorView*> matrices,
                                    const PackedTokens& X) {
  std::vector<Activations> all;
  std::vector<Product> products;
  all.reserve(matrices.size());
  for (const TensorView* W : matrices) {
    Activations& y = all.emplace_back(Activations{matrixRows(*W), {}});
    y.values.resize(X.tokens() * y.width);
    products.push_back({W, y.values.data()});
  }
  matmulAll(gpuOf(m), products, X);
  return all;
}

void normTokens(const TensorView* weight, const float* x, float* out, size_t tokens, size_t n) {
  Floats copy;
  const float* w = floatsOf(weight, n, copy);
  forEachUnit(tokens, tokens > 1,
              [&](size_t t) { reference::rmsNorm(x + t * n, w, out + t * n, n, kNormEps); });
}

}  // namespace qwen35
