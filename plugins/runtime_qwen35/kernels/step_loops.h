// The loops of a token step beside its products, for each instruction set.
//
// Each gives the bits of its plain loop in kernels/reference.h. Serial and
// reentrant.
#pragma once

#include <cstddef>

#include "qwen35_cpu.h"

namespace qwen35 {

struct StepLoops {
  // As reference::gdnStep, without its scratch memory.
  void (*gdnStep)(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
                  float scale);
  // As reference::convStep.
  void (*convStep)(const float* w, size_t stride, float* window, const float* x, float* out,
                   size_t channels);
  // out[i] = silu(gate[i]) * x[i]. In place allowed with either.
  void (*siluMul)(const float* gate, const float* x, float* out, size_t n);
  // out[i] = x[i] * sigmoid(gate[i]), as x[i] / (e^-gate[i] + 1). In place allowed.
  void (*sigmoidGate)(const float* gate, const float* x, float* out, size_t n);
  // Softmax over `slots` scores of each of `heads` heads, at most kSoftmaxHeads,
  // which lie side by side: scores[s * heads + h]. Each head's largest score
  // (counted from -1e30) goes to max, the sum of its exponentials, from slot 0
  // upward, to sum; the scores become exp(score - max) / sum, as a product with
  // 1 / sum.
  void (*softmax)(float* scores, size_t slots, size_t heads, float* max, float* sum);
};

inline constexpr size_t kSoftmaxHeads = 4;

const StepLoops& stepLoops(CpuLevel level);

// Each level's own table; callers go through stepLoops.
extern const StepLoops kStepLoopsAvx512;
extern const StepLoops kStepLoopsAvx2;
extern const StepLoops kStepLoopsBaseline;

}  // namespace qwen35
