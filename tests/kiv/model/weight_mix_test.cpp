// SPDX-License-Identifier: Apache-2.0
#include "kiv/model/weight_mix.h"

#include <gtest/gtest.h>

#include <string>

namespace kiv {
namespace {

constexpr TensorRole kOrdinary[] = {
    TensorRole::Query,           TensorRole::Key,          TensorRole::AttentionOutput,
    TensorRole::Mixed,           TensorRole::Gate,         TensorRole::StateOutput,
    TensorRole::FeedForwardGate, TensorRole::FeedForwardUp};
constexpr TensorRole kSensitive[] = {TensorRole::Embedding, TensorRole::Value,
                                     TensorRole::FeedForwardDown};
constexpr TensorRole kDeciding[] = {TensorRole::Alpha, TensorRole::Beta};

struct MixCase {
  WeightMix mix;
  const char* name;
  DType ordinary;
  DType sensitive;
  DType deciding;
};

TEST(WeightMixTest, GivesEveryRoleItsType) {
  for (const MixCase& c :
       {MixCase{WeightMix::F32, "f32", DType::F32, DType::F32, DType::F32},
        MixCase{WeightMix::BF16, "bf16", DType::BF16, DType::BF16, DType::BF16},
        MixCase{WeightMix::Q8_0, "q8_0", DType::Q8_0, DType::Q8_0, DType::Q8_0},
        MixCase{WeightMix::Q4_K, "q4_k", DType::Q4_K, DType::Q4_K, DType::Q8_0},
        MixCase{WeightMix::Q5_K, "q5_k", DType::Q5_K, DType::Q5_K, DType::Q8_0},
        MixCase{WeightMix::Q6_K, "q6_k", DType::Q6_K, DType::Q6_K, DType::Q8_0},
        MixCase{WeightMix::Q4_K_M, "q4_k_m", DType::Q4_K, DType::Q6_K, DType::Q8_0},
        MixCase{WeightMix::Q5_K_M, "q5_k_m", DType::Q5_K, DType::Q6_K, DType::Q8_0}}) {
    EXPECT_STREQ(weightMixName(c.mix), c.name);
    EXPECT_EQ(baseType(c.mix), c.ordinary) << c.name;
    EXPECT_EQ(isMixed(c.mix), std::string(c.name).ends_with("_m")) << c.name;
    for (const TensorRole role : kOrdinary) EXPECT_EQ(matrixType(c.mix, role), c.ordinary);
    for (const TensorRole role : kSensitive) EXPECT_EQ(matrixType(c.mix, role), c.sensitive);
    for (const TensorRole role : kDeciding) EXPECT_EQ(matrixType(c.mix, role), c.deciding);
  }
}

TEST(WeightMixTest, AllHaveNamesOfTheirOwn) {
  for (const WeightMix a : kWeightMixes) {
    for (const WeightMix b : kWeightMixes) {
      EXPECT_EQ(std::string(weightMixName(a)) == weightMixName(b), a == b);
    }
  }
}

}  // namespace
}  // namespace kiv
