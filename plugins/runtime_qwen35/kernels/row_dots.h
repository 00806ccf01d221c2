// Dot products of consecutive rows of a stored matrix with one vector, for each
// encoding and instruction set.
//
// Rows lie in the lanes of a vector: column after column, every lane widens its
// own row's weight, multiplies and adds, so that each sum has the order of the
// plain loop and its bits. Weights are read in place, once, in the order in
// which they are stored, at any alignment, and never past the last row.
//
// Where a sum is NaN it is NaN at every level; which of the NaN patterns comes
// out is left open, because processors take it from either operand.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiv/tensor.h"
#include "qwen35_cpu.h"

namespace qwen35 {

// dots[r] = sum over c, from column 0 upward, of row r's weight c times x[c],
// for `rows` rows of `cols` columns at W; the multiplications and additions are
// rounded one by one. `cols` is a multiple of the encoding's block. Serial.
using RowDots = void (*)(const void* W, const float* x, size_t rows, size_t cols, float* dots);

// One function an encoding.
struct RowDotsTable {
  RowDots f32;
  RowDots bf16;
  RowDots q80;
  RowDots q4k;
  RowDots q5k;
  RowDots q6k;
};

const RowDotsTable& rowDotsTable(CpuLevel level);

// Null for types that the decoder does not compute with.
RowDots rowDotsOf(const RowDotsTable& table, kiv::DType type);

// Rows a call that keep every level's lanes full.
inline constexpr size_t kRowDotsRows = 64;

// Adds the dot products of the next `cols` <= 256 columns of `count` rows to
// `sums`, each row widened by `widen`, then summed: the plain loop, for blocks
// that the vector code leaves to it.
using WidenBlocks = void (*)(const void* blocks, float* out, uint64_t n);
void addWidenedRows(WidenBlocks widen, const uint8_t* const* rows, size_t count, const float* x,
                    size_t cols, float* sums);

// Each level's own table; callers go through rowDotsTable.
extern const RowDotsTable kRowDotsAvx512;
extern const RowDotsTable kRowDotsAvx2;
extern const RowDotsTable kRowDotsBaseline;

}  // namespace qwen35
