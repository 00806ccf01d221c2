// SPDX-License-Identifier: Apache-2.0
// GGUF files: the published variants, and the same container as from a checkpoint.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>

#include "console/terminal.h"
#include "convert/conversion.h"
#include "kiv/quant.h"
#include "kiv/zem_loader.h"
#include "support/golden_checkpoint.h"
#include "support/published_model.h"
#include "support/temp_folder.h"
#include "support/tiny_model.h"

namespace zemtool {
namespace {

namespace fs = std::filesystem;
namespace code = zemtest::gguf;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zemtest::Bytes;
using zemtest::CheckpointBuilder;
using zemtest::GgufBuilder;

Bytes bytesOf(const std::vector<float>& values) {
  Bytes bytes(values.size() * sizeof(float));
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

// A small model, as a checkpoint and in the container's layout.
class SmallModel {
 public:
  SmallModel() {
    for (auto& [name, tensor] : checkpoint_.tensors()) {
      std::vector<uint64_t> shape = tensor.shape;
      std::vector<float> values = zemtest::goldenTensor("small", name, shape);
      tensor.data = bytesOf(values);
      zemtest::toContainerLayout(name, values, shape);
      floats_[zemtest::goldenContainerName(name)] = {{shape.rbegin(), shape.rend()}, values};
    }
  }

  struct Tensor {
    std::vector<uint64_t> shape;  // innermost extent first
    std::vector<float> values;
  };

  CheckpointBuilder& checkpoint() { return checkpoint_; }
  const std::map<std::string, Tensor>& floats() const { return floats_; }

  // A GGUF file with the tensors as `encode` puts them.
  GgufBuilder gguf(const std::function<std::pair<uint32_t, Bytes>(const std::string& name,
                                                                  const Tensor&)>& encode) const {
    GgufBuilder builder = zemtest::supportedGguf(8, 12);
    for (const auto& [name, tensor] : floats_) {
      auto [type, bytes] = encode(name, tensor);
      builder.addTensor(name, type, tensor.shape, std::move(bytes));
    }
    return builder;
  }
  GgufBuilder gguf() const {
    return gguf([](const std::string&, const Tensor& tensor) {
      return std::pair{code::kF32, bytesOf(tensor.values)};
    });
  }

 private:
  CheckpointBuilder checkpoint_;
  std::map<std::string, Tensor> floats_;
};

// Rows of 4096, which hold blocks of every type.
bool isLong(const std::string& name) {
  return name.ends_with("ssm_out.weight") || name.ends_with("attn_output.weight");
}

class GgufConvertTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { model_ = new SmallModel; }
  static void TearDownTestSuite() { delete model_; }

  ConversionReport convert(const std::string& input, const std::string& output, WeightMix mix,
                           bool recode = false) {
    ConversionOptions options;
    options.input = folder_.path(input);
    options.output = folder_.path(output);
    options.mix = mix;
    options.recode = recode;
    options.threads = 2;
    options.force = true;
    return convertModel(options);
  }
  ConversionReport convert(const GgufBuilder& builder, WeightMix mix = WeightMix::Q4_K_M,
                           bool recode = false) {
    folder_.write("m.gguf", builder.build());
    return convert("m.gguf", "gguf.zem", mix, recode);
  }

  std::string refusal(const GgufBuilder& builder) {
    try {
      convert(builder);
    } catch (const Failure& failure) {
      EXPECT_THAT(folder_.names(), ElementsAre("m.gguf"));
      return failure.what();
    }
    return "";
  }
  std::string where() const { return folder_.path("m.gguf") + ": "; }

  void convertCheckpoint(WeightMix mix) {
    if (!fs::exists(folder_.path("in"))) {
      fs::create_directory(folder_.path("in"));
      model_->checkpoint().write(folder_.path("in"));
    }
    convert("in", "checkpoint.zem", mix);
  }

  // The two exponential functions may differ in the last bit.
  static void expectSameDecay(const kiv::TensorView& left, const kiv::TensorView& right) {
    std::vector<float> a(left.size / sizeof(float));
    std::vector<float> b(a.size());
    std::memcpy(a.data(), left.data, left.size);
    std::memcpy(b.data(), right.data, right.size);
    for (size_t i = 0; i < a.size(); ++i) {
      EXPECT_FLOAT_EQ(a[i], b[i]) << left.name << " " << i;
      EXPECT_LT(b[i], 0.0F) << left.name << " " << i;
    }
  }

  // Of the tensors that `counts` picks; the number of them.
  size_t expectSameTensors(const std::function<bool(const std::string&)>& counts) {
    kiv::ZEMLoader a;
    kiv::ZEMLoader b;
    EXPECT_EQ(a.open(folder_.path("checkpoint.zem").c_str()).message(), "");
    EXPECT_EQ(b.open(folder_.path("gguf.zem").c_str()).message(), "");
    EXPECT_EQ(a.tensorCount(), b.tensorCount());
    size_t compared = 0;
    for (size_t i = 0; i < a.tensorCount(); ++i) {
      const kiv::TensorView& left = a.tensorView(i);
      if (!counts(left.name)) continue;
      const kiv::TensorView* right = b.findTensor(left.name);
      if (right == nullptr) {
        ADD_FAILURE() << left.name;
        continue;
      }
      ++compared;
      EXPECT_EQ(left.dtype, right->dtype) << left.name;
      EXPECT_EQ(left.shape, right->shape) << left.name;
      EXPECT_EQ(left.ndim, right->ndim) << left.name;
      EXPECT_EQ(left.size, right->size) << left.name;
      if (left.size != right->size) continue;
      if (left.name.ends_with("ssm_a")) {
        expectSameDecay(left, *right);
      } else {
        EXPECT_EQ(std::memcmp(left.data, right->data, left.size), 0) << left.name;
      }
    }
    return compared;
  }

  static SmallModel* model_;
  zemtest::TempFolder folder_;
};

SmallModel* GgufConvertTest::model_ = nullptr;

TEST_F(GgufConvertTest, SinglePrecisionIsCopiedToWhatACheckpointGives) {
  convertCheckpoint(WeightMix::F32);
  const ConversionReport report = convert(model_->gguf());
  EXPECT_EQ(expectSameTensors([](const std::string&) { return true; }), 24U * 14 + 8 * 11 + 2);
  ASSERT_EQ(report.weights.types.size(), 1U);
  EXPECT_EQ(report.weights.types.at("F32").copied, report.weights.types.at("F32").tensors);
  EXPECT_THAT(report.fallbacks, IsEmpty());
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(folder_.path("gguf.zem").c_str()).ok());
  std::string text;
  EXPECT_TRUE(loader.getMetaStr("general.quantisation", text));
  EXPECT_EQ(text, "copied");
  EXPECT_TRUE(loader.getMetaStr("general.name", text));
  EXPECT_EQ(text, "small");
  EXPECT_TRUE(loader.getMetaStr("general.source.files", text));
  EXPECT_EQ(text, "m.gguf");
  EXPECT_TRUE(loader.getMetaStr("tokenizer.source.name", text));
  EXPECT_EQ(text, "tokenizer.gguf");
}

struct BlockCase {
  const char* name;
  WeightMix mix;
  kiv::DType type;
  uint32_t ggufType;
};

TEST_F(GgufConvertTest, BlocksAreCopiedToWhatACheckpointGives) {
  for (const BlockCase& c : {BlockCase{"Q8_0", WeightMix::Q8_0, kiv::DType::Q8_0, code::kQ8_0},
                             BlockCase{"Q4_K", WeightMix::Q4_K, kiv::DType::Q4_K, code::kQ4_K},
                             BlockCase{"Q5_K", WeightMix::Q5_K, kiv::DType::Q5_K, code::kQ5_K},
                             BlockCase{"Q6_K", WeightMix::Q6_K, kiv::DType::Q6_K, code::kQ6_K}}) {
    SCOPED_TRACE(c.name);
    convertCheckpoint(c.mix);
    convert(model_->gguf([&](const std::string& name, const SmallModel::Tensor& tensor) {
      if (!isLong(name)) return std::pair{code::kF32, bytesOf(tensor.values)};
      return std::pair{c.ggufType, zemtest::encodeRows(c.type, tensor.values, tensor.shape[0])};
    }));
    EXPECT_EQ(expectSameTensors(isLong), 32U);
  }
}

TEST_F(GgufConvertTest, MatricesOfOtherTypesAreWidenedAndEncoded) {
  const auto halves = [](const std::string&, const SmallModel::Tensor& tensor) {
    if (tensor.shape.size() == 1) return std::pair{code::kF32, bytesOf(tensor.values)};
    Bytes bytes;
    for (const float x : tensor.values) zemtest::putU16(bytes, kiv::quant::f32ToF16(x));
    return std::pair{code::kF16, std::move(bytes)};
  };
  const ConversionReport report = convert(model_->gguf(halves), WeightMix::F32);
  EXPECT_EQ(report.weights.types.size(), 1U);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(folder_.path("gguf.zem").c_str()).ok());
  for (const char* name : {"blk.0.ssm_out.weight", "blk.0.ssm_conv1d.weight"}) {
    const SmallModel::Tensor& tensor = model_->floats().at(name);
    const kiv::TensorView* view = loader.findTensor(name);
    ASSERT_EQ(view->size, tensor.values.size() * sizeof(float));
    for (size_t i = 0; i < tensor.values.size(); ++i) {
      float stored = 0;
      std::memcpy(&stored, static_cast<const uint8_t*>(view->data) + i * sizeof stored,
                  sizeof stored);
      ASSERT_EQ(stored, kiv::quant::f16ToF32(kiv::quant::f32ToF16(tensor.values[i]))) << name << i;
    }
  }
}

