// SPDX-License-Identifier: Apache-2.0
// Linear attention: four products, the stages of the delta net, the product of its outputs.
#include "layers/blocks.h"
#include "layers/delta_net.h"

namespace qwen35 {

void linearAttention(const Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                     Trace& trace) {
  const DeltaNetSizes sizes{m.kHeads, m.vHeads, m.sv};
  Floats copies[4];
  const size_t stride = L.conv1d->shape[0];
  const DeltaNetWeights weights{
      floatsOf(L.dt, m.vHeads, copies[0]), floatsOf(L.ssm_a, m.vHeads, copies[1]),
      floatsOf(L.conv1d, (sizes.channels() - 1) * stride + m.convK, copies[2]), stride,
      floatsOf(L.ssm_norm, m.sv, copies[3])};
  const StateRun state{L.state.data(), L.convWin.data(), 0, run.count};

  Floats xn(run.count * m.nEmb);
  normTokens(L.attn_norm, x, xn.data(), run.count, m.nEmb);

  const PackedTokens X(xn.data(), m.nEmb, run.count, m.nEmb);
  std::vector<Activations> projected = projectAll(m, {L.wqkv, L.wqkv_gate, L.beta, L.alpha}, X);
  Activations& qkv = projected[0];
  const Activations& z = projected[1];
  Activations& beta = projected[2];
  Activations& g = projected[3];
  writeStrengths(beta, run.count);
  logDecays(weights, g, run.count);
  trace.linearInputs(qkv.token(0), z.token(0), beta.token(0), g.token(0));

  convolve(sizes, weights, {&state, 1}, qkv);
  trace.linearConvolution(qkv.token(0));
  normaliseKeys(sizes, qkv, run.count);

  const float* o = qkv.token(0) + sizes.keyChannels();
  recur(sizes, {&state, 1}, qkv, beta, g, trace.decays());
  trace.linearRecurrence(o);
  gateOutputs(sizes, weights, qkv, z, run.count);
  trace.linearGate(o);

  matmul(gpuOf(m), *L.ssm_out, PackedTokens(o, qkv.width, run.count, m.dInner), out);
  trace.linearOutput(out);
}

}  // namespace qwen35
