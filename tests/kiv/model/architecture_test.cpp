// SPDX-License-Identifier: Apache-2.0
#include "kiv/model/architecture.h"

#include <gmock/gmock.h>

#include <map>
#include <set>

#include "kiv/zem2_reader.h"
#include "kiv/zem2_writer.h"
#include "support/temp_folder.h"

namespace kiv {
namespace {

using ::testing::ElementsAre;

Architecture sizes(uint32_t layers, uint64_t width, uint64_t feedForward) {
  Architecture architecture;
  architecture.layers = layers;
  architecture.width = width;
  architecture.feedForward = feedForward;
  architecture.vocabulary = 248320;
  return architecture;
}

std::map<std::string, ArchitectureTensor> byName(const Architecture& architecture) {
  std::map<std::string, ArchitectureTensor> all;
  for (ArchitectureTensor& tensor : tensorsOf(architecture)) {
    const std::string name = tensor.name;
    EXPECT_TRUE(all.emplace(name, std::move(tensor)).second) << name;
  }
  return all;
}

TEST(ArchitectureTest, EveryFourthLayerHasFullAttention) {
  const Architecture architecture = sizes(32, 2560, 9216);
  std::set<uint32_t> full;
  for (uint32_t i = 0; i < 32; ++i) {
    if (architecture.isFull(i)) full.insert(i);
  }
  EXPECT_THAT(full, ElementsAre(3, 7, 11, 15, 19, 23, 27, 31));
}

TEST(ArchitectureTest, TensorsHaveTheShapesOfFourBillionWeights) {
  const auto tensors = byName(sizes(32, 2560, 9216));
  EXPECT_EQ(tensors.size(), 24U * 14 + 8 * (11 + 3) + 2);
  EXPECT_THAT(tensors.at("token_embd.weight").shape, ElementsAre(2560, 248320));
  EXPECT_THAT(tensors.at("output_norm.weight").shape, ElementsAre(2560));
  EXPECT_THAT(tensors.at("blk.0.attn_qkv.weight").shape, ElementsAre(2560, 8192));
  EXPECT_THAT(tensors.at("blk.0.ssm_conv1d.weight").shape, ElementsAre(4, 8192));
  EXPECT_THAT(tensors.at("blk.30.ssm_out.weight").shape, ElementsAre(4096, 2560));
  EXPECT_THAT(tensors.at("blk.31.attn_q.weight").shape, ElementsAre(2560, 8192));
  EXPECT_THAT(tensors.at("blk.31.attn_k.weight").shape, ElementsAre(2560, 1024));
  EXPECT_THAT(tensors.at("blk.31.ffn_down.weight").shape, ElementsAre(9216, 2560));
  EXPECT_EQ(tensors.count("blk.31.ssm_out.weight"), 0U);
  EXPECT_EQ(tensors.count("blk.30.attn_q.weight"), 0U);
  EXPECT_EQ(tensors.count("output.weight"), 0U);
}

TEST(ArchitectureTest, OtherSizesOfTheFamilyAreValuesOfIt) {
  Architecture smallest = sizes(24, 1024, 3584);
  smallest.heads = 8;
  smallest.kvHeads = 2;
  smallest.valueHeads = 16;
  const auto small = byName(smallest);
  EXPECT_THAT(small.at("blk.0.attn_qkv.weight").shape, ElementsAre(1024, 6144));
  EXPECT_THAT(small.at("blk.23.attn_q.weight").shape, ElementsAre(1024, 4096));
  EXPECT_THAT(small.at("blk.23.attn_v.weight").shape, ElementsAre(1024, 512));

  Architecture largest = sizes(64, 5120, 17408);
  largest.heads = 24;
  largest.valueHeads = 48;
  largest.ownHead = true;
  const auto large = byName(largest);
  EXPECT_THAT(large.at("blk.0.attn_qkv.weight").shape, ElementsAre(5120, 10240));
  EXPECT_THAT(large.at("blk.62.ssm_a").shape, ElementsAre(48));
  EXPECT_THAT(large.at("blk.63.attn_q.weight").shape, ElementsAre(5120, 12288));
  EXPECT_THAT(large.at("output.weight").shape, ElementsAre(5120, 248320));
}

TEST(ArchitectureTest, ATensorKnowsItsRoleAndItsLayer) {
  for (const ArchitectureTensor& tensor : tensorsOf(sizes(8, 256, 512))) {
    EXPECT_EQ(tensorName(tensor.role, tensor.layer), tensor.name);
    EXPECT_EQ(isOfLayer(tensor.role), tensor.name.starts_with("blk.")) << tensor.name;
    EXPECT_EQ(tensor.optional,
              tensor.name.ends_with(".bias") && tensor.name.find("attn_") != std::string::npos)
        << tensor.name;
    const bool twoExtents = tensor.shape.size() == 2 && tensor.role != TensorRole::Convolution;
    EXPECT_EQ(tensor.matrix, twoExtents) << tensor.name;
  }
}

std::vector<std::string> keysOf(const Architecture& architecture) {
  const zemtest::TempFolder folder;
  ZEM2Writer writer;
  addMetadata(architecture, writer);
  EXPECT_TRUE(writer.begin(folder.path("m.zem")).ok());
  EXPECT_TRUE(writer.finish().ok());
  ZEM2Reader reader;
  EXPECT_TRUE(reader.open(folder.path("m.zem").c_str()).ok());
  std::vector<std::string> keys;
  for (size_t i = 0; i < reader.metaCount(); ++i) {
    ZEM2Reader::MetaEntryView entry;
    reader.metaAt(i, entry);
    const double value = entry.type == static_cast<uint16_t>(zem2::MetaType::F32)
                             ? static_cast<double>(entry.f32)
                             : entry.u32;
    keys.push_back(entry.key + "=" + std::to_string(value));
  }
  return keys;
}

TEST(ArchitectureTest, MetadataStatesEverySize) {
  Architecture architecture = sizes(32, 2560, 9216);
  architecture.contextLength = 8192;
  EXPECT_THAT(
      keysOf(architecture),
      ElementsAre(
          "qwen35.block_count=32.000000", "qwen35.context_length=8192.000000",
          "qwen35.embedding_length=2560.000000", "qwen35.feed_forward_length=9216.000000",
          "qwen35.vocabulary_size=248320.000000", "qwen35.full_attention_interval=4.000000",
          "qwen35.attention.head_count=16.000000", "qwen35.attention.head_count_kv=4.000000",
          "qwen35.attention.head_size=256.000000", "qwen35.attention.rotary_size=64.000000",
          "qwen35.linear.key_head_count=16.000000", "qwen35.linear.value_head_count=32.000000",
          "qwen35.linear.head_size=128.000000", "qwen35.linear.convolution_taps=4.000000",
          "qwen35.attention.rotary_base=10000000.000000", "qwen35.norm_epsilon=0.000001"));
}

TEST(ArchitectureTest, AnUnknownContextLengthIsNotStated) {
  EXPECT_EQ(keysOf(sizes(32, 2560, 9216)).size(), 15U);
}

}  // namespace
}  // namespace kiv