// Nibble k of a GGUF block is element k, then k + 16; in a container, 2k and 2k + 1.
TEST_F(GgufConvertTest, FourBitBlocksOfTheOtherOrderKeepTheirElements) {
  GgufBuilder builder = model_->gguf();
  for (GgufBuilder::Tensor& tensor : builder.tensors()) {
    if (tensor.name != "blk.0.ssm_out.weight") continue;
    tensor.type = code::kQ4_0;
    tensor.data.clear();
    for (size_t block = 0; block < 4096 / 32 * 8; ++block) {
      zemtest::putU16(tensor.data, kiv::quant::f32ToF16(1.0F));
      for (unsigned k = 0; k < 16; ++k) tensor.data.push_back(static_cast<uint8_t>(k | k << 4));
    }
  }
  convert(builder, WeightMix::F32);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(folder_.path("gguf.zem").c_str()).ok());
  const auto* values = static_cast<const float*>(loader.findTensor("blk.0.ssm_out.weight")->data);
  for (size_t i = 0; i < 4096 * 8; ++i) {
    ASSERT_EQ(values[i], static_cast<float>(i % 16) - 8) << i;
  }
}

TEST_F(GgufConvertTest, RequantisingEncodesEveryMatrix) {
  convertCheckpoint(WeightMix::Q4_K);
  const ConversionReport report = convert(model_->gguf(), WeightMix::Q4_K, true);
  EXPECT_EQ(expectSameTensors([](const std::string&) { return true; }), 24U * 14 + 8 * 11 + 2);
  EXPECT_EQ(report.weights.types.at("Q4_K").copied, 0U);
  EXPECT_FALSE(report.fallbacks.empty());
}

