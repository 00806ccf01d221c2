// SPDX-License-Identifier: Apache-2.0
// Matrices of K-quantised rows for tests of products: from the encoders or from
// random bytes, with the exact product to compare with.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "kiv/dequant.h"
#include "kiv/quant_k.h"
#include "kiv/tensor.h"

namespace zemtest {

using namespace kiv;

// Where a K block keeps its half-precision factors.
inline std::vector<size_t> superScaleOffsets(DType type) {
  if (type == DType::Q6_K) return {offsetof(quant::Q6KBlock, d)};
  return {0, 2};
}

enum class Weights { Encoded, RandomBytes };

// `rows` rows of `cols` elements, whole blocks, padded with zeros to whole words.
struct KMatrix {
  DType type;
  size_t rows;
  size_t cols;
  std::vector<uint8_t> bytes;

  size_t rowBytes() const { return dtypeBytes(type, cols); }

  std::vector<float> row(size_t r) const {
    std::vector<float> out(cols);
    const uint8_t* from = bytes.data() + r * rowBytes();
    if (type == DType::Q4_K) {
      quant::dequantQ4K(from, out.data(), cols);
    } else if (type == DType::Q5_K) {
      quant::dequantQ5K(from, out.data(), cols);
    } else {
      quant::dequantQ6K(from, out.data(), cols);
    }
    return out;
  }
};

inline std::vector<float> randomVector(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<float> x(count);
  for (float& v : x) v = static_cast<float>(random()) * 0x1p-31F - 1.0F;
  return x;
}

inline KMatrix makeKMatrix(DType type, size_t rows, size_t cols, Weights weights,
                           uint32_t seed = 1) {
  KMatrix m{type, rows, cols, {}};
  const size_t size = rows * m.rowBytes();
  m.bytes.resize((size + 3) / 4 * 4);
  if (weights == Weights::Encoded) {
    const std::vector<float> values = randomVector(rows * cols, seed);
    const auto encode = type == DType::Q4_K   ? quant::quantQ4K
                        : type == DType::Q5_K ? quant::quantQ5K
                                              : quant::quantQ6K;
    encode(values.data(), m.bytes.data(), rows * cols);
    return m;
  }
  std::mt19937 random(seed);
  for (size_t i = 0; i < size; ++i) m.bytes[i] = static_cast<uint8_t>(random() >> 24);
  const size_t blockBytes = dtypeBytes(type, quant::kBlock256);
  for (size_t block = 0; block < size; block += blockBytes) {
    for (const size_t offset : superScaleOffsets(type)) {
      // A finite half of moderate size: exponents 1 to 16.
      uint8_t& high = m.bytes[block + offset + 1];
      high = static_cast<uint8_t>((high & 0x83) | (1 + (high >> 2) % 16) << 2);
    }
  }
  return m;
}

// Holds y[r] against the exact product of row r for each of `rows`, within
// `tolerance` of the sum of |w x|.
inline void expectProduct(const KMatrix& m, const std::vector<float>& x,
                          const std::vector<float>& y, const std::vector<size_t>& rows,
                          double tolerance = 1e-5) {
  for (const size_t r : rows) {
    const std::vector<float> w = m.row(r);
    double sum = 0;
    double magnitude = 0;
    for (size_t c = 0; c < m.cols; ++c) {
      const double term = static_cast<double>(w[c]) * x[c];
      sum += term;
      magnitude += std::fabs(term);
    }
    ASSERT_NEAR(y[r], sum, tolerance * magnitude) << "row " << r;
  }
}

inline std::vector<size_t> allRows(const KMatrix& m) {
  std::vector<size_t> rows(m.rows);
  for (size_t r = 0; r < m.rows; ++r) rows[r] = r;
  return rows;
}

}  // namespace zemtest
