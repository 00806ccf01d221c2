// SPDX-License-Identifier: Apache-2.0
// The shader that expands one Q4_K block, against the CPU's decoder, bit for bit.
#include "float_testing.h"
#include "kiv/quant_testing.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {

using namespace kiv;

namespace {

using quant::kBlock256;
using vulkan::ShaderId;

std::vector<uint8_t> blockOf(Weights weights, uint32_t seed) {
  return makeKMatrix(DType::Q4_K, 1, kBlock256, weights, seed).bytes;
}

class Q4KDeqDiagShader : public ShaderTest {
 protected:
  // What the shader makes of the first block, which has `behind` bytes of others'
  // behind it, and what then lies behind its elements.
  std::vector<float> expand(std::vector<uint8_t> block, size_t behind) {
    block.resize(kQ4KBytes + behind, 0xFF);
    std::vector<BufferBytes> buffers = {block,
                                        bytesOf(std::vector<float>(kBlock256 + 1, kUntouched))};
    run(ShaderId::Q4KDeqDiag, buffers, {}, {});
    return valuesOf<float>(buffers[1]);
  }

  void expectDecoded(const std::vector<uint8_t>& block, size_t behind = 0) {
    std::vector<float> expected(kBlock256 + 1, kUntouched);
    quant::dequantQ4K(block.data(), expected.data(), kBlock256);
    EXPECT_EQ(expand(block, behind), expected);
  }
};

TEST_F(Q4KDeqDiagShader, ExpandsBlocksOfTheQuantiser) {
  for (const uint32_t seed : {1U, 2U, 3U}) expectDecoded(blockOf(Weights::Encoded, seed));
}

TEST_F(Q4KDeqDiagShader, ExpandsRandomBytes) {
  for (const uint32_t seed : {1U, 2U, 3U, 4U, 5U})
    expectDecoded(blockOf(Weights::RandomBytes, seed));
}

TEST_F(Q4KDeqDiagShader, ReadsTheFirstBlockOnly) {
  expectDecoded(blockOf(Weights::RandomBytes, 6), /*behind=*/4);
  expectDecoded(blockOf(Weights::RandomBytes, 6), /*behind=*/3 * kQ4KBytes);
}

TEST_F(Q4KDeqDiagShader, ExpandsTheExtremesOfTheScales) {
  std::vector<uint8_t> block = randomBytes(7, kQ4KBytes);
  // Zeros, subnormal and normal ends of half precision.
  constexpr uint16_t kScales[] = {0x0000, 0x8000, 0x0001, 0x83FF, 0x0400, 0x7BFF, 0xFBFF};
  for (const uint16_t d : kScales) {
    for (const uint16_t dmin : kScales) {
      putHalf(&block[0], d);
      putHalf(&block[2], dmin);
      expectDecoded(block);
    }
  }
}

TEST_F(Q4KDeqDiagShader, ExpandsAllOnesAndAllZeros) {
  std::vector<uint8_t> block(kQ4KBytes, 0);
  expectDecoded(block);
  block.assign(kQ4KBytes, 0xFF);
  putHalf(&block[0], 0x3C00);
  putHalf(&block[2], 0x3800);
  expectDecoded(block);  // 15 * 63 - 63 / 2 everywhere
  EXPECT_EQ(expand(block, 0)[255], 913.5F);
}

}  // namespace
}  // namespace zemtest
