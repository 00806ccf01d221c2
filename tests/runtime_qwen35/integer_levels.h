// SPDX-License-Identifier: Apache-2.0
// Integer products at every instruction set and in every encoding that has them, and the plain
// loops that define them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "kernels/integer_kernels.h"
#include "kernels/integer_reference.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {

inline constexpr DType kIntegerTypes[] = {DType::Q8_0, DType::Q4_K, DType::Q5_K, DType::Q6_K};

struct IntegerCase {
  const IntegerLevel* level;
  DType type;
};

inline std::string integerCaseName(const testing::TestParamInfo<IntegerCase>& info) {
  return std::string(info.param.level->name) + "_" + kiv::dtypeName(info.param.type);
}

inline void PrintTo(const IntegerCase& c, std::ostream* out) {
  *out << c.level->name << " " << kiv::dtypeName(c.type);
}

inline std::vector<IntegerCase> everyIntegerCase() {
  std::vector<IntegerCase> cases;
  for (const IntegerLevel& level : integerLevels()) {
    for (const DType type : kIntegerTypes) cases.push_back({&level, type});
  }
  return cases;
}

// Levels that this machine lacks are skipped by name.
class IntegersAtEveryLevel : public testing::TestWithParam<IntegerCase> {
 protected:
  void SetUp() override {
    if (!GetParam().level->isSupported()) {
      GTEST_SKIP() << "this processor has no level " << GetParam().level->name;
    }
  }

  const IntegerKernels& kernels() const { return *GetParam().level->kernels; }
  DType type() const { return GetParam().type; }
  size_t block() const { return kiv::dtypeBlockSize(type()); }
};

inline std::vector<reference::RoundedBlock> plainRounded(const float* x, size_t cols) {
  std::vector<reference::RoundedBlock> blocks;
  for (size_t c = 0; c < cols; c += kRoundedColumns) {
    blocks.push_back(reference::roundBlock(x + c, std::min(kRoundedColumns, cols - c)));
  }
  return blocks;
}

// The integer products of all rows with one token after the other.
inline Floats plainIntegerProducts(const TensorView& W, const Floats& x, size_t tokens = 1) {
  const size_t cols = matrixCols(W);
  const size_t rows = matrixRows(W);
  Floats products;
  for (size_t t = 0; t < tokens; ++t) {
    const auto rounded = plainRounded(x.data() + t * cols, cols);
    for (size_t r = 0; r < rows; ++r) {
      const auto* row = static_cast<const uint8_t*>(W.data) + r * kiv::dtypeBytes(W.dtype, cols);
      products.push_back(reference::integerDot(W.dtype, row, rounded.data(), cols));
    }
  }
  return products;
}

}  // namespace qwen35
