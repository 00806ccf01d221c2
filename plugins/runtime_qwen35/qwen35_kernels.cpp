#include "qwen35_kernels.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <stdexcept>

#include "kernels/reference.h"
#include "kernels/row_dots.h"
#include "kernels/step_loops.h"
#include "matmul/team.h"

namespace qwen35 {
namespace {

template <typename Weight>
void matvecAdd(RowDots dotRows, const Weight* W, const float* x, float* y, size_t rows,
               size_t cols) {
  forEachRowDot(dotRows, W, cols * sizeof(Weight), x, rows, cols,
                [=](size_t r, float dot) { y[r] += dot; });
}

}  // namespace

uint16_t f32ToBf16(float f) {
  const auto u = std::bit_cast<uint32_t>(f);
  return static_cast<uint16_t>((u + ((u >> 16) & 1) + 0x7FFF) >> 16);
}

float bf16ToF32(uint16_t h) { return std::bit_cast<float>(static_cast<uint32_t>(h) << 16); }

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
  matvecAdd(rowDotsTable(currentCpuLevel()).bf16, W, x, y, rows, cols);
}

void matvecF32Add(const float* W, const float* x, float* y, size_t rows, size_t cols) {
  matvecAdd(rowDotsTable(currentCpuLevel()).f32, W, x, y, rows, cols);
}

float dotF32(const float* a, const float* b, size_t n) { return reference::dotF32(a, b, n); }

void gdnStep(float* S, const float* q, const float* k, const float* v, float beta, size_t d,
             float g, float scale) {
  if (d > std::numeric_limits<size_t>::max() / sizeof(float) / std::max<size_t>(d, 1)) {
    throw std::length_error("qwen35: state of more bytes than there are addresses");
  }
  stepLoops(currentCpuLevel()).gdnStep(S, q, k, const_cast<float*>(v), beta, d, g, scale);
}

}  // namespace qwen35
