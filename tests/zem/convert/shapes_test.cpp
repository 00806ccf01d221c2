// SPDX-License-Identifier: Apache-2.0
// Models of other sizes than those of 32 layers, through the converter and the engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "console/terminal.h"
#include "convert/conversion.h"
#include "engine/model/decoder.h"
#include "engine/model/weights.h"
#include "kiv/zem_loader.h"
#include "matmul/thread_team.h"
#include "support/golden_checkpoint.h"
#include "support/published_model.h"
#include "support/temp_folder.h"

namespace zemtool {
namespace {

namespace fs = std::filesystem;

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zemtest::Bytes;
using zemtest::CheckpointBuilder;
using zemtest::CheckpointOptions;
using zemtest::GgufBuilder;

using Floats = std::vector<float>;

Bytes publishedBytes(const Floats& values) {
  Bytes bytes(values.size() * sizeof(float));
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

// Eight layers, an output head of its own, three value heads a key head.
kiv::Architecture smallShape() {
  kiv::Architecture a;
  a.layers = 8;
  a.heads = 6;
  a.kvHeads = 2;
  a.headSize = 32;
  a.rotarySize = 8;
  a.keyHeads = 2;
  a.valueHeads = 6;
  a.stateSize = 12;
  a.ownHead = true;
  return a;
}

CheckpointOptions smallOptions() {
  CheckpointOptions options;
  options.width = 40;
  options.feedForward = 56;
  options.shape = smallShape();
  return options;
}

// Each tensor's elements follow from its name.
void fillTensors(CheckpointBuilder& checkpoint, const std::string& tag = "small") {
  for (auto& [name, tensor] : checkpoint.tensors()) {
    tensor.data = publishedBytes(zemtest::goldenTensor(tag, name, tensor.shape));
  }
}

// A GGUF file of the small shape.
GgufBuilder smallGguf() {
  kiv::Architecture shape = smallShape();
  GgufBuilder gguf = zemtest::supportedGguf(40, 56, shape);
  shape.width = 40;
  shape.feedForward = 56;
  shape.vocabulary = 274;
  for (const kiv::ArchitectureTensor& tensor : kiv::tensorsOf(shape)) {
    if (tensor.optional) continue;
    const std::vector<uint64_t> outermostFirst(tensor.shape.rbegin(), tensor.shape.rend());
    gguf.addTensor(tensor.name, zemtest::gguf::kF32, tensor.shape,
                   publishedBytes(zemtest::goldenTensor("gguf", tensor.name, outermostFirst)));
  }
  return gguf;
}

class ShapesTest : public testing::Test {
 protected:
  ConversionReport convert(const std::string& input, WeightMix mix = WeightMix::F32) {
    ConversionOptions options;
    options.input = folder_.path(input);
    options.output = folder_.path("out.zem");
    options.mix = mix;
    options.threads = 2;
    options.force = true;
    return convertModel(options);
  }
  ConversionReport convert(const CheckpointBuilder& checkpoint, WeightMix mix = WeightMix::F32) {
    fs::create_directory(folder_.path("in"));
    checkpoint.write(folder_.path("in"));
    return convert("in", mix);
  }
  ConversionReport convert(const GgufBuilder& gguf, WeightMix mix = WeightMix::F32) {
    folder_.write("m.gguf", gguf.build());
    return convert("m.gguf", mix);
  }

  template <typename Model>
  std::string refusal(const Model& model) {
    try {
      convert(model);
    } catch (const Failure& failure) {
      EXPECT_FALSE(fs::exists(folder_.path("out.zem")));
      return failure.what();
    }
    return "";
  }

  std::unique_ptr<zem::Weights> open() {
    std::unique_ptr<zem::Weights> weights;
    const kiv::Status status = zem::Weights::open(folder_.path("out.zem"), weights);
    EXPECT_EQ(status.message(), "");
    return weights;
  }

  void expectSmallShape() {
    const std::unique_ptr<zem::Weights> weights = open();
    ASSERT_NE(weights, nullptr);
    const kiv::Architecture& found = weights->shape();
    const kiv::Architecture wanted = smallShape();
    EXPECT_EQ(found.layers, wanted.layers);
    EXPECT_EQ(found.width, 40U);
    EXPECT_EQ(found.feedForward, 56U);
    EXPECT_EQ(found.heads, wanted.heads);
    EXPECT_EQ(found.kvHeads, wanted.kvHeads);
    EXPECT_EQ(found.headSize, wanted.headSize);
    EXPECT_EQ(found.rotarySize, wanted.rotarySize);
    EXPECT_EQ(found.keyHeads, wanted.keyHeads);
    EXPECT_EQ(found.valueHeads, wanted.valueHeads);
    EXPECT_EQ(found.stateSize, wanted.stateSize);
    EXPECT_TRUE(found.ownHead);
  }

  Floats floats(const std::string& name) {
    kiv::ZEMLoader loader;
    EXPECT_EQ(loader.open(folder_.path("out.zem").c_str()).message(), "");
    const kiv::TensorView* view = loader.findTensor(name);
    EXPECT_NE(view, nullptr) << name;
    if (view == nullptr) return {};
    Floats values(view->size / sizeof(float));
    std::memcpy(values.data(), view->data, view->size);
    return values;
  }

  zemtest::TempFolder folder_;
};

TEST_F(ShapesTest, ACheckpointOfAnotherShapeIsTaken) {
  CheckpointBuilder checkpoint(smallOptions());
  fillTensors(checkpoint);
  const ConversionReport report = convert(checkpoint);
  EXPECT_THAT(report.leftOut.others, testing::IsEmpty());
  expectSmallShape();
  EXPECT_EQ(publishedBytes(floats("output.weight")),
            checkpoint.tensors().at("lm_head.weight").data);
}

TEST_F(ShapesTest, AGgufFileOfAnotherShapeIsTaken) {
  const GgufBuilder gguf = smallGguf();
  convert(gguf);
  expectSmallShape();
}

TEST_F(ShapesTest, ValueHeadsAreDealtOutOverTwoKeyHeads) {
  CheckpointBuilder checkpoint(smallOptions());
  for (const char* name : {"layers.0.linear_attn.dt_bias", "layers.4.linear_attn.dt_bias"}) {
    checkpoint.tensor(name).data = publishedBytes({0, 1, 2, 3, 4, 5});
  }
  convert(checkpoint);
  EXPECT_THAT(floats("blk.0.ssm_dt.bias"), ElementsAre(0, 3, 1, 4, 2, 5));
  EXPECT_THAT(floats("blk.4.ssm_dt.bias"), ElementsAre(0, 3, 1, 4, 2, 5));
}

TEST_F(ShapesTest, SizesThatAreNotStatedFollowFromTheTensors) {
  CheckpointBuilder checkpoint(smallOptions());
  fillTensors(checkpoint);
  checkpoint.config() = {{"model_type", "qwen3_5_text"}};
  convert(checkpoint);
  expectSmallShape();
  GgufBuilder gguf = smallGguf();
  for (const char* key :
       {"attention.head_count", "attention.head_count_kv", "attention.key_length",
        "attention.value_length", "rope.dimension_count", "ssm.state_size", "ssm.group_count",
        "ssm.time_step_rank", "ssm.inner_size", "full_attention_interval", "embedding_length"}) {
    gguf.erase(std::string("qwen35.") + key);
  }
  convert(gguf);
  expectSmallShape();
}

TEST_F(ShapesTest, TheIntervalFollowsFromTheTensorsOrTheLayerTypes) {
  CheckpointOptions options = smallOptions();
  options.shape.fullEvery = 2;
  CheckpointBuilder checkpoint(options);
  checkpoint.config()["text_config"].erase("full_attention_interval");
  convert(checkpoint);
  EXPECT_EQ(open()->fullLayers(), 4U);
  checkpoint.config()["text_config"].erase("layer_types");
  convert(checkpoint);
  EXPECT_EQ(open()->fullLayers(), 4U);
}

TEST_F(ShapesTest, TheHeadHasTheTypeOfTheEmbeddingInTheMixes) {
  CheckpointOptions options = smallOptions();
  options.width = 256;
  convert(CheckpointBuilder(options), WeightMix::Q4_K_M);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(folder_.path("out.zem").c_str()).ok());
  EXPECT_EQ(loader.findTensor("output.weight"), nullptr) << "it repeats the embedding";
  loader.close();
  CheckpointBuilder checkpoint(options);
  checkpoint.tensors().at("lm_head.weight").data = publishedBytes({1});
  convert(checkpoint, WeightMix::Q4_K_M);
  ASSERT_TRUE(loader.open(folder_.path("out.zem").c_str()).ok());
  EXPECT_EQ(loader.findTensor("output.weight")->dtype, kiv::DType::Q6_K);
  EXPECT_EQ(loader.findTensor("token_embd.weight")->dtype, kiv::DType::Q6_K);
  loader.close();
  convert(checkpoint, WeightMix::Q8_0);
  ASSERT_TRUE(loader.open(folder_.path("out.zem").c_str()).ok());
  EXPECT_EQ(loader.findTensor("output.weight")->dtype, kiv::DType::Q8_0);
}

TEST_F(ShapesTest, AHeadThatIsMissingOrMisshapenIsNamed) {
  CheckpointBuilder checkpoint(smallOptions());
  fillTensors(checkpoint);
  checkpoint.tensors().at("lm_head.weight").shape = {299, 40};
  EXPECT_EQ(refusal(checkpoint),
            "tensor 'lm_head.weight' has the shape [299, 40], needs [300, 40]");
  checkpoint.tensors().erase("lm_head.weight");
  EXPECT_EQ(refusal(checkpoint),
            folder_.path("in/config.json") +
                ": tie_word_embeddings is false, but the tensor 'lm_head.weight' is missing");
}

TEST_F(ShapesTest, LayersThatAreNotCountedAreNotLost) {
  CheckpointBuilder checkpoint(smallOptions());
  json& text = checkpoint.config()["text_config"];
  text["num_hidden_layers"] = 4;
  text.erase("layer_types");
  EXPECT_EQ(refusal(checkpoint), folder_.path("in/config.json") +
                                     ": text_config.num_hidden_layers is 4, the tensors have 8");
  GgufBuilder gguf = smallGguf();
  gguf.erase("qwen35.block_count");
  gguf.addU32("qwen35.block_count", 4);
  EXPECT_EQ(refusal(gguf),
            folder_.path("m.gguf") + ": qwen35.block_count is 4, the tensors have 8");
}

TEST_F(ShapesTest, APredictionLayerIsCountedWithoutItsKey) {
  GgufBuilder gguf = smallGguf();
  gguf.erase("qwen35.block_count");
  gguf.addU32("qwen35.block_count", 9);
  gguf.addTensor("blk.8.nextn.eh_proj.weight", zemtest::gguf::kF32, {2}, Bytes(8));
  gguf.addTensor("blk.8.attn_norm.weight", zemtest::gguf::kF32, {40}, Bytes(160));
  EXPECT_EQ(convert(gguf).leftOut.prediction, 2U);
  expectSmallShape();
}

TEST_F(ShapesTest, AHeadCountWithNoQuotientIsRefused) {
  CheckpointOptions options = smallOptions();
  options.shape.heads = 5;
  EXPECT_EQ(refusal(CheckpointBuilder(options)),
            folder_.path("in/config.json") +
                ": text_config.num_attention_heads is 5, needs a multiple of "
                "text_config.num_key_value_heads, which is 2");
  options = smallOptions();
  options.shape.valueHeads = 5;
  EXPECT_EQ(refusal(CheckpointBuilder(options)),
            folder_.path("in/config.json") +
                ": text_config.linear_num_value_heads is 5, needs a multiple of "
                "text_config.linear_num_key_heads, which is 2");
  options = smallOptions();
  options.shape.headSize = 40;
  options.shape.rotarySize = 10;
  EXPECT_EQ(
      refusal(CheckpointBuilder(options)),
      folder_.path("in/config.json") + ": text_config.head_dim is 40, needs a multiple of 32");
}

TEST_F(ShapesTest, AFolderWithVisionTensorsOnlyIsRefused) {
  CheckpointBuilder checkpoint(smallOptions());
  checkpoint.tensors().clear();
  checkpoint.tensors()["model.visual.merger.norm.weight"] = {"F32", {2}, {}};
  EXPECT_THAT(refusal(checkpoint),
              HasSubstr(": has vision tensors only, needs those of the language model"));
}

// ---- The models of the golden formula ----

// Ids below 126 are bytes, the last four are added tokens.
void shrinkVocabulary(json& tokenizer) {
  json vocab = json::object();
  for (const auto& [text, id] : tokenizer["model"]["vocab"].items()) {
    if (id < 126) vocab[text] = id;
  }
  tokenizer["model"]["vocab"] = vocab;
  for (json& token : tokenizer["added_tokens"]) token["id"] = token["id"].get<int>() - 144;
}

CheckpointBuilder goldenCheckpoint(const std::string& tag, const kiv::Architecture& shape) {
  CheckpointOptions options;
  options.width = 128;
  options.feedForward = 256;
  options.vocabulary = 130;
  options.shape = shape;
  CheckpointBuilder checkpoint(options);
  fillTensors(checkpoint, tag);
  shrinkVocabulary(checkpoint.tokenizer());
  return checkpoint;
}

kiv::Architecture shapeD() {
  kiv::Architecture a;
  a.layers = 24;
  a.heads = 8;
  a.kvHeads = 2;
  a.valueHeads = 16;
  return a;
}

TEST_F(ShapesTest, ModelOf24LayersGivesTheReferencesLogits) {
  std::ifstream file(ZEM_TEST_DATA "/qwen35_tiny_d.json");
  const json golden = json::parse(file);
  CheckpointBuilder checkpoint = goldenCheckpoint("d", shapeD());
  ASSERT_EQ(checkpoint.tensors().size(), golden["tensors"].size());
  for (const auto& [name, shape] : golden["tensors"].items()) {
    ASSERT_EQ(json(checkpoint.tensors().at(name).shape), shape) << name;
  }
  convert(checkpoint);
  const std::unique_ptr<zem::Weights> weights = open();
  ASSERT_NE(weights, nullptr);
  qwen35::ThreadTeam team(2);
  const qwen35::UseTeam use(team);
  zem::Decoder decoder(*weights, zem::CacheType::F32);
  zem::SequenceState sequence = decoder.newSequence();
  const std::vector<uint32_t> ids = golden["ids"];
  const zem::Chunk chunk{&sequence, ids, zem::LogitsOf::All};
  Floats logits;
  decoder.step({&chunk, 1}, logits);
  double worst = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    for (size_t v = 0; v < 130; ++v) {
      const double wanted = golden["logits"][i][v];
      worst = std::max(worst, std::abs(static_cast<double>(logits[i * 130 + v]) - wanted));
    }
  }
  EXPECT_LE(worst, 2.7e-4);  // as of the same weights in a container made by hand
}

TEST_F(ShapesTest, ThreeValueHeadsAKeyHeadAreInTheContainersLayout) {
  kiv::Architecture shape = shapeD();
  shape.layers = 4;
  shape.valueHeads = 48;
  shape.ownHead = true;
  CheckpointBuilder checkpoint = goldenCheckpoint("e", shape);
  convert(checkpoint);
  for (const auto& [name, tensor] : checkpoint.tensors()) {
    std::vector<uint64_t> extents = tensor.shape;
    Floats wanted = zemtest::goldenTensor("e", name, extents);
    zemtest::toContainerLayout(name, wanted, extents, 48);
    const Floats found = floats(zemtest::goldenContainerName(name));
    if (name.ends_with("A_log")) {  // the C library's exp may differ in the last bit
      EXPECT_THAT(found, testing::Pointwise(testing::FloatEq(), wanted)) << name;
    } else {
      EXPECT_TRUE(found == wanted) << name;
    }
  }
  EXPECT_NE(open(), nullptr);
}

}  // namespace
}  // namespace zemtool
