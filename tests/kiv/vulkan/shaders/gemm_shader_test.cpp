// SPDX-License-Identifier: Apache-2.0
// The products of quantised matrices and several tokens against plain loops.
#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <limits>
#include <ostream>
#include <string>

#include "kiv/vulkan/shaders/quantised_matrix.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::EmbeddedShader;
using vulkan::embeddedShader;
using vulkan::ShaderId;

// The same sources with tiles of 64 rows by 32 tokens by 32 columns, for devices with
// less shared memory than the modules of the library need.
constexpr uint32_t kQ40Small[] =
#include "q4_0_gemm_small.inc"
    ;
constexpr uint32_t kQ4KSmall[] =
#include "q4k_gemm_small.inc"
    ;
constexpr uint32_t kQ5KSmall[] =
#include "q5k_gemm_small.inc"
    ;
constexpr uint32_t kQ6KSmall[] =
#include "q6k_gemm_small.inc"
    ;

struct Gemm {
  std::string name;
  BlockFormat format;
  EmbeddedShader shader;
  uint32_t tileRows;
  uint32_t tileTokens;
  uint32_t sharedBytes;
};

void PrintTo(const Gemm& gemm, std::ostream* out) { *out << gemm.name; }

std::vector<Gemm> allGemms() {
  const auto full = [](const char* name, const BlockFormat& format, ShaderId id) {
    return Gemm{name, format, embeddedShader(id), 128, 128, 2 * 8192 * 4};
  };
  const auto small = [](const char* name, const BlockFormat& format, const auto& words) {
    return Gemm{name, format, {words, std::size(words)}, 64, 32, (64 + 32) * 32 * 4};
  };
  return {full("Q4_0", q40Format(), ShaderId::Q4_0Gemm), small("Q4_0Small", q40Format(), kQ40Small),
          full("Q4K", q4kFormat(), ShaderId::Q4KGemm),   small("Q4KSmall", q4kFormat(), kQ4KSmall),
          full("Q5K", q5kFormat(), ShaderId::Q5KGemm),   small("Q5KSmall", q5kFormat(), kQ5KSmall),
          full("Q6K", q6kFormat(), ShaderId::Q6KGemm),   small("Q6KSmall", q6kFormat(), kQ6KSmall)};
}

struct GemmShape {
  uint32_t n;
  uint32_t k;
  uint32_t tokens;
};

// One of everything, exact tiles, one more and one less, several tiles either way,
// columns that end inside a block and inside a group of four.
constexpr GemmShape kGemmShapes[] = {{1, 256, 1},   {64, 256, 32}, {128, 512, 128}, {65, 512, 33},
                                     {63, 768, 31}, {200, 256, 2}, {3, 256, 150},   {130, 300, 7},
                                     {5, 33, 5},    {70, 257, 40}, {2, 63, 1}};

class GemmShader : public ShaderTest, public ::testing::WithParamInterface<Gemm> {
 protected:
  void SetUp() override {
    ShaderTest::SetUp();
    if (IsSkipped()) return;
    ZEM_NEEDS_SHARED_MEMORY(GetParam().sharedBytes);
  }

  // Y for `tokens` rows of x, in a buffer from room().
  BufferBytes multiply(const QuantisedMatrix& matrix, const std::vector<float>& x, uint32_t blocks,
                       uint32_t surplusGroups = 0) {
    const Gemm& gemm = GetParam();
    const auto tokens = static_cast<uint32_t>(x.size()) / matrix.k();
    std::vector<BufferBytes> buffers = {guarded(x), matrix.bytes(), room(tokens * matrix.n())};
    run(gemm.shader, buffers, {matrix.n(), matrix.k(), blocks, matrix.rowBytes(), tokens},
        {ceilDiv(matrix.n(), gemm.tileRows) + surplusGroups,
         ceilDiv(tokens, gemm.tileTokens) + surplusGroups});
    return buffers[2];
  }
  BufferBytes multiply(const QuantisedMatrix& matrix, const std::vector<float>& x) {
    return multiply(matrix, x, matrix.wholeBlocks());
  }

