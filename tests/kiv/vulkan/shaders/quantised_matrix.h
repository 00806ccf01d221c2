// SPDX-License-Identifier: Apache-2.0
// Matrices of quantised rows for the tests of shaders, and what their products with
// floats should be.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>

#include "kiv/dequant.h"
#include "kiv/quant.h"
#include "kiv/quant_k.h"
#include "kiv/vulkan/shaders/float_testing.h"

namespace zemtest {

using namespace kiv;

struct BlockFormat {
  QuantType type;
  uint32_t elements;           // of a block
  std::vector<size_t> halves;  // bytes of a block at which its half-precision scales lie
  void (*quantise)(const float*, void*, uint64_t);
  void (*dequantise)(const void*, float*, uint64_t);

  uint32_t blockBytes() const {
    return static_cast<uint32_t>(quant::quantizedBytes(type, elements));
  }
};

inline BlockFormat q40Format() {
  return {QuantType::Q4_0, 32, {0}, quant::quantQ40, quant::dequantQ40};
}
inline BlockFormat q4kFormat() {
  return {QuantType::Q4_K, 256, {0, 2}, quant::quantQ4K, quant::dequantQ4K};
}
inline BlockFormat q5kFormat() {
  return {QuantType::Q5_K, 256, {0, 2}, quant::quantQ5K, quant::dequantQ5K};
}
inline BlockFormat q6kFormat() {
  return {QuantType::Q6_K, 256, {208}, quant::quantQ6K, quant::dequantQ6K};
}

// n rows of k weights, a row every rowBytes bytes. What lies between and behind the
// rows is 0xFF throughout, NaN as a half and as a float.
class QuantisedMatrix {
 public:
  // Weights within `reach` of zero through the encoder.
  static QuantisedMatrix ofWeights(const BlockFormat& format, uint32_t n, uint32_t k,
                                   float reach = 0.05F, uint32_t gap = 0) {
    QuantisedMatrix matrix(format, n, k, gap);
    const std::vector<float> weights = randomFloats(n + 1000 * k, size_t{n} * k, -reach, reach);
    for (uint32_t r = 0; r < n; ++r) {
      format.quantise(weights.data() + size_t{r} * k, matrix.row(r), k);
    }
    return matrix;
  }

  // Random bytes; the half-precision scales finite, of either sign and of sizes that
  // lie close enough to each other for every block of a row to count.
  static QuantisedMatrix ofRandomBytes(const BlockFormat& format, uint32_t n, uint32_t k,
                                       uint32_t gap = 0) {
    QuantisedMatrix matrix(format, n, k, gap);
    std::mt19937 random(n + 1000 * k);
    const uint32_t bytes = matrix.blocks() * format.blockBytes();
    for (uint32_t r = 0; r < n; ++r) {
      for (uint32_t i = 0; i < bytes; ++i) matrix.row(r)[i] = static_cast<uint8_t>(random() >> 24);
      for (uint32_t b = 0; b < bytes; b += format.blockBytes()) {
        for (const size_t at : format.halves) {
          const uint32_t exponent = 12 + random() % 4;
          const uint32_t half = (random() & 0x83FFU) | exponent << 10;
          putHalf(matrix.row(r) + b + at, static_cast<uint16_t>(half));
        }
      }
    }
    return matrix;
  }

  // n rows that go round the rows of `few`.
  static QuantisedMatrix repeating(const QuantisedMatrix& few, uint32_t n) {
    QuantisedMatrix matrix(few.format_, n, few.k_, /*gap=*/0);
    for (uint32_t r = 0; r < n; ++r) {
      const auto row =
          few.bytes_.begin() + static_cast<ptrdiff_t>(size_t{r % few.n_} * few.rowBytes_);
      std::copy_n(row, matrix.rowBytes_, matrix.row(r));
    }
    return matrix;
  }

  uint32_t n() const { return n_; }
  uint32_t k() const { return k_; }
  uint32_t blocks() const { return (k_ + format_.elements - 1) / format_.elements; }
  uint32_t wholeBlocks() const { return k_ / format_.elements; }
  uint32_t rowBytes() const { return rowBytes_; }
  uint8_t* row(uint32_t r) { return bytes_.data() + size_t{r} * rowBytes_; }

  // For a buffer: whole words, and some behind the last row.
  const BufferBytes& bytes() const { return bytes_; }

  std::vector<float> decodedRow(uint32_t r) const {
    std::vector<float> weights(k_);
    format_.dequantise(bytes_.data() + size_t{r} * rowBytes_, weights.data(), k_);
    return weights;
  }

 private:
  QuantisedMatrix(BlockFormat format, uint32_t n, uint32_t k, uint32_t gap)
      : format_(std::move(format)), n_(n), k_(k) {
    constexpr size_t kBehind = 64;
    rowBytes_ = blocks() * format_.blockBytes() + gap;
    bytes_.resize((size_t{n} * rowBytes_ + kBehind) / 4 * 4, 0xFF);
  }

  BlockFormat format_;
  uint32_t n_;
  uint32_t k_;
  uint32_t rowBytes_ = 0;
  BufferBytes bytes_;
};

// The sum of w[i] x[i] with the error that single precision may add to it in any order.
inline Expected product(const std::vector<float>& w, const float* x) {
  double sum = 0;
  double magnitude = 0;
  for (size_t i = 0; i < w.size(); ++i) {
    const double term = static_cast<double>(w[i]) * static_cast<double>(x[i]);
    sum += term;
    magnitude += std::abs(term);
  }
  return {sum, 1e-5 * magnitude};
}

// For each row of x (k floats) its products with all rows of the matrix.
inline std::vector<Expected> products(const QuantisedMatrix& matrix, const std::vector<float>& x) {
  const size_t tokens = x.size() / matrix.k();
  std::vector<Expected> expected(tokens * matrix.n());
  for (uint32_t r = 0; r < matrix.n(); ++r) {
    const std::vector<float> weights = matrix.decodedRow(r);
    for (size_t t = 0; t < tokens; ++t) {
      expected[t * matrix.n() + r] = product(weights, x.data() + t * matrix.k());
    }
  }
  return expected;
}

}  // namespace zemtest
