// SPDX-License-Identifier: Apache-2.0
// The decoder's fast kernels: one table for each instruction set.
//
// Every kernel gives the bits of its plain loop in kernels/reference.h, at every level. Where a
// sum is NaN it is NaN at every level; the other bits of a NaN are left open, because processors
// take them from either operand. All are serial and reentrant; matmul/ shares work over threads.
//
// docs/kernels.md walks through one product and says how to add a kernel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiv/tensor.h"
#include "qwen35_cpu.h"

namespace qwen35 {

// y = W x: y[r] = sum over c, from column 0 upward, of row r's weight c times x[c], for `rows`
// rows of `cols` columns at W. Each multiplication and each addition rounds to float. `cols` is
// a multiple of the encoding's block. Reads the weights in place, at any alignment, once and in
// the order in which they are stored, and nothing behind the last row.
using Matvec = void (*)(const void* W, const float* x, size_t rows, size_t cols, float* y);

// Y = W X for many vectors, each weight decoded once for all: y[t * yStride + r] is row r's sum
// with token t, in the order of Matvec and so with its bits. `packed` holds the vectors as
// packTokens (kernels/packing.h) lays them out for the table's groupTokens.
using Matmul = void (*)(const void* W, const float* packed, size_t tokens, size_t rows, size_t cols,
                        float* y, size_t yStride);

// Adds `count` columns of floats to sums[t * sumStride + r], for `rows` rows (a multiple of the
// table's tileRows) and at most groupTokens tokens. Column c of row r stands at
// columns[c * stride + r], token t's factor for it at packed[c * tokens + t].
using AddColumns = void (*)(const float* columns, size_t stride, const float* packed, size_t tokens,
                            size_t count, size_t rows, float* sums, size_t sumStride);

// AddColumns for columns of half-precision numbers: widening them is exact.
using AddHalfColumns = void (*)(const uint16_t* columns, size_t stride, const float* packed,
                                size_t tokens, size_t count, size_t rows, float* sums,
                                size_t sumStride);

// A kernel for each encoding; null for those that the decoder does not compute with.
template <typename Kernel>
struct ByType {
  static constexpr size_t kTypes = static_cast<size_t>(kiv::DType::Q5_1) + 1;

  Kernel operator[](kiv::DType type) const {
    const auto index = static_cast<size_t>(type);
    return index < kTypes ? of[index] : nullptr;
  }

  Kernel of[kTypes];
};

// What a list of numbers spans, NaN left aside.
struct Extent {
  float largest;        // negative infinity without numbers
  float smallest;       // infinity without numbers
  size_t firstLargest;  // 0 without numbers, or with none above negative infinity
  bool hasNan;
};

// Loops over a whole vocabulary that choose a token. Element i is x[i] * scale, rounded to float.
struct SamplingLoops {
  Extent (*extent)(const float* x, size_t n, float scale);

  // buckets[i] = the distance of element i below `top`, times `resolution`, rounded down, at most
  // `last`: never smaller for a smaller element. No NaN.
  void (*buckets)(const float* x, size_t n, float scale, float top, float resolution, uint32_t last,
                  uint32_t* buckets);

  // weights[i] = e^(element i - max) as kiv::math::expF64 has it. No element is larger than `max`
  // or NaN, and `max` is finite.
  void (*weights)(const float* x, size_t n, float scale, float max, double* weights);
};

// Heads that one call of KernelTable::softmax takes at most.
inline constexpr size_t kSoftmaxHeads = 4;

struct KernelTable {
  ByType<Matvec> matvec;
  ByType<Matmul> matmul;
  size_t groupTokens;  // vectors that matmul holds in registers
  size_t tileRows;     // rows that matmul decodes together
  AddColumns addColumns;
  AddHalfColumns addHalfColumns;

  // One step of the gated delta rule: reference::gdnStep without its scratch memory.
  void (*gdnStep)(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
                  float scale);
  // The convolution of one token: reference::convStep. In place allowed.
  void (*convStep)(const float* w, size_t stride, float* window, const float* x, float* out,
                   size_t channels);
  // out[i] = silu(gate[i]) * x[i]. In place allowed with either.
  void (*siluMul)(const float* gate, const float* x, float* out, size_t n);
  // out[i] = x[i] * sigmoid(gate[i]), as x[i] / (e^-gate[i] + 1). In place allowed.
  void (*sigmoidGate)(const float* gate, const float* x, float* out, size_t n);
  // Softmax over `slots` scores of each of `heads` heads, 1 to kSoftmaxHeads, which lie side by
  // side: scores[s * heads + h]. max[h] becomes the head's largest score (at least -1e30), sum[h]
  // the sum of its exponentials from slot 0 upward, and each score exp(score - max) * (1 / sum).
  void (*softmax)(float* scores, size_t slots, size_t heads, float* max, float* sum);

  SamplingLoops sampling;
};

// The table of `level`, which this processor has.
const KernelTable& kernelTable(CpuLevel level);

// The table of currentCpuLevel().
inline const KernelTable& kernelTable() { return kernelTable(currentCpuLevel()); }

}  // namespace qwen35