TEST_F(GgufConvertTest, PublishedVariantsAreTaken) {
  const auto changed = [&](const std::function<void(GgufBuilder&)>& change) {
    GgufBuilder builder = model_->gguf();
    change(builder);
    return convert(builder);
  };
  const auto replace = [](GgufBuilder& builder, const std::string& key, uint32_t value) {
    builder.erase(key);
    builder.addU32(key, value);
  };
  const auto perLayer = [](int32_t full, size_t count) {
    std::vector<int32_t> heads(count, 0);
    for (size_t i = 3; i < count; i += 4) heads[i] = full;
    return heads;
  };
  // One prediction layer, with and without its tensors.
  EXPECT_EQ(changed([&](GgufBuilder& g) {
              replace(g, "qwen35.block_count", 33);
              g.addU32("qwen35.nextn_predict_layers", 1);
            }).leftOut.prediction,
            0U);
  EXPECT_EQ(changed([&](GgufBuilder& g) {
              replace(g, "qwen35.block_count", 33);
              g.addU32("qwen35.nextn_predict_layers", 1);
              g.addTensor("blk.32.nextn.eh_proj.weight", code::kF32, {2}, Bytes(8));
              g.addTensor("blk.32.attn_q.weight", 16, {256}, Bytes(66));  // a type not known
            }).leftOut.prediction,
            2U);
  // Endings, extents of 1, vision, heads by layer, sections.
  const ConversionReport report = changed([&](GgufBuilder& g) {
    for (GgufBuilder::Tensor& tensor : g.tensors()) {
      if (tensor.name.ends_with("ssm_dt.bias")) tensor.name.resize(tensor.name.size() - 5);
      if (tensor.name.ends_with("ssm_conv1d.weight")) tensor.shape = {4, 1, 8192};
      if (tensor.name.ends_with("ssm_a")) tensor.shape = {1, 32};
    }
    g.addTensor("v.blk.0.ln1.weight", code::kF32, {2}, Bytes(8));
    g.addTensor("mm.0.weight", code::kF32, {2}, Bytes(8));
    g.erase("qwen35.attention.head_count");
    g.erase("qwen35.attention.head_count_kv");
    g.addI32s("qwen35.attention.head_count", perLayer(16, 33));
    g.addI32s("qwen35.attention.head_count_kv", perLayer(4, 32));
    g.erase("qwen35.rope.dimension_sections");
    g.addI32s("qwen35.rope.dimension_sections", {11, 11, 10});
  });
  EXPECT_EQ(report.leftOut.vision, 2U);
  EXPECT_THAT(report.leftOut.others, IsEmpty());
  convertCheckpoint(WeightMix::F32);
  EXPECT_EQ(expectSameTensors([](const std::string&) { return true; }), 24U * 14 + 8 * 11 + 2);
  // A head that repeats the embedding.
  EXPECT_EQ(changed([&](GgufBuilder& g) {
              const auto& table = model_->floats().at("token_embd.weight");
              g.addTensor("output.weight", code::kF32, table.shape, bytesOf(table.values));
            }).leftOut.repeated,
            1U);
}

