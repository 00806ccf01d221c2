// SPDX-License-Identifier: Apache-2.0
#include "qwen35_kernels.h"

#include <algorithm>
#include <stdexcept>

#include "kernels/kernel_table.h"
#include "kernels/reference.h"
#include "kiv/math/checked.h"
#include "kiv/quant/bf16.h"
#include "matmul/team.h"

namespace qwen35 {
namespace {

template <typename Weight>
void matvecAdd(Matvec kernel, const Weight* W, const float* x, float* y, size_t rows, size_t cols) {
  constexpr size_t kSome = 64;  // keep every level's lanes full
  forEachRowRange(rows, cols, [&](size_t /*thread*/, size_t begin, size_t end) {
    float sums[kSome];
    for (size_t r = begin; r < end; r += kSome) {
      const size_t count = std::min(kSome, end - r);
      kernel(W + r * cols, x, count, cols, sums);
      for (size_t i = 0; i < count; ++i) y[r + i] += sums[i];
    }
  });
}

}  // namespace

uint16_t f32ToBf16(float f) { return kiv::f32ToBf16(f); }

float bf16ToF32(uint16_t h) { return kiv::bf16ToF32(h); }

void rmsNorm(const float* x, const float* w, float* out, size_t n, float eps) {
  reference::rmsNorm(x, w, out, n, eps);
}

void silu(const float* x, float* out, size_t n) { reference::silu(x, out, n); }

void sigmoid(const float* x, float* out, size_t n) { reference::sigmoid(x, out, n); }

void softplus(const float* x, float* out, size_t n) { reference::softplus(x, out, n); }

void l2NormBlocks(const float* x, float* out, size_t nBlocks, size_t blockLen, float eps) {
  reference::l2NormBlocks(x, out, nBlocks, blockLen, eps);
}

void matvecBf16Add(const uint16_t* W, const float* x, float* y, size_t rows, size_t cols) {
  matvecAdd(kernelTable().matvec[kiv::DType::BF16], W, x, y, rows, cols);
}

void matvecF32Add(const float* W, const float* x, float* y, size_t rows, size_t cols) {
  matvecAdd(kernelTable().matvec[kiv::DType::F32], W, x, y, rows, cols);
}

float dotF32(const float* a, const float* b, size_t n) { return reference::dotF32(a, b, n); }

void gdnStep(float* S, const float* q, const float* k, const float* v, float beta, size_t d,
             float g, float scale) {
  const uint64_t bytes = kiv::saturatingMul(kiv::saturatingMul(d, d), sizeof(float));
  if (bytes == kiv::kSaturated) {
    throw std::length_error("qwen35: state of more bytes than there are addresses");
  }
  kernelTable().gdnStep(S, q, k, const_cast<float*>(v), beta, d, g, scale);
}

}  // namespace qwen35
