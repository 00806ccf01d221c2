// SPDX-License-Identifier: Apache-2.0
#include "qwen35_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "kiv/dequant.h"
#include "matmul/matrix.h"
#include "qwen35_kernels.h"
#include "runtime_qwen35/open_model.h"

namespace qwen35 {
namespace {

using kiv::DType;
using zemtest::TinyModel;

bool binds(const TinyModel& tiny) { return OpenModel(tiny).bound; }

TEST(Binding, WholeModelBinds) {
  OpenModel m{TinyModel()};
  ASSERT_TRUE(m.bound);
  EXPECT_EQ(m.model.nLayers, 32U);
  EXPECT_EQ(m.model.nEmb, 8U);
  EXPECT_EQ(m.model.nVocab, zemtest::tinyTokenizer().tokens.size());
  EXPECT_EQ(m.model.kvCap, 32U);
  EXPECT_TRUE(m.model.L[0].recr);
  EXPECT_FALSE(m.model.L[1].recr);
  EXPECT_EQ(m.model.L[0].state.size(), 128U * 128 * 32);
  EXPECT_EQ(m.model.L[0].convWin.size(), 8192U * 3);
  EXPECT_TRUE(m.model.L[0].kCache.empty());
  EXPECT_EQ(m.model.L[1].kCache.size(), 4U * 256 * 32);
  EXPECT_EQ(m.model.L[1].vCache.size(), 4U * 256 * 32);
  EXPECT_TRUE(m.model.L[1].state.empty());
  EXPECT_EQ(m.model.L[31].ffn_down->name, "blk.31.ffn_down.weight");
}

TEST(Binding, MissingTensorOfTheLastLayerFails) {
  TinyModel tiny;
  tiny.tensors().erase("blk.31.ffn_down.weight");
  EXPECT_FALSE(binds(tiny));
}

TEST(Binding, EveryRequiredTensorIsRequired) {
  for (const char* name : {"token_embd.weight",
                           "output_norm.weight",
                           "blk.0.attn_norm.weight",
                           "blk.0.post_attention_norm.weight",
                           "blk.0.ffn_gate.weight",
                           "blk.0.ffn_up.weight",
                           "blk.0.ffn_down.weight",
                           "blk.0.attn_qkv.weight",
                           "blk.0.attn_gate.weight",
                           "blk.0.ssm_beta.weight",
                           "blk.0.ssm_alpha.weight",
                           "blk.0.ssm_dt.bias",
                           "blk.0.ssm_a",
                           "blk.0.ssm_conv1d.weight",
                           "blk.0.ssm_norm.weight",
                           "blk.0.ssm_out.weight",
                           "blk.1.attn_q.weight",
                           "blk.1.attn_k.weight",
                           "blk.1.attn_v.weight",
                           "blk.1.attn_output.weight",
                           "blk.1.attn_q_norm.weight",
                           "blk.1.attn_k_norm.weight"}) {
    TinyModel tiny;
    ASSERT_EQ(tiny.tensors().erase(name), 1U) << name;
    EXPECT_FALSE(binds(tiny)) << name;
  }
}

TEST(Binding, PresenceOfSsmOutAloneMakesALayerLinear) {
  TinyModel tiny;
  tiny.tensors()["blk.5.ssm_out.weight"] = tiny.tensor("blk.0.ssm_out.weight");
  EXPECT_FALSE(binds(tiny)) << "a linear layer without ssm_a and the others must not bind";
}

TEST(Binding, MoreThan32BlocksBindTheFirst32) {
  TinyModel tiny;
  tiny.tensors()["blk.32.attn_norm.weight"] = tiny.tensor("blk.1.attn_norm.weight");
  OpenModel m(tiny);
  EXPECT_TRUE(m.bound);
  EXPECT_EQ(m.model.L.size(), 32U);
}

TEST(Binding, BiasesAreOptional) {
  TinyModel tiny;
  OpenModel plain(tiny);
  EXPECT_EQ(plain.model.L[1].qb, nullptr);
  tiny.tensors()["blk.1.attn_q.bias"] = {DType::F32, {8192}, zemtest::Bytes(8192 * 4)};
  OpenModel biased(tiny);
  EXPECT_TRUE(biased.bound);
  EXPECT_NE(biased.model.L[1].qb, nullptr);
  EXPECT_EQ(biased.model.L[1].kb, nullptr);
}

TEST(Binding, RepeatedInitGivesFreshState) {
  OpenModel m{TinyModel()};
  m.logits(3, 0);
  ASSERT_TRUE(initLayers(m.loader, m.model, 16));
  EXPECT_EQ(m.model.L[1].kvLen, 0U);
  EXPECT_EQ(m.model.L[1].kCache.size(), 4U * 256 * 16);
  EXPECT_EQ(std::count(m.model.L[0].state.begin(), m.model.L[0].state.end(), 0.0F), 128 * 128 * 32);
}

TEST(Reset, LeavesEveryStateAndCacheZero) {
  OpenModel m{TinyModel()};
  for (size_t pos = 0; pos < 3; ++pos) m.logits(pos, pos);
  const auto isZero = [](const auto& v) {
    return std::all_of(v.begin(), v.end(), [](float x) { return x == 0.0F; });
  };
  EXPECT_FALSE(isZero(m.model.L[0].state));
  EXPECT_FALSE(isZero(m.model.L[0].convWin));
  EXPECT_FALSE(isZero(m.model.L[1].kCache));
  EXPECT_FALSE(isZero(m.model.L[1].vCache));
  resetModel(m.model);
  for (const Layer& layer : m.model.L) {
    EXPECT_EQ(layer.kvLen, 0U);
    EXPECT_TRUE(isZero(layer.state) && isZero(layer.convWin));
    EXPECT_TRUE(isZero(layer.kCache) && isZero(layer.vCache));
  }
}

// A short conversation's slots are written over, a long one's pages given back.
TEST(Reset, ClearsFewSlotsAndMany) {
  for (const size_t tokens : {1, 255, 257, 300}) {
    OpenModel m(TinyModel(), 400);
    Floats x;
    for (size_t i = 0; i < tokens; ++i) {
      const Floats one = m.embedding(i % m.model.nVocab);
      x.insert(x.end(), one.begin(), one.end());
    }
    Floats hidden(x.size());
    forwardTokensHidden(m.model, x.data(), tokens, 0, hidden.data());
    Layer& L = m.model.L[1];
    L.kvLen = 0;  // as if the steps had failed before they counted
    EXPECT_EQ(L.kvUsed, tokens);
    EXPECT_NE(L.vCache[(tokens - 1) * m.model.headDim], 0.0F);
    resetModel(m.model);
    EXPECT_EQ(L.kvUsed, 0U);
    for (const ZeroedFloats* cache : {&L.kCache, &L.vCache}) {
      EXPECT_EQ(std::count(cache->begin(), cache->end(), 0.0F),
                static_cast<ptrdiff_t>(cache->size()));
    }
  }
}

TEST(Reset, SecondRunGivesTheSameBits) {
  OpenModel m{TinyModel()};
  m.logits(5, 0);
  const Floats first = m.logits(6, 1);
  resetModel(m.model);
  resetModel(m.model);
  m.logits(5, 0);
  EXPECT_EQ(m.logits(6, 1), first);
}

TEST(EmbedRow, IsTheWidenedRowOfTheToken) {
  OpenModel m{TinyModel()};
  Floats want(m.model.nEmb);
  rowToF32(m.model.emb, 17, want.size(), want.data());
  EXPECT_EQ(m.embedding(17), want);
}

}  // namespace
}  // namespace qwen35
