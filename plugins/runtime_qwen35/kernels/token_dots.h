// Products of a stored matrix with many vectors at once: the tokens of a prompt.
//
// A weight is widened once for all tokens. As in row_dots.h rows lie in
// the lanes and every sum runs over the columns from 0 upward, one rounded
// multiplication and one rounded addition at a time: token by token the results
// are the bits of the product with one vector.
#pragma once

#include <cstddef>

#include "kiv/tensor.h"
#include "qwen35_cpu.h"

namespace qwen35 {

// The vectors of a batch as the kernels read them: in groups of the level's
// `groupTokens` tokens (the last group may be smaller), one group after the
// other; within a group column by column, the tokens of a column side by side.
// Group g of a batch with `cols` columns starts at g * groupTokens * cols.

// out[t * outStride + r] = row r's dot product with token t, for `tokens` tokens
// in `packed` and `rows` rows of `cols` columns at W. `cols` is a multiple of the
// encoding's block. Serial.
using TokenDots = void (*)(const void* W, const float* packed, size_t tokens, size_t rows,
                           size_t cols, float* out, size_t outStride);

// The same for one group of tokens and weights that are floats already, a row's
// neighbours side by side: column c of row r stands at columns[c * stride + r].
// Adds `count` columns to sums[t * sumStride + r]; `rows` is a multiple of
// tileRows, `tokens` at most groupTokens.
using ColumnSums = void (*)(const float* columns, size_t stride, const float* packed, size_t tokens,
                            size_t count, size_t rows, float* sums, size_t sumStride);

struct TokenDotsTable {
  size_t groupTokens;
  size_t tileRows;  // rows that are widened together
  TokenDots f32;
  TokenDots bf16;
  TokenDots q80;
  TokenDots q4k;
  TokenDots q5k;
  TokenDots q6k;
  ColumnSums columnSums;
};

const TokenDotsTable& tokenDotsTable(CpuLevel level);

// Null for types that the decoder does not compute with.
TokenDots tokenDotsOf(const TokenDotsTable& table, kiv::DType type);

// Columns [begin, end) of `tokens` vectors, `stride` floats apart at x, into
// their places in `packed` (tokens * cols floats).
void packTokens(const float* x, size_t stride, size_t tokens, size_t cols, size_t groupTokens,
                size_t begin, size_t end, float* packed);

// Each level's own table; callers go through tokenDotsTable.
extern const TokenDotsTable kTokenDotsAvx512;
extern const TokenDotsTable kTokenDotsAvx2;
extern const TokenDotsTable kTokenDotsBaseline;

}  // namespace qwen35
