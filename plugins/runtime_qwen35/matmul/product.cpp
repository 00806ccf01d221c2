#include "matmul/product.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kernels/row_dots.h"
#include "kiv/dequant.h"
#include "kiv/quant_k.h"
#include "matmul/team.h"
#include "qwen35_kernels.h"

namespace qwen35 {
namespace {

using kiv::DType;

bool isAligned(const void* p, size_t alignment) {
  return reinterpret_cast<uintptr_t>(p) % alignment == 0;
}

// Rows that end within a block share it with the next row; nothing fast is
// needed for them.
template <typename Use>
void forEachWidenedRow(const TensorView* W, const float* x, size_t rows, size_t cols,
                       const Use& use) {
  std::vector<float> scratch(static_cast<size_t>(omp_get_max_threads()) * cols);
  forEachRowRange(rows, cols, [&](size_t thread, size_t begin, size_t end) {
    float* widened = scratch.data() + thread * cols;
    for (size_t r = begin; r < end; ++r) {
      rowToF32(W, r, cols, widened);
      use(r, dotF32(widened, x, cols));
    }
  });
}

// Calls use(row index, dot product of the row with x) for every row, on the
// team; not at all for types that the decoder does not compute with.
template <typename Use>
void multiplyRows(const TensorView* W, const float* x, size_t rows, size_t cols, const Use& use) {
  const RowDots dotRows = rowDotsOf(rowDotsTable(currentCpuLevel()), W->dtype);
  if (dotRows == nullptr) return;
  if (cols % kiv::dtypeBlockSize(W->dtype) == 0) {
    forEachRowDot(dotRows, W->data, kiv::dtypeBytes(W->dtype, cols), x, rows, cols, use);
  } else {
    forEachWidenedRow(W, x, rows, cols, use);
  }
}

void multiplyTokens(TokenDots dotTokens, const TensorView* W, const ProductInput& x, size_t rows,
                    size_t cols, float* y) {
  const auto* base = static_cast<const uint8_t*>(W->data);
  const size_t stride = kiv::dtypeBytes(W->dtype, cols);
  const size_t tileRows = x.kernels().tileRows;
  const size_t tiles = (rows + tileRows - 1) / tileRows;
  forEachShare(tiles, rows * cols * x.tokens() >= kTeamWeights,
               [&](size_t /*thread*/, size_t begin, size_t end) {
                 const size_t first = begin * tileRows;
                 const size_t last = std::min(end * tileRows, rows);
                 dotTokens(base + first * stride, x.packed(), x.tokens(), last - first, cols,
                           y + first, rows);
               });
}

bool offerToGpu(Model& m, const TensorView* W, const float* x, float* y) {
  return m.gpuGemvRow != nullptr && m.gpuCtx != nullptr && isKQuant(W->dtype) &&
         m.gpuGemvRow(m.gpuCtx, W, x, y);
}

}  // namespace

size_t matrixRows(const TensorView& W) {
  size_t rows = 1;
  for (size_t i = 1; i < W.ndim; ++i) rows *= W.shape[i];
  return rows;
}

bool isKQuant(DType type) {
  return type == DType::Q4_K || type == DType::Q5_K || type == DType::Q6_K;
}

void rowToF32(const TensorView* W, size_t row, size_t n, float* out) {
  using namespace kiv::quant;
  const auto* base = static_cast<const uint8_t*>(W->data);
  const size_t blocks32 = row * (n / kBlock32);
  const size_t blocks256 = row * (n / kBlock256);
  switch (W->dtype) {
    case DType::F32:
      std::memcpy(out, base + row * n * sizeof(float), n * sizeof(float));
      break;
    case DType::BF16:
      for (size_t i = 0; i < n; ++i) {
        uint16_t h = 0;
        std::memcpy(&h, base + (row * n + i) * sizeof h, sizeof h);
        out[i] = bf16ToF32(h);
      }
      break;
    case DType::Q8_0:
      dequantQ80(base + blocks32 * sizeof(Q80Block), out, n);
      break;
    case DType::Q4_K:
      dequantQ4K(base + blocks256 * sizeof(Q4KBlock), out, n);
      break;
    case DType::Q5_K:
      dequantQ5K(base + blocks256 * sizeof(Q5KBlock), out, n);
      break;
    case DType::Q6_K:
      dequantQ6K(base + blocks256 * sizeof(Q6KBlock), out, n);
      break;
    default:
      break;
  }
}

void gemvRow(Model& m, const TensorView* W, const float* x, float* y) {
  if (offerToGpu(m, W, x, y)) return;
  const size_t cols = matrixCols(*W);
  const size_t rows = matrixRows(*W);
  multiplyRows(W, x, rows, cols, [=](size_t r, float dot) { y[r] += dot; });
}

ProductInput::ProductInput(const float* x, size_t stride, size_t tokens, size_t cols)
    : x_(x), stride_(stride), tokens_(tokens), kernels_(tokenDotsTable(currentCpuLevel())) {
  if (tokens == 1) return;
  packed_.resize(tokens * cols);
  forEachShare(
      cols, packed_.size() >= kTeamWeights, [&](size_t /*thread*/, size_t begin, size_t end) {
        packTokens(x, stride, tokens, cols, kernels_.groupTokens, begin, end, packed_.data());
      });
}

void products(Model& m, const TensorView* W, const ProductInput& x, float* y) {
  const size_t cols = matrixCols(*W);
  const size_t rows = matrixRows(*W);
  const TokenDots dotTokens = tokenDotsOf(x.kernels(), W->dtype);
  const bool wholeBlocks = cols % kiv::dtypeBlockSize(W->dtype) == 0;
  const bool together = x.tokens() > 1 && dotTokens != nullptr && wholeBlocks;
  if (together && !offerToGpu(m, W, x.token(0), y)) {
    multiplyTokens(dotTokens, W, x, rows, cols, y);
    return;
  }
  // With one token on the GPU the others follow, each on its own.
  for (size_t t = together ? 1 : 0; t < x.tokens(); ++t) {
    std::fill_n(y + t * rows, rows, 0.0F);
    gemvRow(m, W, x.token(t), y + t * rows);
  }
}

void headProduct(Model& m, const float* cur, float* logits) {
  if (offerToGpu(m, m.emb, cur, logits)) return;
  multiplyRows(m.emb, cur, m.nVocab, m.nEmb, [=](size_t r, float dot) { logits[r] = dot; });
}

const float* floatsOf(const TensorView* view, size_t n, std::vector<float>& copy) {
  if (isAligned(view->data, alignof(float))) return static_cast<const float*>(view->data);
  copy.resize(n);
  std::memcpy(copy.data(), view->data, n * sizeof(float));
  return copy.data();
}

}  // namespace qwen35
