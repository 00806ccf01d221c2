// SPDX-License-Identifier: Apache-2.0
#include "engine/model/shape.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "engine/model/shaped_model.h"
#include "support/container_builder.h"
#include "support/tiny_model.h"

namespace zem {
namespace {

using zemtest::ContainerBuilder;
using zemtest::smallArchitecture;
using zemtest::TempFile;

// A container whose tensors are those of `tensors` and whose metadata is that of `stated`.
struct Stated {
  kiv::Architecture tensors = smallArchitecture();
  kiv::Architecture stated = smallArchitecture();
  std::vector<std::string> without;  // tensors
  bool metadata = true;
};

zemtest::Bytes containerOf(const Stated& model) {
  ContainerBuilder builder;
  builder.tokenizer(zemtest::tinyTokenizer()).addMetaStr("general.architecture", "qwen35");
  const kiv::Architecture& a = model.stated;
  const std::vector<std::pair<const char*, uint64_t>> values = {
      {"block_count", a.layers},
      {"embedding_length", a.width},
      {"feed_forward_length", a.feedForward},
      {"vocabulary_size", a.vocabulary},
      {"full_attention_interval", a.fullEvery},
      {"attention.head_count", a.heads},
      {"attention.head_count_kv", a.kvHeads},
      {"attention.head_size", a.headSize},
      {"attention.rotary_size", a.rotarySize},
      {"linear.key_head_count", a.keyHeads},
      {"linear.value_head_count", a.valueHeads},
      {"linear.head_size", a.stateSize},
      {"linear.convolution_taps", a.taps}};
  for (const auto& [key, value] : values) {
    if (model.metadata) {
      builder.addMetaU32("qwen35." + std::string(key), static_cast<uint32_t>(value));
    }
  }
  builder.addMetaF32("qwen35.attention.rotary_base", static_cast<float>(a.rotaryBase));
  builder.addMetaF32("qwen35.norm_epsilon", static_cast<float>(a.normEpsilon));
  for (const kiv::ArchitectureTensor& tensor : kiv::tensorsOf(model.tensors)) {
    if (std::ranges::find(model.without, tensor.name) != model.without.end()) continue;
    uint64_t count = 1;
    for (const uint64_t extent : tensor.shape) count *= extent;
    builder.addTensor(tensor.name, kiv::DType::F32, tensor.shape,
                      zemtest::Bytes(count * sizeof(float)));
  }
  return builder.build();
}

// The message of opening it, empty when it opens.
std::string messageOf(const Stated& model) {
  const TempFile file(containerOf(model));
  std::unique_ptr<Weights> weights;
  return Weights::open(file.string(), weights).message();
}

std::string messageWith(const std::function<void(kiv::Architecture&)>& change) {
  Stated model;
  change(model.stated);
  return messageOf(model);
}

TEST(EngineShape, StatedSizesAreRead) {
  Stated model;
  model.tensors.ownHead = true;
  const TempFile file(containerOf(model));
  const auto weights = zemtest::openWeights(file);
  ASSERT_NE(weights, nullptr);
  const Shape& shape = weights->shape();
  EXPECT_EQ(shape.layers, 8U);
  EXPECT_EQ(shape.width, 40U);
  EXPECT_EQ(shape.heads, 6U);
  EXPECT_EQ(shape.valueHeads, 6U);
  EXPECT_TRUE(shape.ownHead);
  EXPECT_EQ(shape.kinds, std::vector<bool>({false, false, false, true, false, false, false, true}));
  EXPECT_EQ(weights->layers()[7].kindIndex, 1U);
  EXPECT_EQ(weights->layers()[4].kindIndex, 3U);
}

TEST(EngineShape, SizesThatAreNotStatedAreThoseOf32Layers) {
  const zemtest::TinyModel tiny;
  const TempFile file(tiny.build());
  const auto weights = zemtest::openWeights(file);
  ASSERT_NE(weights, nullptr);
  EXPECT_EQ(weights->shape().layers, 32U);
  EXPECT_EQ(weights->shape().heads, 16U);
  EXPECT_EQ(weights->shape().width, 8U);
}

TEST(EngineShape, WithoutMetadataOtherExtentsAreRefused) {
  Stated model;
  model.metadata = false;
  EXPECT_EQ(messageOf(model),
            "blk.0.attn_qkv.weight: has 40 x 120 weights, needs 40 x 8192; "
            "qwen35.linear.value_head_count is 32");
}

TEST(EngineShape, SizesThatDoNotFitTheTensorsNameKeyAndTensor) {
  EXPECT_EQ(messageWith([](auto& a) { a.heads = 8; }),
            "blk.3.attn_q.weight: has 40 x 384 weights, needs 40 x 512; "
            "qwen35.attention.head_count is 8");
  EXPECT_EQ(messageWith([](auto& a) { a.width = 44; }),
            "token_embd.weight: has 40 x 106 weights, needs 44 x 106; "
            "qwen35.embedding_length is 44");
  EXPECT_EQ(messageWith([](auto& a) { a.feedForward = 57; }),
            "blk.0.ffn_gate.weight: has 40 x 56 weights, needs 40 x 57; "
            "qwen35.feed_forward_length is 57");
  EXPECT_EQ(messageWith([](auto& a) { a.vocabulary = 7; }),
            "token_embd.weight: has 40 x 106 weights, needs 40 x 7; "
            "qwen35.vocabulary_size is 7");
  EXPECT_EQ(messageWith([](auto& a) { a.valueHeads = 4; }),
            "blk.0.attn_qkv.weight: has 40 x 120 weights, needs 40 x 96; "
            "qwen35.linear.value_head_count is 4");
  EXPECT_EQ(messageWith([](auto& a) { a.layers = 9; }),
            "qwen35.full_attention_interval is 4, but layer 8 has the tensors of full attention");
}

TEST(EngineShape, SizesThatTheKernelsCannotComputeAreRefused) {
  EXPECT_EQ(messageWith([](auto& a) { a.taps = 5; }),
            "qwen35.linear.convolution_taps is 5.000000, needs 4.000000");
  EXPECT_EQ(messageWith([](auto& a) { a.rotaryBase = 1e6; }),
            "qwen35.attention.rotary_base is 1000000.000000, needs 10000000.000000");
  EXPECT_EQ(messageWith([](auto& a) { a.kvHeads = 4; }),
            "qwen35.attention.head_count is 6, needs a multiple of "
            "qwen35.attention.head_count_kv, which is 4");
  EXPECT_EQ(messageWith([](auto& a) { a.keyHeads = 4; }),
            "qwen35.linear.value_head_count is 6, needs a multiple of "
            "qwen35.linear.key_head_count, which is 4");
  EXPECT_EQ(messageWith([](auto& a) { a.rotarySize = 33; }),
            "qwen35.attention.rotary_size is 33, needs 2 to 32");
  EXPECT_EQ(messageWith([](auto& a) { a.rotarySize = 7; }),
            "qwen35.attention.rotary_size is 7, needs an even number");
  EXPECT_EQ(messageWith([](auto& a) { a.headSize = 48; }),
            "qwen35.attention.head_size is 48, needs a multiple of 32");
  EXPECT_EQ(messageWith([](auto& a) { a.layers = 0; }), "qwen35.block_count is 0, needs 1 to 1024");
  EXPECT_EQ(messageWith([](auto& a) { a.layers = 4000000000; }),
            "qwen35.block_count is 4000000000, needs 1 to 1024");
  EXPECT_EQ(messageWith([](auto& a) { a.heads = 0; }),
            "qwen35.attention.head_count is 0, needs 1 to 4096");
}

TEST(EngineShape, MissingTensorsAreNamed) {
  for (const char* name : {"token_embd.weight", "output_norm.weight", "blk.0.ffn_gate.weight",
                           "blk.3.attn_k.weight", "blk.5.ssm_a"}) {
    Stated model;
    model.without = {name};
    EXPECT_EQ(messageOf(model), std::string(name) + ": the file has no such tensor");
  }
}

TEST(EngineShape, BiasesComeAllThreeOrNone) {
  Stated model;
  EXPECT_EQ(messageOf(model), "");
  model.without = {"blk.3.attn_k.bias"};
  EXPECT_EQ(
      messageOf(model),
      "layer 3 has some of attn_q.bias, attn_k.bias and attn_v.bias, needs all three or none");
  model.without = {"blk.3.attn_k.bias", "blk.3.attn_q.bias", "blk.3.attn_v.bias"};
  EXPECT_EQ(messageOf(model), "");
}

TEST(EngineShape, OtherArchitecturesAreRefused) {
  zemtest::TinyModelOptions options;
  options.architecture = "other";
  const TempFile file(zemtest::TinyModel(options).build());
  std::unique_ptr<Weights> weights;
  EXPECT_EQ(Weights::open(file.string(), weights).message(),
            "general.architecture is \"other\", needs \"qwen35\"");
  EXPECT_EQ(weights, nullptr);
}

}  // namespace
}  // namespace zem
