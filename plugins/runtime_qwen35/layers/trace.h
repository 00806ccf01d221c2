// SPDX-License-Identifier: Apache-2.0
// What the diagnostic environment variables (QWEN35_DBG, ..., docs/troubleshooting.md) print, dump
// and change. The layers report each stage as they reach it; the trace picks what it wants.
//
// The variables are read when a trace is made, so that a host can switch them on while it runs.
// A trace is of one token; values of later tokens of a run are not looked at.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include "layers/hidden_dump.h"
#include "qwen35_model.h"

namespace qwen35 {

class Trace {
 public:
  using Floats = std::vector<float>;

  // The call that is traced: a single step of a layer, or the passes of forwardTokenHidden and
  // forwardToken.
  enum class Call { Step, Hidden, Logits };

  // Nothing is traced or changed.
  Trace() = default;
  // The token at `pos`. The model must outlive the trace.
  Trace(Call call, const Model& m, size_t pos);

  // Whether any of the variables is set. Tokens go through the layers one by one then.
  static bool isWanted();

  // QWEN35_NODECAY: whether recurrent states decay.
  bool decays() const { return decays_; }
  // QWEN35_ABLATE: whether attention layers of this kind take part.
  bool takesPart(const Layer& L) const { return L.recr ? linearTakesPart_ : fullTakesPart_; }

  // The stages of a pass, in their order.
  void enterLayer(size_t il, const Layer& L);
  void attention(const Floats& cur, const Floats& attn);
  void residual(const Floats& h);
  void postNorm(const Floats& hn);
  void feedForward(const Floats& ffn);
  void leaveLayer(const Floats& cur);
  void layersDone(const float* x, const Floats& cur);
  void passDone() const;

  // The stages of linear attention. `o` is the heads' outputs, dInner floats.
  void linearInputs(const float* qkv, const float* z, const float* beta, const float* g);
  void linearConvolution(const float* qkv);
  void linearRecurrence(const float* o);
  void linearGate(const float* o);
  void linearOutput(const float* out) const;

  // Softmax attention with `slots` slots filled before this token: query head 0's largest score
  // and its sum of exp(score - max).
  void softmaxScores(size_t slots, float max, float sum) const;

 private:
  using Clock = std::chrono::steady_clock;

  // Milliseconds in each kind of step.
  struct Times {
    double linear = 0;
    double full = 0;
    double norm = 0;
    double ffn = 0;
  };

  // What QWEN35_DBG2 and QWEN35_DBG4 print of one linear layer. Norms are Euclidean.
  struct LinearNorms {
    double qkv = 0;
    double z = 0;
    double keySquares = 0;  // of the convolved queries and keys
    double conv = 0;        // of the convolution's buffer once outputs have replaced the values
    double oPre = 0;        // of the outputs before their gate
    double o = 0;
    float beta = 0;  // of head 0
    float g = 0;
  };

  void lap(double& total);
  void printConvolutionTaps() const;

  const Model* m_ = nullptr;
  size_t pos_ = 0;
  bool decays_ = true;
  bool linearTakesPart_ = true;
  bool fullTakesPart_ = true;
  bool printsLayers_ = false;   // QWEN35_DBG
  bool printsLinear_ = false;   // QWEN35_DBG2
  bool printsScores_ = false;   // QWEN35_DBG3
  bool printsState_ = false;    // QWEN35_DBG4
  bool takesTimes_ = false;     // QWEN35_TIMING
  HiddenDump dump_;             // QWEN35_HID_DUMP
  Clock::time_point start_;     // of the pass
  Clock::time_point lapStart_;  // of the step that is running
  Times times_;
  size_t il_ = 0;
  const Layer* L_ = nullptr;
  LinearNorms linear_;
};

}  // namespace qwen35
