#include "qwen35_kernels.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "qwen35_gdn.h"
#include "qwen35_reference.h"
#include "qwen35_team.h"

namespace qwen35 {
namespace {

float toF32(float w) { return w; }
float toF32(uint16_t w) { return bf16ToF32(w); }

// Dot products of at most kRowsAtOnce rows with x, each summed in its own order.
template <typename Weight>
void dotFewRows(const Weight* W, const float* x, float* out, size_t rows, size_t cols) {
  if (rows < kRowsAtOnce) {
    for (size_t r = 0; r < rows; ++r) {
      float sum = 0;
      for (size_t c = 0; c < cols; ++c) sum += toF32(W[r * cols + c]) * x[c];
      out[r] = sum;
    }
    return;
  }
  float sums[kRowsAtOnce] = {};
  for (size_t c = 0; c < cols; ++c) {
    for (size_t r = 0; r < kRowsAtOnce; ++r) sums[r] += toF32(W[r * cols + c]) * x[c];
  }
  std::copy_n(sums, kRowsAtOnce, out);
}

template <typename Weight>
void matvecAdd(const Weight* W, const float* x, float* y, size_t rows, size_t cols) {
  forEachRowRange(rows, cols, [=](size_t /*thread*/, size_t begin, size_t end) {
    for (size_t r = begin; r < end; r += kRowsAtOnce) {
      const size_t count = std::min(kRowsAtOnce, end - r);
      float sums[kRowsAtOnce];
      dotFewRows(W + r * cols, x, sums, count, cols);
      for (size_t i = 0; i < count; ++i) y[r + i] += sums[i];
    }
  });
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
  matvecAdd(W, x, y, rows, cols);
}

void matvecF32Add(const float* W, const float* x, float* y, size_t rows, size_t cols) {
  matvecAdd(W, x, y, rows, cols);
}

float dotF32(const float* a, const float* b, size_t n) { return reference::dotF32(a, b, n); }

void dotRowsF32(const float* W, const float* x, float* out, size_t rows, size_t cols) {
  for (size_t r = 0; r < rows; r += kRowsAtOnce) {
    dotFewRows(W + r * cols, x, out + r, std::min(kRowsAtOnce, rows - r), cols);
  }
}

void gdnStep(float* S, const float* q, const float* k, const float* v, float beta, size_t d,
             float g, float scale) {
  if (d == 0) return;
  std::vector<float> delta(d);
  bestGdnVariant().step(S, q, k, const_cast<float*>(v), beta, d, g, scale, delta.data());
}

}  // namespace qwen35
