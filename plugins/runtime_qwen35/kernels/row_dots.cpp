#include "kernels/row_dots.h"

namespace qwen35 {

const RowDotsTable& rowDotsTable(CpuLevel level) {
  switch (level) {
    case CpuLevel::Avx512:
      return kRowDotsAvx512;
    case CpuLevel::Avx2:
      return kRowDotsAvx2;
    case CpuLevel::Baseline:
      break;
  }
  return kRowDotsBaseline;
}

RowDots rowDotsOf(const RowDotsTable& table, kiv::DType type) {
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

void addWidenedRows(WidenBlocks widen, const uint8_t* const* rows, size_t count, const float* x,
                    size_t cols, float* sums) {
  float row[256];
  for (size_t r = 0; r < count; ++r) {
    widen(rows[r], row, cols);
    for (size_t c = 0; c < cols; ++c) sums[r] += row[c] * x[c];
  }
}

}  // namespace qwen35