TEST_F(GgufConvertTest, SamplingAndStopIdsAreTaken) {
  GgufBuilder builder = model_->gguf();
  builder.addF32("general.sampling.temp", 0.7F).addF32("general.sampling.top_p", 0.8F);
  builder.addU32("general.sampling.top_k", 20).addU32("tokenizer.ggml.eot_token_id", 270);
  convert(builder);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(folder_.path("gguf.zem").c_str()).ok());
  float real = 0;
  EXPECT_TRUE(loader.getMetaF32("sampling.temperature", real));
  EXPECT_EQ(real, 0.7F);
  const uint32_t* stop = nullptr;
  uint64_t count = 0;
  ASSERT_TRUE(loader.getMetaU32Array("sampling.stop_ids", stop, count));
  EXPECT_THAT(std::vector<uint32_t>(stop, stop + count), ElementsAre(272U, 270U));
}

TEST_F(GgufConvertTest, OtherModelsAreRefusedByKeyOrTensor) {
  struct Case {
    std::function<void(GgufBuilder&)> change;
    std::string message;
  };
  const auto u32 = [](const char* key, uint32_t value) {
    return [=](GgufBuilder& g) {
      g.erase(key);
      g.addU32(key, value);
    };
  };
  const std::vector<Case> cases = {
      {[](GgufBuilder& g) { g.erase("general.architecture"); },
       where() + "has no general.architecture, needs \"qwen35\""},
      {[](GgufBuilder& g) {
         g.erase("general.architecture");
         g.addText("general.architecture", "llama");
       },
       where() + "general.architecture is \"llama\", needs \"qwen35\""},
      {[](GgufBuilder& g) {
         g.erase("general.architecture");
         g.addText("general.architecture", "qwen35moe");
       },
       where() +
           "general.architecture is \"qwen35moe\", needs \"qwen35\": not a mixture of experts"},
      {u32("split.count", 3), where() + "is one of 3 parts (split.count); join them first"},
      {[](GgufBuilder& g) { g.erase("qwen35.block_count"); },
       where() + "has no qwen35.block_count"},
      {u32("qwen35.block_count", 24), where() + "qwen35.block_count is 24, the tensors have 32"},
      {u32("qwen35.block_count", 34), where() + "qwen35.block_count is 34, the tensors have 32"},
      {u32("qwen35.nextn_predict_layers", 1),
       where() + "qwen35.nextn_predict_layers is 1, needs 0, for block 31 has no tensors of a "
                 "prediction layer"},
      {u32("qwen35.nextn_predict_layers", 32),
       where() + "qwen35.nextn_predict_layers is 32, needs fewer than the 32 blocks"},
      {u32("qwen35.block_count", 0), where() + "qwen35.block_count is 0, needs 1 to 1024"},
      {u32("qwen35.full_attention_interval", 0),
       where() + "qwen35.full_attention_interval is 0, needs 1 to 1024"},
      {u32("qwen35.full_attention_interval", 2), "tensor 'blk.1.attn_q.weight' is missing"},
      {u32("qwen35.attention.head_count", 24),
       where() + "qwen35.attention.head_count is 24, the tensors have 16"},
      {[](GgufBuilder& g) {
         g.erase("qwen35.attention.head_count_kv");
         std::vector<int32_t> heads(32, 4);
         heads[7] = 2;
         g.addI32s("qwen35.attention.head_count_kv", heads);
       },
       where() + "qwen35.attention.head_count_kv[7] is 2, needs 4"},
      {[](GgufBuilder& g) {
         g.erase("qwen35.attention.head_count_kv");
         g.addI32s("qwen35.attention.head_count_kv", {4, 4});
       },
       where() + "qwen35.attention.head_count_kv is a list of 2, needs one a layer"},
      {u32("qwen35.attention.key_length", 128),
       where() + "qwen35.attention.key_length is 128, the tensors have 256"},
      {u32("qwen35.attention.value_length", 128),
       where() + "qwen35.attention.value_length is 128, needs 256"},
      {u32("qwen35.ssm.inner_size", 2048), where() + "qwen35.ssm.inner_size is 2048, needs 4096"},
      {u32("qwen35.rope.dimension_count", 63),
       where() + "qwen35.rope.dimension_count is 63, needs an even number from 2 to 256"},
      {u32("qwen35.rope.dimension_count", 258),
       where() + "qwen35.rope.dimension_count is 258, needs an even number from 2 to 256"},
      {[](GgufBuilder& g) {
         g.erase("qwen35.rope.dimension_sections");
         g.addI32s("qwen35.rope.dimension_sections", {11, 11});
       },
       where() + "qwen35.rope.dimension_sections is a list of 2, needs three or four sections"},
      {[](GgufBuilder& g) {
         g.erase("qwen35.rope.freq_base");
         g.addF32("qwen35.rope.freq_base", 1e6F);
       },
       where() + "qwen35.rope.freq_base is 1e+06, needs 1e+07"},
      {u32("qwen35.ssm.group_count", 32),
       where() + "qwen35.ssm.group_count is 32, the tensors have 16"},
      {u32("qwen35.ssm.time_step_rank", 48),
       where() + "qwen35.ssm.time_step_rank is 48, the tensors have 32"},
      {u32("qwen35.expert_count", 8), where() + "qwen35.expert_count is 8, needs 0"},
      {[](GgufBuilder& g) {
         g.erase("qwen35.ssm.state_size");
         g.addText("qwen35.ssm.state_size", "128");
       },
       where() + "qwen35.ssm.state_size is not a whole number, needs one"},
      {u32("qwen35.embedding_length", 9),
       where() + "qwen35.embedding_length is 9, the tensors have 8"},
      {[](GgufBuilder& g) {
         std::erase_if(g.tensors(), [](const auto& t) { return t.name == "blk.31.attn_k.weight"; });
       },
       "tensor 'blk.31.attn_k.weight' is missing"},
      {[](GgufBuilder& g) {
         for (auto& t : g.tensors()) {
           if (t.name == "blk.3.attn_k.weight") t.shape = {1024, 8};
         }
       },
       "tensor 'blk.3.attn_k.weight' has the shape [1024, 8], needs [8, 1024]"},
      {[](GgufBuilder& g) {
         for (auto& t : g.tensors()) {
           if (t.name == "blk.3.attn_k.weight") t.type = 16;
         }
       },
       "tensor 'blk.3.attn_k.weight' has the type number 16, which this program cannot read"},
      {[](GgufBuilder& g) {
         g.addTensor("output.weight", code::kF32, {8, 299}, Bytes(9568, 1));
       },
       "tensor 'output.weight' has the shape [8, 299], needs [8, 300]"},
      {[](GgufBuilder& g) { g.addTensor("blk.0.ffn_up_exps.weight", code::kF32, {1}, Bytes(4)); },
       where() + "tensor 'blk.0.ffn_up_exps.weight' belongs to a mixture of experts; needs one "
                 "feed-forward block a layer"},
      {[](GgufBuilder& g) { g.addTensor("blk.0.ssm_dt", code::kF32, {32}, Bytes(128)); },
       where() + "tensors 'blk.0.ssm_dt.bias' and 'blk.0.ssm_dt' are the same one"},
      {[](GgufBuilder& g) { g.erase("tokenizer.ggml.tokens"); },
       where() + "has no metadata 'tokenizer.ggml.tokens'"},
  };
  const GgufBuilder sound = model_->gguf();
  for (const Case& c : cases) {
    GgufBuilder builder = sound;
    c.change(builder);
    EXPECT_EQ(refusal(builder), c.message);
  }
}

