// The feed-forward block, what the two kinds of attention share, and the one-token
// steps.
#include "kernels/reference.h"
#include "kernels/step_loops.h"
#include "layers/blocks.h"
#include "matmul/product.h"
#include "matmul/team.h"
#include "qwen35_kernels.h"
#include "qwen35_model.h"

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

Activations product(Model& m, const TensorView* W, const ProductInput& x) {
  Activations y{matrixRows(*W), {}};
  y.values.resize(x.tokens() * y.width);
  products(m, W, x, y.values.data());
  return y;
}

void normTokens(const TensorView* weight, const float* x, float* out, size_t tokens, size_t n) {
  Floats copy;
  const float* w = floatsOf(weight, n, copy);
  forEachUnit(tokens, tokens > 1,
              [&](size_t t) { rmsNorm(x + t * n, w, out + t * n, n, kNormEps); });
}

void feedForward(Model& m, const Layer& L, const float* xn, float* out, size_t tokens) {
  const ProductInput input(xn, m.nEmb, tokens, m.nEmb);
  Activations gate = product(m, L.ffn_gate, input);
  const Activations up = product(m, L.ffn_up, input);
  const StepLoops& loops = stepLoops(currentCpuLevel());
  const size_t n = gate.values.size();
  forEachShare(n, n >= kTeamElements, [&](size_t /*thread*/, size_t begin, size_t end) {
    float* h = gate.values.data() + begin;
    loops.siluMul(h, up.values.data() + begin, h, end - begin);
  });
  products(m, L.ffn_down, ProductInput(gate.values.data(), gate.width, tokens, gate.width), out);
}

void linearAttnStep(Model& m, Layer& L, const float* x, float* out, size_t il, size_t pos) {
  linearAttention(m, L, x, out, {1, pos}, il);
}

void fullAttnStep(Model& m, Layer& L, const float* x, float* out, size_t pos, size_t il) {
  const TokenRun run{1, pos};
  fullAttention(m, L, x, out, run, RotaryAngles(m.nRot, run), il);
}

void ffnStep(Model& m, Layer& L, const float* xn, float* out) { feedForward(m, L, xn, out, 1); }

}  // namespace qwen35
