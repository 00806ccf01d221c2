// Tokens through all layers.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

#include "layers/blocks.h"
#include "matmul/product.h"
#include "model/diagnostics.h"
#include "qwen35_kernels.h"
#include "qwen35_model.h"

namespace qwen35 {
namespace {

// Milliseconds that one token spent in each kind of step.
struct StepTimes {
  double linear = 0;
  double full = 0;
  double norm = 0;
  double ffn = 0;
};

// Runs `step` and adds its duration to `total`.
template <typename Step>
void timed(double& total, const Step& step) {
  const auto start = std::chrono::steady_clock::now();
  step();
  total +=
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The buffers of one layer, kept for the hidden-state dump; a run's tokens one
// after the other.
struct LayerBuffers {
  explicit LayerBuffers(size_t n) : cur(n), attn(n), h(n), hn(n), ffn(n) {}
  Floats cur;
  Floats attn;
  Floats h;
  Floats hn;
  Floats ffn;
};

void attend(Model& m, size_t il, const TokenRun& run, const RotaryAngles& angles, Ablation ablated,
            LayerBuffers& b, StepTimes& times) {
  Layer& L = m.L[il];
  std::fill(b.attn.begin(), b.attn.end(), 0.0F);
  if (L.recr && ablated != Ablation::Linear) {
    timed(times.linear, [&] { linearAttention(m, L, b.cur.data(), b.attn.data(), run, il); });
  } else if (!L.recr && ablated != Ablation::Full) {
    timed(times.full, [&] { fullAttention(m, L, b.cur.data(), b.attn.data(), run, angles, il); });
  }
}

void transform(Model& m, const Layer& L, size_t tokens, LayerBuffers& b, StepTimes& times) {
  for (size_t i = 0; i < b.h.size(); ++i) b.h[i] = b.cur[i] + b.attn[i];
  timed(times.norm, [&] { normTokens(L.post_norm, b.h.data(), b.hn.data(), tokens, m.nEmb); });
  timed(times.ffn, [&] { feedForward(m, L, b.hn.data(), b.ffn.data(), tokens); });
}

// What forwardToken reports of each layer: QWEN35_DBG and QWEN35_HID_DUMP.
class TokenTrace {
 public:
  explicit TokenTrace(size_t pos) : print_(pos == 0 && diagnosticSet("QWEN35_DBG")), dump_(pos) {}

  void afterAttention(const Layer& L, size_t il, const LayerBuffers& b) const {
    if (!print_) return;
    // The third norm is that of a buffer not filled yet; readers of the trace
    // know the column as 0.000.
    std::fprintf(stderr, "  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=%7.3f\n", il,
                 L.recr ? "lin" : "ful", norm(b.cur.data(), b.cur.size()),
                 norm(b.attn.data(), b.attn.size()), 0.0);
  }

  void afterFeedForward(const LayerBuffers& b) const {
    if (print_) std::fprintf(stderr, "        |ffn|=%.3e\n", norm(b.ffn.data(), b.ffn.size()));
  }

  void afterLayer(size_t il, const LayerBuffers& b) {
    if (!dump_.active()) return;
    const size_t n = b.cur.size();
    dump_.writeLayer(il, "attn_mm", b.attn.data(), n);
    dump_.writeLayer(il, "attn_res", b.h.data(), n);
    dump_.writeLayer(il, "post_norm", b.hn.data(), n);
    dump_.writeLayer(il, "ffn_mm", b.ffn.data(), n);
    dump_.writeLayer(il, "layer_out", b.cur.data(), n);
  }

  void afterLayers(const float* x, const Floats& cur) {
    dump_.write("result_norm", cur.data(), cur.size());
    if (!print_) return;
    double dot = 0;
    for (size_t i = 0; i < cur.size(); ++i) dot += static_cast<double>(x[i]) * cur[i];
    const double xNorm = norm(x, cur.size());
    const double curNorm = norm(cur.data(), cur.size());
    std::fprintf(stderr, "  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f\n", xNorm, curNorm,
                 dot / (xNorm * curNorm));
  }

 private:
  bool print_;
  HiddenDump dump_;
};

// All layers; the result is in b.cur, before the final norm. `trace` may be null.
void runLayers(Model& m, const float* x, const TokenRun& run, LayerBuffers& b, TokenTrace* trace,
               StepTimes& times) {
  b.cur.assign(x, x + run.count * m.nEmb);
  const Ablation ablated = ablation();
  const RotaryAngles angles(m.nRot, run);
  for (size_t il = 0; il < m.nLayers; ++il) {
    attend(m, il, run, angles, ablated, b, times);
    if (trace != nullptr) trace->afterAttention(m.L[il], il, b);
    transform(m, m.L[il], run.count, b, times);
    if (trace != nullptr) trace->afterFeedForward(b);
    for (size_t i = 0; i < b.cur.size(); ++i) b.cur[i] = b.h[i] + b.ffn[i];
    if (trace != nullptr) trace->afterLayer(il, b);
  }
}

}  // namespace

void forwardToken(Model& m, const float* x, size_t pos, float* logits) {
  LayerBuffers b(m.nEmb);
  StepTimes times;
  TokenTrace trace(pos);
  runLayers(m, x, {1, pos}, b, &trace, times);
  trace.afterLayers(x, b.cur);
  normTokens(m.outNorm, b.cur.data(), b.cur.data(), 1, m.nEmb);
  headProduct(m, b.cur.data(), logits);
}

void forwardTokenHidden(Model& m, const float* x, size_t pos, float* hidden) {
  LayerBuffers b(m.nEmb);
  StepTimes times;
  double total = 0;
  timed(total, [&] {
    runLayers(m, x, {1, pos}, b, nullptr, times);
    normTokens(m.outNorm, b.cur.data(), hidden, 1, m.nEmb);
  });
  if (diagnosticSet("QWEN35_TIMING")) {
    std::fprintf(stderr,
                 "[timing] hidden fwd pos=%zu %.0f ms (lin %.0f full %.0f norm %.0f ffn %.0f)\n",
                 pos, total, times.linear, times.full, times.norm, times.ffn);
  }
}

void forwardTokensHidden(Model& m, const float* x, size_t count, size_t pos, float* hidden) {
  const bool together = !tokensTracedSingly();
  const size_t most = together ? kBatchTokens : 1;
  for (size_t first = 0; first < count; first += most) {
    const TokenRun run{std::min(most, count - first), pos + first};
    const float* in = x + first * m.nEmb;
    float* out = hidden + first * m.nEmb;
    if (run.count == 1) {
      forwardTokenHidden(m, in, run.pos, out);
      continue;
    }
    LayerBuffers b(run.count * m.nEmb);
    StepTimes times;
    runLayers(m, in, run, b, nullptr, times);
    normTokens(m.outNorm, b.cur.data(), out, run.count, m.nEmb);
  }
}

}  // namespace qwen35