TEST_F(GgufConvertTest, NonFiniteValuesAndScalesAreRefusedByName) {
  GgufBuilder builder = model_->gguf();
  const auto damage = [&](const std::string& name, uint32_t type, Bytes data) {
    builder = model_->gguf();
    for (auto& t : builder.tensors()) {
      if (t.name != name) continue;
      t.type = type;
      t.data = std::move(data);
    }
    return refusal(builder);
  };
  Bytes blocks(4096 / 256 * 8 * 144);
  blocks[3 + 144 * 5] = 0x7C;  // the scale of the minima: infinite
  EXPECT_EQ(damage("blk.2.ssm_out.weight", code::kQ4_K, blocks),
            "tensor 'blk.2.ssm_out.weight' holds values that are not finite");
  EXPECT_EQ(damage("blk.1.ssm_a", code::kF32, Bytes(128, 0xFF)),
            "tensor 'blk.1.ssm_a' holds values that are not finite");
}

// Norms without their one, decays as a checkpoint has them.
TEST_F(GgufConvertTest, LayoutsThatWereNotConvertedAreWarnedOf) {
  GgufBuilder builder = model_->gguf();
  for (auto& t : builder.tensors()) {
    if (t.name == "blk.3.attn_norm.weight" || t.name == "blk.4.ssm_a") {
      std::fill(t.data.begin(), t.data.end(), uint8_t{0});
    }
  }
  EXPECT_THAT(convert(builder).weights.warnings,
              testing::UnorderedElementsAre(
                  "the weights of blk.3.attn_norm.weight (mean 0.00) lie around 0: as if 1 had not "
                  "been added",
                  "blk.4.ssm_a has values that are not negative: as if -exp had not been applied"));
}

