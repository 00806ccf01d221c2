// SPDX-License-Identifier: Apache-2.0
#include "qwen35_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "runtime_qwen35/open_model.h"

namespace qwen35 {
namespace {

using kiv::DType;
using testing::HasSubstr;
using testing::StartsWith;
using zemtest::Bytes;
using zemtest::TinyModel;

std::string complaint(const TinyModel& tiny) {
  const OpenModel m(tiny);
  EXPECT_TRUE(m.bound) << "the file must bind, so that it can be inspected";
  return checkWeights(m.loader, m.model).message();
}

TEST(CheckWeights, SoundModelsPass) {
  EXPECT_EQ(complaint(TinyModel()), "");
  for (const kiv::DType type : kStoredTypes) {
    zemtest::TinyModelOptions options;
    options.width = 256;
    options.feedForward = 256;
    options.matrixType = type;
    EXPECT_EQ(complaint(TinyModel(options)), "") << kiv::dtypeName(type);
  }
}

// Cuts one byte from the end of a tensor.
TinyModel withShortTensor(const std::string& name) {
  TinyModel tiny;
  tiny.tensor(name).data.pop_back();
  return tiny;
}

TEST(CheckWeights, EveryTensorMustBeLongEnough) {
  TinyModel sound;
  for (const auto& [name, tensor] : sound.tensors()) {
    if (!name.starts_with("blk.") || name.starts_with("blk.0.") || name.starts_with("blk.31.")) {
      EXPECT_THAT(complaint(withShortTensor(name)), StartsWith(name + ": has "));
    }
  }
}

TEST(CheckWeights, BytesOutsideTheWeightsAreNamed) {
  const TinyModel tiny;
  const Bytes sound = tiny.build();
  const uint64_t size = zemtest::sectionSize(sound, kiv::zem2::SectionType::WeightData);
  for (const uint64_t offset :
       {size, size - 1, uint64_t{1} << 40, ~uint64_t{0}, ~uint64_t{0} - 99}) {
    Bytes file = sound;
    const size_t entry = zemtest::tensorIndex(file, "blk.4.attn_k.weight");
    zemtest::set(file, entry, zemtest::tensor::offset, offset);
    const zemtest::TempFile path(file);
    kiv::ZEMLoader loader;
    ASSERT_TRUE(loader.open(path.path()).ok());
    Model model;
    ASSERT_TRUE(initLayers(loader, model, 8) && bindModel(loader, model, 8));
    EXPECT_THAT(checkWeights(loader, model).message(),
                HasSubstr("blk.4.attn_k.weight: its 32768 bytes lie outside"))
        << offset;
  }
}

TEST(CheckWeights, ExtentsMustFitTheDecoder) {
  const auto reshaped = [](const char* name, std::vector<uint64_t> shape) {
    TinyModel tiny;
    tiny.tensor(name).shape = std::move(shape);
    return complaint(tiny);
  };
  EXPECT_EQ(reshaped("blk.1.attn_k.weight", {8, 1023}),
            "blk.1.attn_k.weight: has 8 x 1023 weights, needs 8 x 1024");
  EXPECT_EQ(reshaped("blk.1.attn_k.weight", {4, 1024}),
            "blk.1.attn_k.weight: has 4 x 1024 weights, needs 8 x 1024");
  EXPECT_EQ(reshaped("blk.0.attn_qkv.weight", {8, 4096, 2}), "")
      << "rows may be spread over extents";
  EXPECT_THAT(reshaped("blk.0.attn_qkv.weight", {8}),
              StartsWith("blk.0.attn_qkv.weight: has 8 x 1"));
  EXPECT_THAT(reshaped("blk.0.attn_qkv.weight", {}),
              StartsWith("blk.0.attn_qkv.weight: has 0 x 1"));
  EXPECT_THAT(reshaped("blk.7.ffn_up.weight", {8, 13}),
              StartsWith("blk.7.ffn_up.weight: has 8 x 13"));
  EXPECT_THAT(reshaped("blk.7.ffn_gate.weight", {8, 0}),
              StartsWith("blk.7.ffn_gate.weight: has 8 x 0"));
  EXPECT_THAT(reshaped("blk.0.ssm_out.weight", {4096, 7}), StartsWith("blk.0.ssm_out.weight"));
  EXPECT_THAT(reshaped("blk.7.ffn_up.weight", {8, uint64_t{1} << 63, 4}),
              StartsWith("blk.7.ffn_up.weight"));
}

TEST(CheckWeights, EmbeddingOfAnyImpossibleSizeIsNamed) {
  const auto shaped = [](std::vector<uint64_t> shape) {
    TinyModel tiny;
    tiny.tensor("token_embd.weight").shape = std::move(shape);
    return complaint(tiny);
  };
  for (const std::vector<uint64_t>& shape :
       std::vector<std::vector<uint64_t>>{{0, 5},
                                          {8, 0},
                                          {8},
                                          {},
                                          {8, 5, 2},
                                          {uint64_t{1} << 62, 4},
                                          {uint64_t{1} << 63, 1},
                                          {~uint64_t{0}, ~uint64_t{0}}}) {
    EXPECT_THAT(shaped(shape), StartsWith("token_embd.weight: ")) << testing::PrintToString(shape);
  }
}

TEST(CheckWeights, TypesThatCannotBeComputedAreNamed) {
  TinyModel tiny;
  tiny.tensor("blk.2.attn_v.weight").type = DType::F16;
  EXPECT_EQ(complaint(tiny), "blk.2.attn_v.weight: the decoder cannot compute with type F16");
  TinyModel norm;
  norm.tensor("blk.0.ssm_a").type = DType::BF16;
  EXPECT_EQ(complaint(norm), "blk.0.ssm_a: has type BF16, needs F32");
}

TEST(CheckWeights, ConvolutionMayHaveMoreTapsButNotFewer) {
  TinyModel five;
  auto& conv = five.tensor("blk.0.ssm_conv1d.weight");
  conv.shape = {5, 8192};
  conv.data.resize(size_t{5} * 8192 * 4);
  EXPECT_EQ(complaint(five), "");
  conv.data.resize(conv.data.size() - 4);
  EXPECT_EQ(complaint(five), "") << "the fifth tap of the last channel is never read";
  conv.data.resize(conv.data.size() - 4);
  EXPECT_THAT(complaint(five), StartsWith("blk.0.ssm_conv1d.weight: has "));
  TinyModel three;
  three.tensor("blk.0.ssm_conv1d.weight").shape = {3, 8192};
  EXPECT_EQ(complaint(three), "blk.0.ssm_conv1d.weight: has 3 taps a channel, needs 4");
}

TEST(CheckWeights, SmallTensorsAreMeasuredByTheirBytesAlone) {
  TinyModel tiny;
  tiny.tensor("blk.0.attn_norm.weight").shape = {2, 2, 2};
  tiny.tensor("blk.0.ssm_a").shape = {};
  tiny.tensor("output_norm.weight").data.resize(4096);
  EXPECT_EQ(complaint(tiny), "");
}

TEST(CheckWeights, QueryBiasNeedsTheOtherTwo) {
  TinyModel tiny;
  tiny.tensors()["blk.9.attn_q.bias"] = {DType::F32, {8192}, Bytes(8192 * 4)};
  EXPECT_THAT(complaint(tiny), StartsWith("blk.9.attn_q.bias: comes without"));
  tiny.tensors()["blk.9.attn_k.bias"] = {DType::F32, {1024}, Bytes(1024 * 4)};
  tiny.tensors()["blk.9.attn_v.bias"] = {DType::F32, {1024}, Bytes(1024 * 4)};
  EXPECT_EQ(complaint(tiny), "");
  tiny.tensor("blk.9.attn_v.bias").data.pop_back();
  EXPECT_THAT(complaint(tiny), StartsWith("blk.9.attn_v.bias: has 4095 bytes"));
}

TEST(CheckWeights, AnOutputHeadOfItsOwnIsNotLeftOut) {
  TinyModel tiny;
  tiny.tensors()["output.weight"] = tiny.tensor("token_embd.weight");
  EXPECT_EQ(complaint(tiny),
            "output.weight: is an output head of its own, but this decoder computes with "
            "token_embd.weight in its place; use the engine, or a model without one");
}

TEST(CheckWeights, BlocksBeyondTheLastAreNotLeftOut) {
  TinyModel tiny;
  tiny.tensors()["blk.32.attn_norm.weight"] = tiny.tensor("blk.31.attn_norm.weight");
  EXPECT_EQ(complaint(tiny),
            "blk.32.attn_norm.weight: is of block 32, but this decoder computes blocks 0 to 31 "
            "only; use the engine, or a model of 32 blocks");
  tiny.tensors()["blk.32.nextn.eh_proj.weight"] = tiny.tensor("blk.31.attn_norm.weight");
  EXPECT_EQ(complaint(tiny), "") << "that block predicts further tokens";
}

TEST(CheckWeights, WidthsThatAreNoWholeBlocksAskForWhatWideningReads) {
  zemtest::TinyModelOptions options;
  options.width = 256;
  options.feedForward = 300;  // rows of ffn_down start every 144 bytes and take two blocks
  TinyModel tiny(options);
  auto& down = tiny.tensor("blk.3.ffn_down.weight");
  down.type = DType::Q4_K;
  down.data.assign(255 * 144 + 2 * 144, 0);
  EXPECT_EQ(complaint(tiny), "");
  down.data.pop_back();
  EXPECT_EQ(complaint(tiny), "blk.3.ffn_down.weight: has 37007 bytes, needs 37008");
}

}  // namespace
}  // namespace qwen35
