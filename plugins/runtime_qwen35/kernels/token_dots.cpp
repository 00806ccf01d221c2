#include "kernels/token_dots.h"

namespace qwen35 {

const TokenDotsTable& tokenDotsTable(CpuLevel level) {
  switch (level) {
    case CpuLevel::Avx512:
      return kTokenDotsAvx512;
    case CpuLevel::Avx2:
      return kTokenDotsAvx2;
    case CpuLevel::Baseline:
      break;
  }
  return kTokenDotsBaseline;
}

TokenDots tokenDotsOf(const TokenDotsTable& table, kiv::DType type) {
  switch (type) {
    case kiv::DType::F32:
      return table.f32;
    case kiv::DType::BF16:
      return table.bf16;
    case kiv::DType::Q8_0:
      return table.q80;
    case kiv::DType::Q4_K:
      return table.q4k;
    case kiv::DType::Q5_K:
      return table.q5k;
    case kiv::DType::Q6_K:
      return table.q6k;
    default:
      return nullptr;
  }
}

void packTokens(const float* x, size_t stride, size_t tokens, size_t cols, size_t groupTokens,
                size_t begin, size_t end, float* packed) {
  for (size_t first = 0; first < tokens; first += groupTokens) {
    const size_t count = tokens - first < groupTokens ? tokens - first : groupTokens;
    float* group = packed + first * cols;
    for (size_t t = 0; t < count; ++t) {
      const float* token = x + (first + t) * stride;
      for (size_t c = begin; c < end; ++c) group[c * count + t] = token[c];
    }
  }
}

}  // namespace qwen35