TEST_F(GgufConvertTest, AFileCutShortIsRefused) {
  Bytes bytes = model_->gguf().build();
  bytes.pop_back();
  folder_.write("m.gguf", bytes);
  try {
    convert("m.gguf", "gguf.zem", WeightMix::F32);
    FAIL() << "no refusal";
  } catch (const Failure& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("was it copied whole?"));
  }
  EXPECT_THAT(folder_.names(), ElementsAre("m.gguf"));
}

TEST_F(GgufConvertTest, InputsOfNoKnownKindAreRefused) {
  const auto refusalOf = [&](const std::string& input) {
    try {
      convert(input, "gguf.zem", WeightMix::F32);
    } catch (const Failure& failure) {
      return std::string(failure.what());
    }
    return std::string();
  };
  folder_.write("text", std::string_view("hello"));
  folder_.write("empty", std::string_view());
  folder_.write("c.zem", std::string_view("ZEM2...."));
  EXPECT_EQ(refusalOf("text"),
            folder_.path("text") + " is neither the folder of a checkpoint nor a GGUF file");
  EXPECT_EQ(refusalOf("empty"),
            folder_.path("empty") + " is neither the folder of a checkpoint nor a GGUF file");
  EXPECT_EQ(refusalOf("c.zem"), folder_.path("c.zem") + " is a container already");
  EXPECT_EQ(refusalOf("missing"),
            "cannot read " + folder_.path("missing") + ": No such file or directory");
}

}  // namespace
}  // namespace zemtool
