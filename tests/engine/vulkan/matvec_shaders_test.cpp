// SPDX-License-Identifier: Apache-2.0
// Products of matrices of every type with a vector for each token, and rows of embeddings.
#include <cmath>
#include <ostream>
#include <tuple>

#include "engine/vulkan/step_shaders.h"
#include "kiv/quant/row_codec.h"
#include "kiv/vulkan/shaders/float_testing.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {
namespace {

using kiv::DType;

constexpr DType kTypes[] = {DType::F32,  DType::BF16, DType::Q8_0,
                            DType::Q4_K, DType::Q5_K, DType::Q6_K};

struct StoredMatrix {
  uint32_t rows;
  uint32_t cols;
  uint32_t rowBytes;
  BufferBytes bytes;          // whole words
  std::vector<float> values;  // as they decode
};

StoredMatrix storedMatrix(DType type, uint32_t rows, uint32_t cols) {
  StoredMatrix m{rows, cols, static_cast<uint32_t>(kiv::dtypeBytes(type, cols)), {}, {}};
  const std::vector<float> weights = randomVector(size_t{rows} * cols, rows + cols);
  m.bytes.resize((size_t{rows} * m.rowBytes + 3) / 4 * 4);
  m.values.resize(weights.size());
  for (size_t r = 0; r < rows; ++r) {
    uint8_t* row = m.bytes.data() + r * m.rowBytes;
    kiv::encodeRow(type, weights.data() + r * cols, cols, row);
    kiv::decodeRow(type, row, cols, m.values.data() + r * cols);
  }
  return m;
}

// Each row of x times the matrix, and y, where it is added to.
std::vector<Expected> products(const StoredMatrix& m, const std::vector<float>& x,
                               const std::vector<float>& y, uint32_t add) {
  std::vector<Expected> expected;
  for (size_t i = 0; i < y.size(); ++i) {
    const float* row = &m.values[i % m.rows * m.cols];
    const float* vector = &x[i / m.rows * m.cols];
    double sum = add == 0 ? 0.0 : y[i];
    double magnitude = std::abs(sum);
    for (size_t c = 0; c < m.cols; ++c) {
      const double term = static_cast<double>(row[c]) * vector[c];
      sum += term;
      magnitude += std::abs(term);
    }
    expected.push_back({sum, 1e-5 * magnitude + 1e-30});
  }
  return expected;
}

class MatvecShaders : public ShaderTest,
                      public ::testing::WithParamInterface<std::tuple<DType, uint32_t, uint32_t>> {
 protected:
  DType type() const { return std::get<0>(GetParam()); }
  // Columns for any type: as they are, or as many blocks.
  uint32_t cols() const {
    const auto block = static_cast<uint32_t>(kiv::dtypeBlockSize(type()));
    return block == 1 ? std::get<2>(GetParam()) : block * (std::get<2>(GetParam()) % 11 + 1);
  }
};

std::string matvecName(const ::testing::TestParamInfo<MatvecShaders::ParamType>& info) {
  const auto [type, rows, cols] = info.param;
  return std::string(kiv::dtypeName(type)) + "_" + std::to_string(rows) + "x" +
         std::to_string(cols);
}
INSTANTIATE_TEST_SUITE_P(Each, MatvecShaders,
                         ::testing::Combine(::testing::ValuesIn(kTypes),
                                            ::testing::Values(1, 2, 33),
                                            ::testing::Values(1, 33, 64, 130)),
                         matvecName);

TEST_P(MatvecShaders, MultiplyEachTokensVectorAndAddWhereTheyAreTold) {
  constexpr uint32_t kTokens = 3;
  const StoredMatrix m = storedMatrix(type(), std::get<1>(GetParam()), cols());
  const std::vector<float> x = randomVector(size_t{kTokens} * m.cols, 7);
  const std::vector<float> y = randomVector(size_t{kTokens} * m.rows, 8);
  for (const uint32_t add : {0U, 1U}) {
    std::vector<BufferBytes> buffers = {guarded(x), m.bytes, changeable(y)};
    run(zem::stepShader(zem::matvecFor(type())), buffers,
        {m.rows, m.cols, m.cols / zem::productBlock(type()), m.rowBytes, add},
        {(m.rows + 1) / 2, 1, kTokens});
    expectResults(buffers[2], products(m, x, y, add));
  }
}

TEST_P(MatvecShaders, ManyTokensTogetherGiveTheSameProducts) {
  const StoredMatrix m = storedMatrix(type(), std::get<1>(GetParam()), cols());
  for (const uint32_t tokens : {1U, 33U}) {
    const std::vector<float> x = randomVector(size_t{tokens} * m.cols, 7);
    const std::vector<float> y = randomVector(size_t{tokens} * m.rows, 8);
    for (const uint32_t add : {0U, 1U}) {
      std::vector<BufferBytes> buffers = {guarded(x), m.bytes, changeable(y)};
      run(zem::stepShader(zem::matmulFor(type())), buffers,
          {m.rows, m.cols, m.cols / zem::productBlock(type()), m.rowBytes, tokens, add},
          {ceilDiv(m.rows, zem::kMatmulRows), ceilDiv(tokens, zem::kMatmulTokens)});
      expectResults(buffers[2], products(m, x, y, add));
    }
  }
}

TEST_P(MatvecShaders, EmbeddingsAreDecodedRows) {
  const StoredMatrix m = storedMatrix(type(), std::get<1>(GetParam()), cols());
  const std::vector<uint32_t> ids = {m.rows - 1, 0, m.rows / 2};
  std::vector<uint32_t> rows;
  std::vector<Expected> expected;
  for (const uint32_t id : ids) {
    rows.insert(rows.end(), {id, 77, 78, 79});
    for (uint32_t c = 0; c < m.cols; ++c) {
      const float value = m.values[id * m.cols + c];
      expected.push_back({value, 4 * kUlp * (std::abs(value) + 1)});
    }
  }
  std::vector<BufferBytes> buffers = {bytesOf(rows), m.bytes, room(expected.size())};
  run(zem::stepShader(zem::StepShader::Embed), buffers,
      {m.cols, m.rowBytes, zem::embedTypeOf(type())}, {ceilDiv(m.cols, 256), 1, 3});
  expectResults(buffers[2], expected);
}

}  // namespace
}  // namespace zemtest
