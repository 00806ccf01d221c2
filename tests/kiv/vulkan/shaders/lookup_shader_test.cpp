// SPDX-License-Identifier: Apache-2.0
// Embedding, Bf16Proj and KvStore against plain loops.
#include "float_testing.h"

#include "kiv/dequant.h"
#include "kiv/quant_k.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

using LookupShader = ShaderTest;

BufferBytes wholeWords(BufferBytes bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4, 0xA5);
  return bytes;
}

// Blocks with any codes and scales, but a finite block scale.
BufferBytes randomBlocks(uint32_t seed, size_t blocks) {
  BufferBytes bytes = randomBytes(seed, blocks * sizeof(quant::Q6KBlock));
  for (size_t at = 208; at < bytes.size(); at += sizeof(quant::Q6KBlock)) {
    const uint16_t d = finiteHalf(halfAt(&bytes[at]));
    putHalf(&bytes[at], d);
  }
  return bytes;
}

class EmbeddingShader : public ShaderTest {
 protected:
  // Row `token` of rows that are `gap` bytes longer than their blocks.
  void expectRow(const BufferBytes& blocks, size_t width, size_t gap, size_t token, float scale) {
    const size_t used = quant::quantizedBytesK(QuantType::Q6_K, width);
    const size_t rows = blocks.size() / used;
    const size_t rowBytes = used + gap;
    BufferBytes w(rows * rowBytes, 0xFF);
    for (size_t r = 0; r < rows; ++r) std::memcpy(&w[r * rowBytes], &blocks[r * used], used);

    std::vector<float> row(width);
    quant::dequantQ6K(&blocks[token * used], row.data(), width);
    std::vector<Expected> expected;
    for (const float v : row) expected.push_back({scale * v});

    const uint32_t groups = ceilDiv(width, 256);
    for (const Workgroups grid : {Workgroups{groups}, Workgroups{1, groups + 1}}) {
      std::vector<BufferBytes> buffers = {wholeWords(w), room(width)};
      run(ShaderId::Embedding, buffers,
          {static_cast<uint32_t>(token), static_cast<uint32_t>(width),
           static_cast<uint32_t>(rowBytes), pushFloat(scale)},
          grid);
      expectResults(buffers[1], expected);
    }
  }
};

TEST_F(EmbeddingShader, WidensARowExactly) {
  for (const size_t width : {256, 512, 768, 2560}) {
    SCOPED_TRACE(width);
    const std::vector<float> weights = randomFloats(1, 5 * width, -0.05F, 0.05F);
    BufferBytes blocks(quant::quantizedBytesK(QuantType::Q6_K, weights.size()));
    quant::quantQ6K(weights.data(), blocks.data(), weights.size());
    for (const size_t token : {0, 1, 4}) expectRow(blocks, width, 0, token, 1);
  }
}

TEST_F(EmbeddingShader, WidensAnyBytes) {
  const BufferBytes blocks = randomBlocks(2, 3 * 3);
  for (const size_t token : {0, 1, 2}) expectRow(blocks, 768, 0, token, 1);
}

TEST_F(EmbeddingShader, FindsRowsWithGapsBetweenThem) {
  const BufferBytes blocks = randomBlocks(3, 5);
  for (const size_t gap : {2, 46}) expectRow(blocks, 256, gap, 3, 1);
}

TEST_F(EmbeddingShader, StopsInsideABlock) {
  const BufferBytes blocks = randomBlocks(4, 4);
  for (const size_t width : {257, 300, 511}) expectRow(blocks, width, 0, 1, 1);
  for (const size_t width : {1, 31, 255}) expectRow(blocks, width, 0, 3, 1);
}

TEST_F(EmbeddingShader, ScalesTheRow) {
  const BufferBytes blocks = randomBlocks(5, 4);
  for (const float scale : {0.0F, -1.0F, 50.596443F}) expectRow(blocks, 512, 0, 1, scale);
}

