// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <filesystem>
#include <string>

#include "cli_support.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/tiny_model.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class CompareCliTest : public ::testing::Test {
 protected:
  std::string model(const std::string& name, TinyModelOptions options = {}) {
    return folder_.write(name, TinyModel(options).build());
  }

  nlohmann::json compared(Arguments arguments) {
    arguments.insert(arguments.begin(), "compare");
    arguments.emplace_back("--json");
    const ProcessResult result = zem(arguments, {}, {{"OMP_NUM_THREADS", "1"}});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.status == 0 ? nlohmann::json::parse(result.out) : nlohmann::json();
  }

  static nlohmann::json tensor(const nlohmann::json& value, const std::string& name) {
    for (const auto& entry : value["tensors"]) {
      if (entry["name"] == name) return entry;
    }
    ADD_FAILURE() << name;
    return {};
  }

  void expectFailure(Arguments arguments, const std::string& message) {
    arguments.insert(arguments.begin(), "compare");
    const ProcessResult result = zem(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "zem: " + message + "\n");
  }

  TempFolder folder_;
};

TEST_F(CompareCliTest, AFileIsNoWayFromItself) {
  const std::string a = model("a.zem");
  const auto value = compared({a, a, "-p", "the system"});
  for (const auto& entry : value["tensors"]) EXPECT_TRUE(entry["same"]) << entry;
  EXPECT_EQ(value["text"]["tokens"], 6);
  EXPECT_EQ(value["text"]["mean_kl_divergence"], 0.0);
  EXPECT_EQ(value["text"]["same_best"], 1.0);
  const ProcessResult text = zem({"compare", a, a});
  EXPECT_THAT(text.out, AllOf(HasSubstr(" tensors have the same bytes\n"),
                              Not(HasSubstr("relative difference"))));
  EXPECT_THAT(zem({"compare", a, a, "--all"}).out, HasSubstr("blk.0.attn_norm.weight"));
}

TEST_F(CompareCliTest, OneChangedWeightIsFound) {
  TinyModel changed;
  const std::string a = folder_.write("a.zem", changed.build());
  float sum = 0;
  const Bytes& norm = changed.tensor("output_norm.weight").data;
  for (size_t i = 0; i < 8; ++i) {
    const auto bits = static_cast<uint32_t>(getUint(norm, 4 * i, 4));
    sum += std::bit_cast<float>(bits) * std::bit_cast<float>(bits);
  }
  const float before = std::bit_cast<float>(static_cast<uint32_t>(getUint(norm, 0, 4)));
  changed.setFloat("output_norm.weight", 0, before + 0.5F);
  const auto value = compared({a, folder_.write("b.zem", changed.build())});
  const auto entry = tensor(value, "output_norm.weight");
  EXPECT_FALSE(entry["same"]);
  EXPECT_FLOAT_EQ(entry["largest_difference"], 0.5F);
  EXPECT_FLOAT_EQ(entry["relative_difference"], 0.5F / std::sqrt(sum));
  EXPECT_TRUE(tensor(value, "blk.0.attn_norm.weight")["same"]);
  EXPECT_FALSE(value.contains("text"));
}

TEST_F(CompareCliTest, OtherTypesAreWidenedAndLogitsCompared) {
  TinyModelOptions bf16;
  bf16.matrixType = kiv::DType::BF16;
  const std::string a = model("a.zem");
  const std::string b = model("b.zem", bf16);
  const auto value = compared({a, b, "-p", "then and the system"});
  const auto entry = tensor(value, "blk.3.attn_q.weight");
  EXPECT_EQ(entry["types"], nlohmann::json::array({"F32", "BF16"}));
  EXPECT_GT(entry["relative_difference"], 0.001);
  EXPECT_LT(entry["relative_difference"], 0.01);
  EXPECT_GT(value["text"]["mean_kl_divergence"], 0.0);
  EXPECT_LT(value["text"]["mean_kl_divergence"], 0.01);
  EXPECT_GE(value["text"]["worst_kl_divergence"], value["text"]["mean_kl_divergence"]);
  EXPECT_GT(value["text"]["same_best"], 0.5);
  EXPECT_THAT(zem({"compare", a, b, "-p", "the"}).out,
              AllOf(HasSubstr("F32 and BF16"), HasSubstr("mean KL divergence 0.0")));
}

TEST_F(CompareCliTest, TensorsThatDoNotMatchAreListed) {
  TinyModel other;
  const std::string a = folder_.write("a.zem", other.build());
  other.tensors().erase("blk.31.attn_norm.weight");
  other.tensor("blk.30.attn_norm.weight").shape = {4, 2};
  other.tensor("blk.3.attn_k.weight").type = kiv::DType::F16;
  const auto value = compared({a, folder_.write("b.zem", other.build())});
  EXPECT_EQ(tensor(value, "blk.31.attn_norm.weight")["problem"], "only in one of the files");
  EXPECT_EQ(tensor(value, "blk.31.attn_norm.weight")["types"],
            nlohmann::json::array({"F32", nullptr}));
  EXPECT_EQ(tensor(value, "blk.30.attn_norm.weight")["problem"], "the shapes differ");
  EXPECT_EQ(tensor(value, "blk.3.attn_k.weight")["problem"], "weights of type F16 cannot be read");
}

TEST_F(CompareCliTest, TensorsOutsideTheFileAreNotRead) {
  Bytes bytes = TinyModel().build();
  const std::string a = folder_.write("a.zem", bytes);
  set(bytes, tensorIndex(bytes, "output_norm.weight"), tensor::offset, uint64_t{1} << 40);
  set(bytes, tensorIndex(bytes, "blk.0.attn_norm.weight"), tensor::shape0, uint64_t{1} << 62);
  const auto value = compared({a, folder_.write("b.zem", bytes)});
  EXPECT_EQ(CompareCliTest::tensor(value, "output_norm.weight")["problem"],
            "its weights lie outside the file");
  EXPECT_EQ(CompareCliTest::tensor(value, "blk.0.attn_norm.weight")["problem"],
            "the shapes differ");
  EXPECT_EQ(compared({folder_.path("b.zem"), folder_.path("b.zem")}).size(), 3U);
}

TEST_F(CompareCliTest, WhatCannotBeComparedIsSaid) {
  const std::string a = model("a.zem");
  const std::string missing = folder_.path("missing");
  expectFailure({a, missing}, "cannot read " + missing + ": No such file or directory");
  const std::string text = folder_.write("text", std::string_view("hello"));
  expectFailure({text, a}, text + " is not a model file: ZEM2: file too small");
  TinyModelOptions other;
  other.tokenizer.tokens[5] = "@@";
  expectFailure({a, model("b.zem", other), "-p", "x"},
                "the vocabularies differ, so that the logits cannot be compared");
  expectFailure({a, a, "-p", "\x01"}, "the text has no tokens");
  TinyModelOptions foreign;
  foreign.architecture = "llama";
  const std::string c = model("c.zem", foreign);
  expectFailure({c, c, "-p", "x"}, "cannot compute with " + c +
                                       ": general.architecture is \"llama\", needs \"qwen35\"");
  TinyModel incomplete;
  incomplete.tensors().erase("output_norm.weight");
  const std::string d = folder_.write("d.zem", incomplete.build());
  expectFailure({a, d, "-p", "x"},
                "cannot compute with " + d + ": output_norm.weight: the file has no such tensor");
  EXPECT_EQ(zem({"compare", a}).status, 2);
  EXPECT_EQ(zem({"compare", a, a, "-t", "0"}).status, 2);
}

}  // namespace
}  // namespace zemtest
