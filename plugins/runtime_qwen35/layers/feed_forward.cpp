// SPDX-License-Identifier: Apache-2.0
// The gated feed-forward block, SwiGLU: down(silu(gate(x)) * up(x)).
#include "layers/blocks.h"
#include "matmul/team.h"

namespace qwen35 {

void feedForward(const Model& m, const Layer& L, const float* xn, float* out, size_t tokens) {
  const PackedTokens X(xn, m.nEmb, tokens, m.nEmb);
  std::vector<Activations> projected = projectAll(m, {L.ffn_gate, L.ffn_up}, X);
  Activations& gate = projected[0];
  const Activations& up = projected[1];

  Floats& h = gate.values;  // in place
  forEachShare(h.size(), h.size() >= kTeamElements, [&](size_t, size_t begin, size_t end) {
    kernelTable().siluMul(&h[begin], &up.values[begin], &h[begin], end - begin);
  });

  matmul(gpuOf(m), *L.ffn_down, PackedTokens(h.data(), gate.width, tokens, gate.width), out);
}

}  // namespace qwen35
