// SPDX-License-Identifier: Apache-2.0
// Fast kernels for integer products: one table for each instruction set.
//
// Every kernel gives the bits of its plain loop in kernels/integer_reference.h, at every level.
// All are serial and reentrant; matmul/ shares work over threads. docs/kernels.md has the formula.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kernels/kernel_table.h"
#include "qwen35_cpu.h"

namespace qwen35 {

// Columns of an activation that share a scale. The last block of a vector may be shorter; what it
// lacks counts as zeros.
inline constexpr size_t kRoundedColumns = 256;

// One block of a rounded vector as a table's matvec reads it. Four columns make a word, and a word
// has two halves: each level splits it as its instructions like (`words` differs from level to
// level). A sum of columns has two halves as well: low + 256 * high.
struct RoundedVector {
  uint32_t words[kRoundedColumns / 4][2];
  uint32_t sums[kRoundedColumns / 32];         // of 32 columns: low | high << 16
  uint32_t minus32Sums[kRoundedColumns / 16];  // -32 times the halves of 16 columns' sum
  int32_t minus128Sums[kRoundedColumns / 32];  // -128 times the sum of 32 columns
  float scale;
};

// One block of a group of T rounded vectors, as a table's matmul reads it: rows of T words, first
// the halves of the sums of 32 columns, then the pairs of columns (columns 4w and 4w + 2, then
// 4w + 1 and 4w + 3, for every word w), then the scales.
inline constexpr size_t kPairRows = kRoundedColumns / 2;
inline constexpr size_t kSumRows = kRoundedColumns / 32;
inline constexpr size_t kTokenWords = kPairRows + kSumRows + 1;

inline size_t roundedBlocks(size_t cols) { return (cols + kRoundedColumns - 1) / kRoundedColumns; }

// Rounds a vector of `cols` columns into roundedBlocks(cols) blocks.
using RoundVector = void (*)(const float* x, size_t cols, RoundedVector* blocks);

// Rounds blocks [begin, end) of `tokens` vectors, which lie `stride` floats apart at x, into their
// places in `packed`, of tokens * roundedBlocks(cols) * kTokenWords words. Vectors go in groups of
// the table's groupTokens, one group after the other; the last may be smaller. A group goes block
// by block.
using RoundTokens = void (*)(const float* x, size_t stride, size_t tokens, size_t cols,
                             size_t begin, size_t end, uint32_t* packed);

// y[r] = the integer product of row r with the rounded vector, for `rows` rows of `cols` columns
// at W. `cols` is a multiple of the encoding's block. Reads the weights in place, at any alignment,
// once and in the order in which they are stored, and nothing behind the last row.
using IntegerMatvec = void (*)(const void* W, const RoundedVector* x, size_t rows, size_t cols,
                               float* y);

// y[t * yStride + r] = the integer product of row r with token t: the bits of IntegerMatvec, each
// weight decoded once for all. `packed` is RoundTokens' of the same table.
using IntegerMatmul = void (*)(const void* W, const uint32_t* packed, size_t tokens, size_t rows,
                               size_t cols, float* y, size_t yStride);

struct IntegerKernels {
  ByType<IntegerMatvec> matvec;  // null for encodings without integer products
  ByType<IntegerMatmul> matmul;  // as matvec
  size_t groupTokens;            // vectors that matmul holds in registers
  size_t tileRows;               // rows that matmul decodes together
  RoundVector roundVector;
  RoundTokens roundTokens;
};

// An instruction set that there are integer kernels for. Some processors of CpuLevel::Avx512 have
// instructions for integer products that others lack, so there are more of these than levels.
struct IntegerLevel {
  const char* name;       // "baseline", "avx2", "avx512bw", "avx512vnni"
  CpuLevel cpuLevel;      // that it belongs to
  bool (*isSupported)();  // by this processor
  const IntegerKernels* kernels;
};

// All of them, best first, whether or not this processor has them.
std::span<const IntegerLevel> integerLevels();

// The best table that this processor has for currentCpuLevel().
const IntegerKernels& integerKernels();

}  // namespace qwen35
