// SPDX-License-Identifier: Apache-2.0
// Checkpoint folders that the converter takes, and those that it refuses before
// anything is written. The weights are zeros that take no room.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>

#include "console/terminal.h"
#include "convert/conversion.h"
#include "kiv/quant.h"
#include "kiv/zem_loader.h"
#include "support/published_model.h"
#include "support/temp_folder.h"

namespace zemtool {
namespace {

namespace fs = std::filesystem;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zemtest::CheckpointBuilder;
using zemtest::CheckpointOptions;

class CheckpointTest : public testing::Test {
 protected:
  CheckpointTest() { fs::create_directory(folder_.path("in")); }

  ConversionReport convert(WeightMix mix = WeightMix::F32) {
    ConversionOptions options;
    options.input = folder_.path("in");
    options.output = folder_.path("out.zem");
    options.mix = mix;
    options.threads = 2;
    options.force = true;
    options.generator = "test 1";
    return convertModel(options);
  }

  ConversionReport convert(const CheckpointBuilder& checkpoint, size_t shards = 1) {
    checkpoint.write(folder_.path("in"), shards);
    return convert();
  }

  std::string refusal() {
    try {
      convert();
    } catch (const Failure& failure) {
      EXPECT_THAT(folder_.names(), ElementsAre("in"));  // nothing was written
      return failure.what();
    }
    return "";
  }
  std::string refusal(const CheckpointBuilder& checkpoint, size_t shards = 1) {
    checkpoint.write(folder_.path("in"), shards);
    return refusal();
  }

  void open() { ASSERT_EQ(loader_.open(folder_.path("out.zem").c_str()).message(), ""); }

  std::vector<float> floats(const std::string& name) {
    const kiv::TensorView* view = loader_.findTensor(name);
    EXPECT_NE(view, nullptr) << name;
    if (view == nullptr) return {};
    EXPECT_GT(view->size, 0U) << name;
    std::vector<float> values(view->size / sizeof(float));
    std::memcpy(values.data(), view->data, view->size);
    return values;
  }

  // Converts it with an embedding that begins with 1, 2, 3, and looks for all of it.
  void expectWhole(CheckpointBuilder& checkpoint) {
    zemtest::Bytes& embedding = checkpoint.tensor("embed_tokens.weight").data;
    embedding.clear();
    for (const float value : {1.0F, 2.0F, 3.0F}) zemtest::putF32(embedding, value);
    const ConversionReport report = convert(checkpoint);
    EXPECT_EQ(report.architecture.width, 8U);
    EXPECT_EQ(report.architecture.feedForward, 12U);
    EXPECT_EQ(report.architecture.vocabulary, 300U);
    EXPECT_EQ(report.weights.types.at("F32").tensors, 24U * 14 + 8 * 11 + 2);
    EXPECT_THAT(report.leftOut.others, IsEmpty());
    open();
    const std::vector<float> stored = floats("token_embd.weight");
    ASSERT_EQ(stored.size(), 8U * 300);
    EXPECT_THAT(std::vector<float>(stored.begin(), stored.begin() + 4), ElementsAre(1, 2, 3, 0));
    loader_.close();
  }

  std::string in(const std::string& name) const { return folder_.path("in/" + name); }

