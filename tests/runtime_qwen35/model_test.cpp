#include "qwen35_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "kiv/dequant.h"
#include "matmul/product.h"
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

// A matrix view over bytes of the test's own.
struct OwnMatrix {
  OwnMatrix(DType type, size_t cols, size_t rows, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> range(-1, 1);
    values.resize(cols * rows);
    for (float& v : values) v = range(rng);
    bytes = zemtest::encodeRows(type, values, cols);
    view.dtype = type;
    view.shape = {cols, rows, 0, 0};
    view.ndim = 2;
    view.size = bytes.size();
    view.data = bytes.data();
  }

  // Row `r` by the library's block decoders.
  Floats row(size_t r) const {
    Floats out(view.shape[0]);
    rowToF32(&view, r, out.size(), out.data());
    return out;
  }

  Floats values;
  zemtest::Bytes bytes;
  TensorView view;
};

class EveryType : public testing::TestWithParam<DType> {};

TEST_P(EveryType, RowsWidenCloseToWhatWasStored) {
  const OwnMatrix W(GetParam(), 512, 3, 1);
  for (size_t r = 0; r < 3; ++r) {
    const Floats row = W.row(r);
    for (size_t c = 0; c < row.size(); ++c) EXPECT_NEAR(row[c], W.values[r * 512 + c], 0.08) << c;
  }
}

TEST_P(EveryType, ProductAddsPlainRowSums) {
  const size_t rows = 131;  // enough weights for a team, and odd
  const OwnMatrix W(GetParam(), 256, rows, 2);
  Floats x(256);
  for (size_t c = 0; c < x.size(); ++c) x[c] = 0.01F * static_cast<float>(c) - 1;
  for (const int threads : {1, 2, 5, 9}) {
    const ThreadCount guard(threads);
    Model m;
    Floats y(rows, 0.5F);
    gemvRow(m, &W.view, x.data(), y.data());
    for (size_t r = 0; r < y.size(); ++r) {
      EXPECT_EQ(y[r], 0.5F + dotF32(W.row(r).data(), x.data(), 256)) << threads;
    }
  }
}

TEST_P(EveryType, UnalignedBytesGiveTheSameProduct) {
  OwnMatrix W(GetParam(), 256, 5, 3);
  const Floats x(256, 0.75F);
  Model m;
  Floats want(5);
  gemvRow(m, &W.view, x.data(), want.data());
  zemtest::Bytes shifted(W.bytes.size() + 1);
  std::copy(W.bytes.begin(), W.bytes.end(), shifted.begin() + 1);
  W.view.data = shifted.data() + 1;
  Floats y(5);
  gemvRow(m, &W.view, x.data(), y.data());
  EXPECT_EQ(y, want);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryType,
                         testing::Values(DType::F32, DType::BF16, DType::Q8_0, DType::Q4_K,
                                         DType::Q5_K, DType::Q6_K),
                         [](const auto& type) { return kiv::dtypeName(type.param); });

TEST(RowToF32, TypesThatAreNotComputedLeaveTheOutputAlone) {
  OwnMatrix W(DType::F32, 32, 1, 4);
  for (const DType type : {DType::F16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1}) {
    W.view.dtype = type;
    Floats out(32, 7.0F);
    rowToF32(&W.view, 0, 32, out.data());
    EXPECT_EQ(out, Floats(32, 7.0F));
    Model m;
    float y = 3;
    gemvRow(m, &W.view, out.data(), &y);
    EXPECT_EQ(y, 3.0F);
  }
}

TEST(MatrixRows, IsTheProductOfTheOuterExtents) {
  TensorView view;
  view.shape = {5, 3, 2, 7};
  for (const auto& [ndim, rows] : {std::pair{0, 1}, {1, 1}, {2, 3}, {3, 6}, {4, 42}}) {
    view.ndim = static_cast<uint16_t>(ndim);
    EXPECT_EQ(matrixRows(view), static_cast<size_t>(rows));
  }
}

// A GPU hook that counts its calls and computes nothing.
struct CountingHook {
  size_t calls = 0;
  bool accept = false;

  static bool run(void* ctx, const TensorView* W, const float* /*x*/, float* y) {
    auto* self = static_cast<CountingHook*>(ctx);
    ++self->calls;
    if (self->accept) std::fill_n(y, matrixRows(*W), 42.0F);
    return self->accept;
  }
};

TEST(GpuHook, DecliningLeavesTheProductToTheCpu) {
  const OwnMatrix W(DType::Q4_K, 256, 4, 5);
  const Floats x(256, 1.0F);
  Model plain;
  Floats want(4);
  gemvRow(plain, &W.view, x.data(), want.data());
  CountingHook hook;
  Model m;
  m.gpuCtx = &hook;
  m.gpuGemvRow = CountingHook::run;
  Floats y(4);
  gemvRow(m, &W.view, x.data(), y.data());
  EXPECT_EQ(hook.calls, 1U);
  EXPECT_EQ(y, want);
}

TEST(GpuHook, AcceptingReplacesTheProduct) {
  const OwnMatrix W(DType::Q6_K, 256, 4, 6);
  const Floats x(256, 1.0F);
  CountingHook hook;
  hook.accept = true;
  Model m;
  m.gpuCtx = &hook;
  m.gpuGemvRow = CountingHook::run;
  Floats y(4);
  gemvRow(m, &W.view, x.data(), y.data());
  EXPECT_EQ(y, Floats(4, 42.0F));
}

TEST(GpuHook, IsOfferedKQuantsOnly) {
  CountingHook hook;
  Model m;
  m.gpuCtx = &hook;
  m.gpuGemvRow = CountingHook::run;
  const Floats x(256, 1.0F);
  Floats y(2);
  for (const DType type : {DType::F32, DType::BF16, DType::Q8_0}) {
    const OwnMatrix W(type, 256, 2, 7);
    gemvRow(m, &W.view, x.data(), y.data());
  }
  EXPECT_EQ(hook.calls, 0U);
  m.gpuCtx = nullptr;
  const OwnMatrix W(DType::Q5_K, 256, 2, 8);
  gemvRow(m, &W.view, x.data(), y.data());
  EXPECT_EQ(hook.calls, 0U) << "both halves of the hook must be set";
}

TEST(EmbedRow, IsTheWidenedRowOfTheToken) {
  OpenModel m{TinyModel()};
  Floats want(m.model.nEmb);
  rowToF32(m.model.emb, 17, want.size(), want.data());
  EXPECT_EQ(m.embedding(17), want);
}

}  // namespace
}  // namespace qwen35