struct Bf16Case {
  size_t n;
  size_t k;
};

class Bf16ProjShader : public ShaderTest, public ::testing::WithParamInterface<Bf16Case> {};

TEST_P(Bf16ProjShader, IsTheScaledProduct) {
  const auto [n, k] = GetParam();
  constexpr float kScale = 0.75F;
  const std::vector<float> x = randomFloats(6, k);
  std::vector<uint16_t> w;
  for (const float v : randomFloats(7, n * k)) {
    w.push_back(static_cast<uint16_t>(std::bit_cast<uint32_t>(v) >> 16));
  }
  std::vector<Expected> expected;
  for (size_t r = 0; r < n; ++r) {
    double sum = 0;
    double size = 0;
    for (size_t c = 0; c < k; ++c) {
      const double term = std::bit_cast<float>(static_cast<uint32_t>(w[r * k + c]) << 16) *
                          static_cast<double>(x[c]);
      sum += term;
      size += std::abs(term);
    }
    // Half a unit an operation, one after the other.
    const double error = size * static_cast<double>(k + 2) * kUlp / 2;
    expected.push_back({kScale * sum, kScale * error});
  }
  w.insert(w.end(), kGuard, 0x7FC0);  // NaN
  const uint32_t groups = ceilDiv(n, 256);
  for (const Workgroups grid : {Workgroups{groups}, Workgroups{1, groups + 1}}) {
    std::vector<BufferBytes> buffers = {wholeWords(bytesOf(w)), guarded(x), room(n)};
    run(ShaderId::Bf16Proj, buffers,
        {static_cast<uint32_t>(n), static_cast<uint32_t>(k), pushFloat(kScale)}, grid);
    expectResults(buffers[2], expected);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Bf16ProjShader,
                         ::testing::Values(Bf16Case{1, 1}, Bf16Case{1, 2}, Bf16Case{3, 5},
                                           Bf16Case{255, 64}, Bf16Case{257, 33}, Bf16Case{700, 256},
                                           Bf16Case{2, 2560}));

TEST_F(LookupShader, BF16WidensToTheSameNumber) {
  // One, minus two, the smallest normal number, the largest, infinity, zero, minus zero.
  const std::vector<uint16_t> w = {0x3F80, 0xC000, 0x0080, 0x7F7F, 0x7F80, 0x0000, 0x8000, 0};
  std::vector<BufferBytes> buffers = {bytesOf(w), bytesOf<float>({1}), room(7)};
  run(ShaderId::Bf16Proj, buffers, {7, 1, pushFloat(1)}, {});
  const std::vector<float> y = valuesOf<float>(buffers[2]);
  for (size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(y[i], std::bit_cast<float>(static_cast<uint32_t>(w[i]) << 16));
  }
}

TEST_F(LookupShader, KvStoreWritesOneRowOfEachCache) {
  for (const size_t width : {1, 4, 255, 256, 257, 1024}) {
    for (const size_t position : {0, 1, 4}) {
      SCOPED_TRACE(width);
      const std::vector<float> k = randomFloats(8, width);
      const std::vector<float> v = randomFloats(9, width);
      const uint32_t groups = ceilDiv(width, 256);
      for (const Workgroups grid : {Workgroups{groups}, Workgroups{1, groups + 1}}) {
        std::vector<BufferBytes> buffers = {guarded(k), guarded(v), room(5 * width),
                                            room(5 * width)};
        run(ShaderId::KvStore, buffers,
            {static_cast<uint32_t>(width), static_cast<uint32_t>(position)}, grid);
        std::vector<Expected> keys(5 * width, {kUntouched});
        std::vector<Expected> values = keys;
        for (size_t i = 0; i < width; ++i) {
          keys[position * width + i] = {k[i]};
          values[position * width + i] = {v[i]};
        }
        expectResults(buffers[2], keys);
        expectResults(buffers[3], values);
      }
    }
  }
}

}  // namespace
}  // namespace zemtest
