// SPDX-License-Identifier: Apache-2.0
// Matrices of random bytes in every encoding, and the plain loop's sums of their rows.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "kernels/reference.h"
#include "kiv/quant_k.h"
#include "matmul/matrix.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/open_model.h"

namespace qwen35 {

using kiv::DType;

inline constexpr DType kTypes[] = {DType::F32,  DType::BF16, DType::Q8_0,
                                   DType::Q4_K, DType::Q5_K, DType::Q6_K};

// A level and an encoding.
struct Case {
  CpuLevel level;
  DType type;
};

inline CpuLevel levelOf(const Case& c) { return c.level; }

inline std::string caseName(const testing::TestParamInfo<Case>& info) {
  return std::string(cpuLevelName(info.param.level)) + "_" + kiv::dtypeName(info.param.type);
}

inline void PrintTo(const Case& c, std::ostream* out) {
  *out << cpuLevelName(c.level) << " " << kiv::dtypeName(c.type);
}

inline std::vector<Case> everyCase() {
  std::vector<Case> cases;
  for (const CpuLevel level : kEveryLevel) {
    for (const DType type : kTypes) cases.push_back({level, type});
  }
  return cases;
}

// The same number, the same kind of zero, or both NaN.
inline testing::AssertionResult sameBits(const Floats& got, const Floats& want) {
  if (got.size() != want.size()) return testing::AssertionFailure() << "sizes differ";
  for (size_t i = 0; i < got.size(); ++i) {
    const bool same = std::isnan(want[i])
                          ? std::isnan(got[i])
                          : std::bit_cast<uint32_t>(got[i]) == std::bit_cast<uint32_t>(want[i]);
    if (!same) {
      return testing::AssertionFailure() << "row " << i << ": " << got[i] << " is not " << want[i];
    }
  }
  return testing::AssertionSuccess();
}

enum class Scales { Small, Any };

// Rows of random bytes at `misalignment` bytes from an aligned address, in an
// allocation that ends with the last of them.
class RandomMatrix {
 public:
  RandomMatrix(DType type, size_t rows, size_t cols, uint32_t seed, Scales scales = Scales::Small,
               size_t misalignment = 0)
      : misalignment_(misalignment) {
    const size_t stride = kiv::dtypeBytes(type, cols);
    bytes_.resize(misalignment + rows * stride);
    std::mt19937 rng(seed);
    for (uint8_t& byte : bytes_) byte = static_cast<uint8_t>(rng());
    view_.dtype = type;
    view_.ndim = 2;
    view_.shape = {cols, rows, 0, 0};
    view_.size = rows * stride;
    view_.data = bytes_.data() + misalignment;
    if (scales == Scales::Small) makeSmall();
  }

  const TensorView& view() const { return view_; }
  uint8_t* bytes() { return bytes_.data() + misalignment_; }

  Floats row(size_t r) const {
    Floats out(view_.shape[0]);
    rowToF32(&view_, r, out.size(), out.data());
    return out;
  }

 private:
  // Keeps signs and everything else random, but no exponent near the largest.
  void makeSmall() {
    for (const size_t at : exponentBytes()) {
      const size_t unit = unitBytes();
      for (size_t i = at; i < view_.size; i += unit) bytes()[i] &= 0xBF;
    }
  }

  size_t unitBytes() const {
    return kiv::dtypeBytes(view_.dtype, kiv::dtypeBlockSize(view_.dtype));
  }

  // Where in a block the upper bytes of its floating-point numbers are.
  std::vector<size_t> exponentBytes() const {
    switch (view_.dtype) {
      case DType::F32:
        return {3};
      case DType::Q6_K:
        return {offsetof(kiv::quant::Q6KBlock, d) + 1};
      case DType::Q4_K:
      case DType::Q5_K:
        return {1, 3};
      default:
        return {1};
    }
  }

  size_t misalignment_;
  std::vector<uint8_t> bytes_;
  TensorView view_;
};

inline Floats randomVector(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> normal;
  Floats x(n);
  for (float& v : x) v = normal(rng);
  return x;
}

// Numbers of every size and sign, infinities and NaN.
inline Floats hostileVector(size_t n, uint32_t seed) {
  constexpr float kInf = std::numeric_limits<float>::infinity();
  std::mt19937 rng(seed);
  const float special[] = {0.0F,    -0.0F,
                           kInf,    -kInf,
                           88.8F,   -88.8F,
                           103.9F,  -104.1F,
                           3e38F,   std::numeric_limits<float>::denorm_min(),
                           1e-30F,  std::numeric_limits<float>::quiet_NaN(),
                           -1e-45F, 1.0F};
  Floats x = randomVector(n, seed);
  for (float& v : x) {
    if (rng() % 4 == 0) v = special[rng() % std::size(special)];
    if (rng() % 4 == 0) v *= 40;
  }
  return x;
}

// Bit patterns at random: numbers of every exponent.
inline Floats anyFloats(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Floats x(n);
  for (float& v : x) v = std::bit_cast<float>(static_cast<uint32_t>(rng()));
  return x;
}

inline Floats plainSums(const RandomMatrix& W, const Floats& x) {
  Floats sums(matrixRows(W.view()));
  for (size_t r = 0; r < sums.size(); ++r) {
    sums[r] = reference::dotF32(W.row(r).data(), x.data(), x.size());
  }
  return sums;
}

}  // namespace qwen35
