// SPDX-License-Identifier: Apache-2.0
// The three matrix-vector shaders of the decoder against exact products.
#include <limits>
#include <ostream>
#include <tuple>

#include "float_testing.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::EmbeddedShader;
using vulkan::ShaderId;

const EmbeddedShader& shaderFor(DType type) {
  if (type == DType::Q4_K) return vulkan::embeddedShader(ShaderId::Q4KGemvLlama);
  if (type == DType::Q6_K) return vulkan::embeddedShader(ShaderId::Q6KGemvLlama);
  return vulkan::q5kGemvShader();
}

class DecoderGemv : public ShaderTest {
 protected:
  // y = W x with one float more in y, which nothing may write.
  std::vector<float> product(const KMatrix& m, const std::vector<float>& x, Workgroups groups) {
    std::vector<BufferBytes> buffers = {bytesOf(x), m.bytes,
                                        bytesOf(std::vector<float>(m.rows + 1, kUntouched))};
    run(shaderFor(m.type), buffers,
        {static_cast<uint32_t>(m.rows), static_cast<uint32_t>(m.cols),
         static_cast<uint32_t>(m.cols / 256), static_cast<uint32_t>(m.rowBytes())},
        groups);
    std::vector<float> y = valuesOf<float>(buffers[2]);
    EXPECT_EQ(y.back(), kUntouched);
    return y;
  }
};

using Case = std::tuple<DType, Weights, size_t, size_t>;  // type, weights, rows, columns

class DecoderGemvShapes : public DecoderGemv, public ::testing::WithParamInterface<Case> {};

TEST_P(DecoderGemvShapes, IsTheProduct) {
  const auto [type, weights, rows, cols] = GetParam();
  const KMatrix m = makeKMatrix(type, rows, cols, weights);
  const std::vector<float> x = randomVector(cols, 7);
  const auto groups = static_cast<uint32_t>((rows + 1) / 2);
  expectProduct(m, x, product(m, x, {groups}), allRows(m));
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  const auto [type, weights, rows, cols] = info.param;
  return std::string(dtypeName(type)) + (weights == Weights::Encoded ? "Encoded" : "RandomBytes") +
         std::to_string(rows) + "x" + std::to_string(cols);
}

constexpr DType kTypes[] = {DType::Q4_K, DType::Q5_K, DType::Q6_K};
constexpr Weights kWeights[] = {Weights::Encoded, Weights::RandomBytes};

INSTANTIATE_TEST_SUITE_P(Small, DecoderGemvShapes,
                         ::testing::Combine(::testing::ValuesIn(kTypes),
                                            ::testing::ValuesIn(kWeights),
                                            ::testing::Values(1, 2, 3, 33),
                                            ::testing::Values(256, 512, 1024, 1280, 2560, 9216)),
                         caseName);

class DecoderGemvTypes : public DecoderGemv, public ::testing::WithParamInterface<DType> {};

INSTANTIATE_TEST_SUITE_P(Each, DecoderGemvTypes, ::testing::ValuesIn(kTypes),
                         [](const auto& param) { return std::string(dtypeName(param.param)); });

TEST_P(DecoderGemvTypes, WorkgroupsBeyondTheRowsWriteNothing) {
  const KMatrix m = makeKMatrix(GetParam(), 3, 256, Weights::Encoded);
  const std::vector<float> x = randomVector(256, 7);
  expectProduct(m, x, product(m, x, {5}), allRows(m));
}

// More rows than one dimension of workgroups is sure to take.
TEST_P(DecoderGemvTypes, AGridOfWorkgroupsCoversMoreThanAHundredThousandRows) {
  const KMatrix m = makeKMatrix(GetParam(), 131073, 256, Weights::RandomBytes);
  const std::vector<float> x = randomVector(256, 7);
  const std::vector<float> y = product(m, x, {65535, 2});
  expectProduct(m, x, y, {0, 1, 2, 65534, 65535, 131068, 131069, 131070, 131071, 131072});
  for (size_t r = 0; r < m.rows; ++r) ASSERT_NE(y[r], kUntouched) << r;
}

// Rows that lie further apart than their blocks need.
TEST_P(DecoderGemvTypes, RowsMayBePadded) {
  const KMatrix two = makeKMatrix(GetParam(), 2, 512, Weights::Encoded);
  std::vector<float> x = randomVector(256, 7);
  std::vector<BufferBytes> buffers = {bytesOf(x), two.bytes, bytesOf(std::vector<float>(2))};
  run(shaderFor(GetParam()), buffers, {2, 256, 1, static_cast<uint32_t>(two.rowBytes())}, {});
  x.resize(512);  // the padding counts as multiplied by zero
  expectProduct(two, x, valuesOf<float>(buffers[2]), {0, 1});
}

TEST_P(DecoderGemvTypes, ANotANumberInARowStaysInItsRow) {
  KMatrix m = makeKMatrix(GetParam(), 4, 256, Weights::Encoded);
  const size_t d = superScaleOffsets(GetParam())[0];
  m.bytes[m.rowBytes() * 2 + d] = 0x01;
  m.bytes[m.rowBytes() * 2 + d + 1] = 0x7e;
  const std::vector<float> x = randomVector(256, 7);
  const std::vector<float> y = product(m, x, {2});
  expectProduct(m, x, y, {0, 1, 3});
  EXPECT_TRUE(std::isnan(y[2]));
}

TEST_P(DecoderGemvTypes, ZeroAndHugeInputs) {
  const KMatrix m = makeKMatrix(GetParam(), 2, 512, Weights::Encoded);
  std::vector<float> x(512, 0.0F);
  EXPECT_EQ(product(m, x, {1})[0], 0.0F);
  x[300] = std::numeric_limits<float>::max() / 1024;
  expectProduct(m, x, product(m, x, {1}), {0, 1});
}

}  // namespace
}  // namespace zemtest