  zemtest::TempFolder folder_;
  kiv::ZEMLoader loader_;
};

TEST_F(CheckpointTest, AWholeModelBecomesAContainer) {
  convert(CheckpointBuilder());
  open();
  EXPECT_EQ(loader_.tensorCount(), 24U * 14 + 8 * 11 + 2);
  EXPECT_EQ(loader_.modelInfo().hiddenSize, 8U);
  EXPECT_EQ(loader_.modelInfo().layerCount, 32U);
  EXPECT_EQ(loader_.modelInfo().vocabSize, 300U);
  EXPECT_EQ(loader_.tokenizer().tokens.size(), 300U);
  for (size_t i = 0; i < loader_.tensorCount(); ++i) {
    const kiv::TensorView& view = loader_.tensorView(i);
    EXPECT_TRUE(loader_.holdsBytes(view, view.size)) << view.name;
  }
  EXPECT_THAT(floats("output_norm.weight"), testing::Each(1.0F));  // 0 + 1
  EXPECT_THAT(floats("blk.0.ssm_norm.weight"), testing::Each(0.0F));
  EXPECT_THAT(floats("blk.0.ssm_a"), testing::Each(-1.0F));  // -exp(0)
}

TEST_F(CheckpointTest, BothWrappersAndPrefixesAreRead) {
  CheckpointOptions options;
  options.prefix = "model.";
  CheckpointBuilder text(options);
  text.config() = text.config()["text_config"];
  expectWhole(text);
  text.config()["model_type"] = "qwen3_5";
  expectWhole(text);
  CheckpointBuilder wrapped;
  wrapped.config()["text_config"].erase("model_type");
  expectWhole(wrapped);
  wrapped.config()["text_config"]["model_type"] = "qwen3_5_text";
  wrapped.config().erase("model_type");
  expectWhole(wrapped);
}

TEST_F(CheckpointTest, ShardsAreReadThroughTheirIndex) {
  const ConversionReport report = convert(CheckpointBuilder(), 5);
  EXPECT_EQ(report.files.size(), 5U);
  EXPECT_EQ(report.files[4], "model-00005-of-00005.safetensors");
}

TEST_F(CheckpointTest, VisionAndPredictionTensorsAreLeftOutAndCounted) {
  CheckpointBuilder checkpoint;
  checkpoint.tensors()["model.visual.patch_embed.proj.weight"] = {"BF16", {2, 3, 2, 4, 4}, {}};
  checkpoint.tensors()["visual.merger.norm.weight"] = {"U8", {2}, {}};
  checkpoint.tensors()["mtp.layers.0.mlp.gate_proj.weight"] = {"F8_E4M3", {2, 2}, {}};
  checkpoint.tensors()["model.language_model.rotary.inv_freq"] = {"F32", {2}, {}};
  const ConversionReport report = convert(checkpoint);
  EXPECT_EQ(report.leftOut.vision, 2U);
  EXPECT_EQ(report.leftOut.prediction, 1U);
  EXPECT_THAT(report.leftOut.others, ElementsAre("model.language_model.rotary.inv_freq"));
}

TEST_F(CheckpointTest, AHeadThatRepeatsTheEmbeddingIsLeftOut) {
  CheckpointBuilder checkpoint;
  checkpoint.tensors()["lm_head.weight"] = checkpoint.tensor("embed_tokens.weight");
  EXPECT_EQ(convert(checkpoint).leftOut.repeated, 1U);
  checkpoint.tensors()["lm_head.weight"].data.assign(8, 1);
  fs::remove(folder_.path("out.zem"));
  EXPECT_EQ(
      refusal(checkpoint),
      "tensor 'lm_head.weight' differs from 'model.language_model.embed_tokens.weight', but " +
          in("config.json") + ": tie_word_embeddings is true");
}

TEST_F(CheckpointTest, HalfPrecisionSourcesAreWidened) {
  for (const std::string type : {"F16", "BF16"}) {
    CheckpointOptions options;
    options.type = type;
    CheckpointBuilder checkpoint(options);
    zemtest::Bytes half;
    zemtest::putU16(half, type == "F16" ? kiv::quant::f32ToF16(0.5F) : 0x3F00);
    checkpoint.tensor("norm.weight").data = half;
    convert(checkpoint);
    open();
    EXPECT_THAT(floats("output_norm.weight"), ElementsAre(1.5F, 1, 1, 1, 1, 1, 1, 1));
    loader_.close();
  }
}

TEST_F(CheckpointTest, BiasesOfFullAttentionTravelAlong) {
  CheckpointBuilder checkpoint;
  for (const auto& [name, size] :
       {std::pair{"q", 8192}, std::pair{"k", 1024}, std::pair{"v", 1024}}) {
    checkpoint
        .tensors()[checkpoint.named("layers.3.self_attn." + std::string(name) + "_proj.bias")] = {
        "F32", {static_cast<uint64_t>(size)}, {}};
  }
  convert(checkpoint);
  open();
  EXPECT_EQ(floats("blk.3.attn_q.bias").size(), 8192U);
  checkpoint.tensors().erase(checkpoint.named("layers.3.self_attn.k_proj.bias"));
  loader_.close();
  fs::remove(folder_.path("out.zem"));
  EXPECT_EQ(refusal(checkpoint), "tensor 'layers.3.self_attn.k_proj.bias' is missing");
}

TEST_F(CheckpointTest, FactsOfTheModelAreInTheMetadata) {
  CheckpointBuilder checkpoint;
  checkpoint.generationConfig() = {{"temperature", 0.6},
                                   {"top_k", 20},
                                   {"top_p", 0.95},
                                   {"presence_penalty", 0},
                                   {"eos_token_id", {272, 270}}};
  convert(checkpoint);
  open();
  std::string text;
  const auto str = [&](const char* key) {
    EXPECT_TRUE(loader_.getMetaStr(key, text)) << key;
    return text;
  };
  EXPECT_EQ(str("general.architecture"), "qwen35");
  EXPECT_EQ(str("general.name"), "in");
  EXPECT_EQ(str("general.generator"), "test 1");
  EXPECT_EQ(str("general.source.format"), "checkpoint");
  EXPECT_EQ(str("general.source.files"), "model.safetensors");
  EXPECT_EQ(str("general.quantisation"), "f32");
  uint32_t number = 0;
  EXPECT_TRUE(loader_.getMetaU32("qwen35.context_length", number));
  EXPECT_EQ(number, 262144U);
  EXPECT_TRUE(loader_.getMetaU32("qwen35.feed_forward_length", number));
  EXPECT_EQ(number, 12U);
  EXPECT_TRUE(loader_.getMetaU32("sampling.top_k", number));
  EXPECT_EQ(number, 20U);
  float real = 0;
  EXPECT_TRUE(loader_.getMetaF32("sampling.temperature", real));
  EXPECT_EQ(real, 0.6F);
  EXPECT_TRUE(loader_.getMetaF32("sampling.top_p", real));
  EXPECT_EQ(real, 0.95F);
  EXPECT_TRUE(loader_.getMetaF32("sampling.presence_penalty", real));
  EXPECT_EQ(real, 0.0F);
  const uint32_t* stop = nullptr;
  uint64_t count = 0;
  ASSERT_TRUE(loader_.getMetaU32Array("sampling.stop_ids", stop, count));
  EXPECT_THAT(std::vector<uint32_t>(stop, stop + count), ElementsAre(272U, 270U));
}

TEST_F(CheckpointTest, TheSourcesTokenizerTravelsUnchanged) {
  convert(CheckpointBuilder());
  open();
  std::string section;
  std::string name;
  uint64_t bytes = 0;
  EXPECT_TRUE(loader_.getMetaStr("tokenizer.source.section", section));
  EXPECT_EQ(section, "Asset");
  EXPECT_TRUE(loader_.getMetaStr("tokenizer.source.name", name));
  EXPECT_TRUE(loader_.getMetaU64("tokenizer.source.bytes", bytes));
  const kiv::ZEM2Reader& reader = loader_.reader();
  const auto* data = reader.sectionData(kiv::zem2::SectionType::Asset);
  EXPECT_EQ(std::string(data, data + bytes), folder_.read("in/" + name));
  EXPECT_EQ(bytes, reader.sectionSize(kiv::zem2::SectionType::Asset));
}

TEST_F(CheckpointTest, TypesFollowTheMixAndTheRows) {
  CheckpointOptions wide;
  wide.width = 256;
  wide.feedForward = 96;
  CheckpointBuilder(wide).write(folder_.path("in"));
  const auto typeOf = [&](const char* name) { return loader_.findTensor(name)->dtype; };
  const ConversionReport report = convert(WeightMix::Q4_K_M);
  open();
  EXPECT_EQ(typeOf("token_embd.weight"), kiv::DType::Q6_K);
  EXPECT_EQ(typeOf("blk.3.attn_v.weight"), kiv::DType::Q6_K);
  EXPECT_EQ(typeOf("blk.0.attn_qkv.weight"), kiv::DType::Q4_K);
  EXPECT_EQ(typeOf("blk.0.ssm_alpha.weight"), kiv::DType::Q8_0);
  EXPECT_EQ(typeOf("blk.0.ssm_beta.weight"), kiv::DType::Q8_0);
  EXPECT_EQ(typeOf("blk.0.ssm_conv1d.weight"), kiv::DType::F32);
  EXPECT_EQ(typeOf("blk.0.ffn_down.weight"), kiv::DType::Q8_0);  // rows of 96
  ASSERT_EQ(report.fallbacks.size(), 32U);
  EXPECT_EQ(report.fallbacks[0].name, "blk.0.ffn_down.weight");
  EXPECT_EQ(report.fallbacks[0].wanted, kiv::DType::Q6_K);
  EXPECT_EQ(report.fallbacks[0].type, kiv::DType::Q8_0);
  EXPECT_EQ(report.fallbacks[0].reason, "its rows of 96 weights are not whole blocks of 256");
  loader_.close();
  convert(WeightMix::Q5_K_M);
  open();
  EXPECT_EQ(typeOf("blk.0.attn_qkv.weight"), kiv::DType::Q5_K);
  EXPECT_EQ(typeOf("token_embd.weight"), kiv::DType::Q6_K);
}

TEST_F(CheckpointTest, RowsThatFitNoBlocksBecomeBf16) {
  CheckpointBuilder().write(folder_.path("in"));  // rows of 8 and 12
  convert(WeightMix::Q8_0);
  open();
  EXPECT_EQ(loader_.findTensor("blk.0.ffn_up.weight")->dtype, kiv::DType::BF16);
  EXPECT_EQ(loader_.findTensor("blk.0.ssm_out.weight")->dtype, kiv::DType::Q8_0);  // 4096
}

TEST_F(CheckpointTest, ASmallNumberOfThreadsChangesNothing) {
  CheckpointBuilder checkpoint;
  zemtest::Bytes values;
  for (int i = 0; i < 8 * 300; ++i) zemtest::putF32(values, static_cast<float>(i % 17) - 8);
  checkpoint.tensor("embed_tokens.weight").data = values;
  checkpoint.write(folder_.path("in"));
  convert(WeightMix::Q4_K);
  const std::string two = folder_.read("out.zem");
  ConversionOptions options;
  options.input = folder_.path("in/");  // a slash at the end changes nothing, either
  options.output = folder_.path("one.zem");
  options.mix = WeightMix::Q4_K;
  options.threads = 1;
  options.generator = "test 1";
  options.verify = false;
  convertModel(options);
  EXPECT_TRUE(two == folder_.read("one.zem"));
}

// ---- What is refused ----

struct ConfigCase {
  const char* name;
  std::function<void(nlohmann::json& root, nlohmann::json& text)> change;
  const char* message;  // behind "config.json: "
};

const ConfigCase kConfigCases[] = {
    {"OtherFamily", [](auto& root, auto&) { root["model_type"] = "qwen3"; },
     "model_type is \"qwen3\", needs \"qwen3_5\" or \"qwen3_5_text\""},
    {"InnerFamily", [](auto&, auto& text) { text["model_type"] = 3; },
     "text_config.model_type is 3, needs \"qwen3_5\" or \"qwen3_5_text\""},
    {"NoFamily",
     [](auto& root, auto& text) {
       root.erase("model_type");
       text.erase("model_type");
     },
     "has no model_type, needs \"qwen3_5\" or \"qwen3_5_text\""},
    {"Experts", [](auto& root, auto&) { root["model_type"] = "qwen3_5_moe"; },
     "model_type is \"qwen3_5_moe\", needs \"qwen3_5\" or \"qwen3_5_text\": not a mixture of "
     "experts"},
    {"ExpertCount", [](auto&, auto& text) { text["num_experts"] = 256; },
     "text_config.num_experts is 256, needs 0"},
    {"Layers", [](auto&, auto& text) { text["num_hidden_layers"] = 24; },
     "text_config.layer_types is a list, needs a list of 24"},
    {"LayersOfTheTensors",
     [](auto&, auto& text) {
       text["num_hidden_layers"] = 24;
       text.erase("layer_types");
     },
     "text_config.num_hidden_layers is 24, the tensors have 32"},
    {"NoLayers",
     [](auto&, auto& text) {
       text["num_hidden_layers"] = 0;
       text.erase("layer_types");
     },
     "text_config.num_hidden_layers is 0, the tensors have 32"},
    {"Heads", [](auto&, auto& text) { text["num_attention_heads"] = 8; },
     "text_config.num_attention_heads is 8, the tensors have 16"},
    {"KvHeads", [](auto&, auto& text) { text["num_key_value_heads"] = 2; },
     "text_config.num_key_value_heads is 2, the tensors have 4"},
    {"HeadSize", [](auto&, auto& text) { text["head_dim"] = 128; },
     "text_config.head_dim is 128, the tensors have 256"},
    {"ValueHeads", [](auto&, auto& text) { text["linear_num_value_heads"] = 48; },
     "text_config.linear_num_value_heads is 48, the tensors have 32"},
    {"KeyHeads", [](auto&, auto& text) { text["linear_num_key_heads"] = "16"; },
     "text_config.linear_num_key_heads is \"16\", needs a whole number"},
    {"Taps", [](auto&, auto& text) { text["linear_conv_kernel_dim"] = 3; },
     "text_config.linear_conv_kernel_dim is 3, needs 4"},
    {"Interval", [](auto&, auto& text) { text["full_attention_interval"] = 2; },
     "text_config.layer_types[1] is \"linear_attention\", needs \"full_attention\" by an interval "
     "of 2"},
    {"NoInterval", [](auto&, auto& text) { text["full_attention_interval"] = 0; },
     "text_config.full_attention_interval is 0, needs 1 or more"},
    {"ValueSize", [](auto&, auto& text) { text["linear_value_head_dim"] = 64; },
     "text_config.linear_value_head_dim is 64, needs 128, as text_config.linear_key_head_dim is"},
    {"LayerTypes", [](auto&, auto& text) { text["layer_types"][3] = "linear_attention"; },
     "text_config.layer_types[3] is \"linear_attention\", needs \"full_attention\" by an interval "
     "of 4"},
    {"FewLayerTypes", [](auto&, auto& text) { text["layer_types"] = {"full_attention"}; },
     "text_config.layer_types is a list, needs a list of 32"},
    {"Activation", [](auto&, auto& text) { text["hidden_act"] = "gelu"; },
     "text_config.hidden_act is \"gelu\", needs \"silu\""},
    {"Epsilon", [](auto&, auto& text) { text["rms_norm_eps"] = 1e-5; },
     "text_config.rms_norm_eps is 1e-05, needs 1e-06"},
    {"RotaryBase", [](auto&, auto& text) { text["rope_parameters"]["rope_theta"] = 1e6; },
     "text_config.rope_parameters.rope_theta is 1000000.0, needs 10000000.0"},
    {"RotaryParts", [](auto&, auto& text) { text["partial_rotary_factor"] = 0.5; },
     "text_config.partial_rotary_factor is 0.5, needs 0.25, as "
     "text_config.rope_parameters.partial_rotary_factor is"},
    {"RotaryPart",
     [](auto&, auto& text) { text["rope_parameters"]["partial_rotary_factor"] = 0.3; },
     "text_config.rope_parameters.partial_rotary_factor is 0.3, needs a part of 256 that is an "
     "even number from 2 to 256"},
    {"HugeRotaryPart",
     [](auto&, auto& text) { text["rope_parameters"]["partial_rotary_factor"] = 1e300; },
     "text_config.rope_parameters.partial_rotary_factor is 1e+300, needs a part of 256 that is an "
     "even number from 2 to 256"},
    {"RotaryType", [](auto&, auto& text) { text["rope_parameters"]["rope_type"] = "yarn"; },
     "text_config.rope_parameters.rope_type is \"yarn\", needs \"default\""},
    {"NoGate", [](auto&, auto& text) { text["attn_output_gate"] = false; },
     "text_config.attn_output_gate is false, needs true"},
    {"Untied", [](auto& root, auto&) { root["tie_word_embeddings"] = false; },
     "tie_word_embeddings is false, but the tensor 'lm_head.weight' is missing"},
    {"TiedByWord", [](auto& root, auto&) { root["tie_word_embeddings"] = "no"; },
     "tie_word_embeddings is \"no\", needs true or false"},
    {"UntiedInside",
     [](auto& root, auto& text) {
       root.erase("tie_word_embeddings");
       text["tie_word_embeddings"] = false;
     },
     "text_config.tie_word_embeddings is false, but the tensor 'lm_head.weight' is missing"},
    {"Packed",
     [](auto& root, auto&) {
       root["quantization_config"] = {{"quant_method", "fp8"}};
     },
     "has quantization_config (\"fp8\"), needs weights that are F32, BF16 or F16"},
    {"Width", [](auto&, auto& text) { text["hidden_size"] = 16; },
     "text_config.hidden_size is 16, the tensors have 8"},
    {"FeedForward", [](auto&, auto& text) { text["intermediate_size"] = 16; },
     "text_config.intermediate_size is 16, the tensors have 12"},
    {"Vocabulary", [](auto&, auto& text) { text["vocab_size"] = 301; },
     "text_config.vocab_size is 301, the tensors have 300"},
    {"WidthOfText", [](auto&, auto& text) { text["hidden_size"] = "8"; },
     "text_config.hidden_size is \"8\", needs a whole number"},
};

TEST_F(CheckpointTest, OtherConfigurationsAreRefusedByKey) {
  for (const ConfigCase& c : kConfigCases) {
    CheckpointBuilder checkpoint;
    c.change(checkpoint.config(), checkpoint.config()["text_config"]);
    EXPECT_EQ(refusal(checkpoint), in("config.json") + ": " + c.message) << c.name;
  }
}

TEST_F(CheckpointTest, AbsentKeysAreLeftToTheTensors) {
  CheckpointBuilder checkpoint;
  checkpoint.config() = {{"model_type", "qwen3_5_text"}};
  expectWhole(checkpoint);
}

TEST_F(CheckpointTest, MissingTensorsAreNamed) {
  for (const char* name : {"embed_tokens.weight", "norm.weight", "layers.31.mlp.down_proj.weight",
                           "layers.3.self_attn.q_norm.weight", "layers.0.linear_attn.A_log"}) {
    CheckpointBuilder checkpoint;
    checkpoint.tensors().erase(checkpoint.named(name));
    EXPECT_EQ(refusal(checkpoint), "tensor '" + std::string(name) + "' is missing");
  }
}

TEST_F(CheckpointTest, MisshapenTensorsAreNamedWithBothShapes) {
  CheckpointBuilder checkpoint;
  checkpoint.tensor("layers.0.linear_attn.conv1d.weight").shape = {8192, 1, 3};
  EXPECT_EQ(refusal(checkpoint),
            "tensor 'model.language_model.layers.0.linear_attn.conv1d.weight' has the shape [8192, "
            "1, 3], needs [8192, 4]");
  checkpoint = CheckpointBuilder();
  checkpoint.tensor("layers.7.self_attn.k_proj.weight").shape = {8, 1024};
  EXPECT_THAT(refusal(checkpoint), HasSubstr("has the shape [8, 1024], needs [1024, 8]"));
  checkpoint = CheckpointBuilder();
  checkpoint.tensor("embed_tokens.weight").shape = {2400};
  EXPECT_THAT(refusal(checkpoint), HasSubstr("has the shape [2400], needs two extents"));
  checkpoint = CheckpointBuilder();
  checkpoint.tensor("norm.weight").shape = {9};
  EXPECT_THAT(refusal(checkpoint), HasSubstr("norm.weight' has the shape [9], needs [8]"));
}

TEST_F(CheckpointTest, OtherElementTypesAreNamed) {
  CheckpointBuilder checkpoint;
  checkpoint.tensor("layers.2.mlp.up_proj.weight").type = "F8_E4M3";
  EXPECT_EQ(refusal(checkpoint),
            "tensor 'model.language_model.layers.2.mlp.up_proj.weight' has the type F8_E4M3, which "
            "is none of F32, BF16 and F16");
}

TEST_F(CheckpointTest, ExpertsAreNamed) {
  CheckpointBuilder checkpoint;
  checkpoint.tensors()[checkpoint.named("layers.0.mlp.experts.gate_up_proj")] = {"F32", {1}, {}};
  EXPECT_THAT(refusal(checkpoint), HasSubstr("belongs to a mixture of experts"));
}

TEST_F(CheckpointTest, ATensorUnderBothPrefixesIsRefused) {
  CheckpointBuilder checkpoint;
  checkpoint.tensors()["model.norm.weight"] = checkpoint.tensor("norm.weight");
  EXPECT_EQ(refusal(checkpoint),
            "tensors 'model.language_model.norm.weight' and 'model.norm.weight' are the same one");
}

TEST_F(CheckpointTest, FoldersWithoutTheirFilesAreRefused) {
  EXPECT_EQ(refusal(),
            folder_.path("in") + ": has no config.json; is it the folder of a checkpoint?");
  CheckpointBuilder checkpoint;
  checkpoint.write(folder_.path("in"));
  fs::remove(in("model.safetensors"));
  EXPECT_EQ(refusal(), folder_.path("in") +
                           ": has neither model.safetensors.index.json nor model.safetensors");
  checkpoint.tokenizer() = nullptr;
  fs::remove(in("tokenizer.json"));
  EXPECT_EQ(refusal(checkpoint), folder_.path("in") + ": has no tokenizer.json");
}

TEST_F(CheckpointTest, AnIndexThatDoesNotFitIsRefused) {
  CheckpointBuilder checkpoint;
  checkpoint.write(folder_.path("in"), 2);
  const std::string index = "in/model.safetensors.index.json";
  const auto map = [](const std::string& file) {
    return R"({"weight_map":{"x":")" + file + "\"}}";
  };
  const std::string where = folder_.path(index) + ": ";
  folder_.write(index, std::string_view("{}"));
  EXPECT_EQ(refusal(), where + "has no weight_map");
  folder_.write(index, std::string_view(R"({"weight_map":{"x":7}})"));
  EXPECT_EQ(refusal(), where + "\"x\" names no file");
  for (const char* file :
       {"../in/model-00001-of-00002.safetensors", "/etc/passwd", "..", ".", "", "a\\u0000b"}) {
    folder_.write(index, map(file));
    EXPECT_THAT(refusal(), HasSubstr("needs the name of a file in this folder")) << file;
  }
  folder_.write(index, map("missing.safetensors"));
  EXPECT_EQ(refusal(),
            in("missing.safetensors") + " is missing; model.safetensors.index.json names it");
  folder_.write(index, map("model-00001-of-00002.safetensors"));
  EXPECT_EQ(refusal(), where + "\"x\" is not in model-00001-of-00002.safetensors");
}

TEST_F(CheckpointTest, ATensorInTwoShardsIsRefused) {
  CheckpointBuilder checkpoint;
  checkpoint.write(folder_.path("in"), 2);
  fs::remove(in("model-00002-of-00002.safetensors"));
  fs::copy_file(in("model-00001-of-00002.safetensors"), in("model-00002-of-00002.safetensors"));
  EXPECT_THAT(refusal(), HasSubstr("occurs in model-00001-of-00002.safetensors and in "
                                   "model-00002-of-00002.safetensors"));
}

TEST_F(CheckpointTest, ValuesThatAreNotFiniteAreRefusedByName) {
  for (const float value : {NAN, INFINITY, -INFINITY}) {
    CheckpointBuilder checkpoint;
    zemtest::putF32(checkpoint.tensor("layers.5.linear_attn.out_proj.weight").data, value);
    EXPECT_EQ(
        refusal(checkpoint),
        "tensor 'model.language_model.layers.5.linear_attn.out_proj.weight' holds values that "
        "are not finite");
  }
}

TEST_F(CheckpointTest, WeightsBeyondTheScalesOfATypeAreRefused) {
  CheckpointBuilder checkpoint;
  zemtest::putF32(checkpoint.tensor("layers.5.linear_attn.out_proj.weight").data, 1e30F);
  checkpoint.write(folder_.path("in"));
  try {
    convert(WeightMix::Q4_K);
    FAIL() << "no refusal";
  } catch (const Failure& failure) {
    EXPECT_STREQ(
        failure.what(),
        "tensor 'model.language_model.layers.5.linear_attn.out_proj.weight' has weights too "
        "large for the scales of Q4_K; use --type bf16 or f32");
  }
  EXPECT_THAT(folder_.names(), ElementsAre("in"));
  convert(WeightMix::BF16);
}

TEST_F(CheckpointTest, DoubledNormsAndPositiveDecaysAreWarnedOf) {
  CheckpointBuilder checkpoint;
  for (const char* name : {"layers.0.linear_attn.norm.weight", "norm.weight"}) {
    zemtest::PublishedTensor& norm = checkpoint.tensor(name);
    for (uint64_t i = 0; i < norm.bytes() / 4; ++i) zemtest::putF32(norm.data, 1.0F);
  }
  const std::vector<std::string> warnings = convert(checkpoint).weights.warnings;
  EXPECT_THAT(warnings, Contains("the weights of output_norm.weight (mean 2.00) lie around 2 or "
                                 "above: as if 1 had been added twice"));
  // All the other inner norms of this checkpoint are zero.
  EXPECT_THAT(warnings, Contains("the weights of blk.1.ssm_norm.weight (mean 0.00) and of 22 other "
                                 "norms lie around 0: as if 1 had not been added"));
}

TEST_F(CheckpointTest, TheModelsOwnFilesAreNotOverwritten) {
  CheckpointBuilder().write(folder_.path("in"));
  ConversionOptions options;
  options.input = folder_.path("in");
  options.force = true;
  for (const char* file : {"model.safetensors", "config.json", "tokenizer.json"}) {
    options.output = in(file);
    const std::string before = folder_.read("in/" + std::string(file)).substr(0, 1000);
    try {
      convertModel(options);
      FAIL() << "no refusal";
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.what(), in(file) + " is part of the model that is to be converted");
    }
    EXPECT_EQ(folder_.read("in/" + std::string(file)).substr(0, 1000), before);
  }
}

}  // namespace
}  // namespace zemtool