  static std::vector<float> inputs(const GemmShape& shape) {
    return randomFloats(shape.n + shape.tokens, size_t{shape.tokens} * shape.k, -2, 2);
  }
};

TEST_P(GemmShader, MultipliesQuantisedWeights) {
  for (const GemmShape& shape : kGemmShapes) {
    SCOPED_TRACE(::testing::PrintToString(std::vector{shape.n, shape.k, shape.tokens}));
    const auto matrix = QuantisedMatrix::ofWeights(GetParam().format, shape.n, shape.k);
    const std::vector<float> x = inputs(shape);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), products(matrix, x)));
  }
}

TEST_P(GemmShader, MultipliesRandomBlocks) {
  for (const GemmShape& shape : kGemmShapes) {
    SCOPED_TRACE(::testing::PrintToString(std::vector{shape.n, shape.k, shape.tokens}));
    const auto matrix = QuantisedMatrix::ofRandomBytes(GetParam().format, shape.n, shape.k);
    const std::vector<float> x = inputs(shape);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), products(matrix, x)));
  }
}

TEST_P(GemmShader, CountsALastBlockThatIsNotWhole) {
  const auto matrix = QuantisedMatrix::ofWeights(GetParam().format, 9, 290);
  const std::vector<float> x = inputs({9, 290, 3});
  expectResults(multiply(matrix, x, matrix.blocks()), products(matrix, x));
}

TEST_P(GemmShader, SkipsWhatLiesBetweenRows) {
  const auto matrix = QuantisedMatrix::ofRandomBytes(GetParam().format, 70, 512, /*gap=*/20);
  const std::vector<float> x = inputs({70, 512, 5});
  expectResults(multiply(matrix, x), products(matrix, x));
}

TEST_P(GemmShader, MultipliesWeightsTooSmallForNormalHalves) {
  const auto matrix = QuantisedMatrix::ofWeights(GetParam().format, 10, 512, 2e-4F);
  const std::vector<float> x = inputs({10, 512, 3});
  expectResults(multiply(matrix, x), products(matrix, x));
}

TEST_P(GemmShader, SurplusWorkgroupsDoNothing) {
  const auto matrix = QuantisedMatrix::ofWeights(GetParam().format, 70, 256);
  const std::vector<float> x = inputs({70, 256, 40});
  expectResults(multiply(matrix, x, matrix.wholeBlocks(), /*surplusGroups=*/2),
                products(matrix, x));
}

TEST_P(GemmShader, NaNStaysInItsTokenAndItsRow) {
  constexpr GemmShape kShape = {70, 256, 40};
  constexpr uint32_t kRow = 65;
  constexpr uint32_t kToken = 3;
  auto matrix = QuantisedMatrix::ofWeights(GetParam().format, kShape.n, kShape.k);
  std::vector<float> x = inputs(kShape);
  const std::vector<Expected> expected = products(matrix, x);
  putHalf(matrix.row(kRow) + GetParam().format.halves[0], 0x7E00);
  x[kToken * kShape.k + 100] = std::numeric_limits<float>::quiet_NaN();

  const std::vector<float> y = valuesOf<float>(multiply(matrix, x));
  for (uint32_t t = 0; t < kShape.tokens; ++t) {
    for (uint32_t r = 0; r < kShape.n; ++r) {
      const size_t i = size_t{t} * kShape.n + r;
      if (t == kToken || r == kRow) {
        ASSERT_TRUE(std::isnan(y[i])) << "token " << t << " row " << r;
      } else {
        ASSERT_NEAR(y[i], expected[i].value, expected[i].tolerance)
            << "token " << t << " row " << r;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modules, GemmShader, ::testing::ValuesIn(allGemms()),
                         [](const auto& gemm) { return gemm.param.name; });

}  // namespace
}  // namespace zemtest
