// SPDX-License-Identifier: Apache-2.0
#include "layers/trace.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "matmul/matrix.h"

namespace qwen35 {
namespace {

bool isSet(const char* variable) { return std::getenv(variable) != nullptr; }

bool isSetTo(const char* variable, const char* value) {
  const char* found = std::getenv(variable);
  return found != nullptr && std::strcmp(found, value) == 0;
}

double squares(const float* x, size_t n, double sum = 0) {
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(x[i]) * x[i];
  return sum;
}

double norm(const float* x, size_t n) { return std::sqrt(squares(x, n)); }

double norm(const std::vector<float>& x) { return norm(x.data(), x.size()); }

double dot(const float* a, const float* b, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(a[i]) * b[i];
  return sum;
}

}  // namespace

bool Trace::isWanted() {
  constexpr const char* kVariables[] = {"QWEN35_ABLATE", "QWEN35_DBG",    "QWEN35_DBG2",
                                        "QWEN35_DBG3",   "QWEN35_DBG4",   "QWEN35_HID_DUMP",
                                        "QWEN35_TIMING", "QWEN35_NODECAY"};
  return std::any_of(std::begin(kVariables), std::end(kVariables), isSet);
}

Trace::Trace(Call call, const Model& m, size_t pos)
    : m_(&m),
      pos_(pos),
      decays_(!isSet("QWEN35_NODECAY")),
      linearTakesPart_(!isSetTo("QWEN35_ABLATE", "full")),
      fullTakesPart_(!isSetTo("QWEN35_ABLATE", "lin")),
      printsLayers_(call == Call::Logits && pos == 0 && isSet("QWEN35_DBG")),
      printsLinear_(isSet("QWEN35_DBG2")),
      printsScores_(pos % 8 == 0 && isSet("QWEN35_DBG3")),
      printsState_(pos % 8 == 0 && isSet("QWEN35_DBG4")),
      takesTimes_(call == Call::Hidden && isSet("QWEN35_TIMING")) {
  if (call == Call::Logits) dump_ = HiddenDump::ofVariable(pos);
  if (takesTimes_) start_ = Clock::now();
}

void Trace::lap(double& total) {
  if (!takesTimes_) return;
  const Clock::time_point now = Clock::now();
  total += std::chrono::duration<double, std::milli>(now - lapStart_).count();
  lapStart_ = now;
}

void Trace::enterLayer(size_t il, const Layer& L) {
  il_ = il;
  L_ = &L;
  if (takesTimes_) lapStart_ = Clock::now();
}

void Trace::attention(const Floats& cur, const Floats& attn) {
  lap(L_->recr ? times_.linear : times_.full);
  dump_.writeLayer(il_, "attn_mm", attn);
  if (!printsLayers_) return;
  // The last norm is of a buffer that is still empty: readers of the trace know the column as 0.
  std::fprintf(stderr, "  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=%7.3f\n", il_,
               L_->recr ? "lin" : "ful", norm(cur), norm(attn), 0.0);
}

void Trace::residual(const Floats& h) {
  dump_.writeLayer(il_, "attn_res", h);
  if (takesTimes_) lapStart_ = Clock::now();
}

void Trace::postNorm(const Floats& hn) {
  lap(times_.norm);
  dump_.writeLayer(il_, "post_norm", hn);
}

void Trace::feedForward(const Floats& ffn) {
  lap(times_.ffn);
  dump_.writeLayer(il_, "ffn_mm", ffn);
  if (printsLayers_) std::fprintf(stderr, "        |ffn|=%.3e\n", norm(ffn));
}

void Trace::leaveLayer(const Floats& cur) { dump_.writeLayer(il_, "layer_out", cur); }

void Trace::layersDone(const float* x, const Floats& cur) {
  dump_.write("result_norm", cur);
  if (!printsLayers_) return;
  const double xNorm = norm(x, cur.size());
  const double curNorm = norm(cur);
  std::fprintf(stderr, "  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f\n", xNorm, curNorm,
               dot(x, cur.data(), cur.size()) / (xNorm * curNorm));
}

void Trace::passDone() const {
  if (!takesTimes_) return;
  const double total = std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  std::fprintf(stderr,
               "[timing] hidden fwd pos=%zu %.0f ms (lin %.0f full %.0f norm %.0f ffn %.0f)\n",
               pos_, total, times_.linear, times_.full, times_.norm, times_.ffn);
}

void Trace::linearInputs(const float* qkv, const float* z, const float* beta, const float* g) {
  if (il_ != 0 || !(printsLinear_ || printsState_)) return;
  linear_.beta = beta[0];
  linear_.g = g[0];
  if (!printsLinear_) return;
  linear_.qkv = norm(qkv, m_->dInner + 2 * m_->kHeads * m_->sv);
  linear_.z = norm(z, m_->dInner);
}

void Trace::linearConvolution(const float* qkv) {
  if (il_ == 0 && printsLinear_) linear_.keySquares = squares(qkv, 2 * m_->kHeads * m_->sv);
}

void Trace::linearRecurrence(const float* o) {
  if (il_ != 0 || !printsLinear_) return;
  linear_.conv = std::sqrt(squares(o, m_->dInner, linear_.keySquares));
  linear_.oPre = norm(o, m_->dInner);
}

void Trace::linearGate(const float* o) {
  if (il_ != 0) return;
  if (printsLinear_) linear_.o = norm(o, m_->dInner);
  if (!printsState_) return;
  std::fprintf(stderr, "LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n", pos_,
               norm(L_->state.data(), L_->state.size()), norm(L_->state.data(), m_->sv * m_->sv),
               norm(o, m_->dInner), static_cast<double>(linear_.g),
               static_cast<double>(linear_.beta));
}

void Trace::linearOutput(const float* out) const {
  if (il_ != 0 || !printsLinear_) return;
  const TensorView& conv1d = *L_->conv1d;
  std::fprintf(stderr,
               "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e "
               "|oT|=%.3e |out|=%.3e conv1d dtype=%u ndim=%u cc=%zu kk=%zu\n",
               linear_.qkv, linear_.z, linear_.conv, static_cast<double>(linear_.beta),
               static_cast<double>(linear_.g), linear_.oPre, linear_.o, norm(out, m_->nEmb),
               static_cast<unsigned>(conv1d.dtype), static_cast<unsigned>(conv1d.ndim),
               matrixRows(conv1d), matrixCols(conv1d));
  printConvolutionTaps();
}

void Trace::printConvolutionTaps() const {
  Floats copy;
  const float* w = floatsOf(L_->conv1d, 16, copy);
  for (size_t r = 0; r < 4; ++r, w += 4) {
    std::fprintf(stderr, "      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", r,
                 static_cast<double>(w[0]), static_cast<double>(w[1]), static_cast<double>(w[2]),
                 static_cast<double>(w[3]));
  }
}

void Trace::softmaxScores(size_t slots, float max, float sum) const {
  if (!printsScores_ || il_ != 3) return;
  const double entropy = std::log(static_cast<double>(sum)) + max + 1e-9;
  std::fprintf(stderr, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", slots,
               static_cast<double>(max), entropy, slots + 1);
}

}  // namespace qwen35
