// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "qwen35_kernels.h"
#include "qwen35_model.h"
#include "runtime_qwen35/open_model.h"
#include "support/scoped_env.h"

namespace qwen35 {
namespace {

using zemtest::ScopedEnv;
using zemtest::TinyModel;

// The layer loop written out over the public steps.
Floats hiddenByHand(OpenModel& m, const Floats& x, size_t pos) {
  Floats cur = x;
  const size_t n = cur.size();
  for (size_t il = 0; il < m.model.nLayers; ++il) {
    Layer& L = m.model.L[il];
    Floats attn(n);
    if (L.recr) {
      linearAttnStep(m.model, L, cur.data(), attn.data(), il, pos);
    } else {
      fullAttnStep(m.model, L, cur.data(), attn.data(), pos, il);
    }
    Floats h(n);
    Floats hn(n);
    Floats ffn(n);
    for (size_t i = 0; i < n; ++i) h[i] = cur[i] + attn[i];
    rmsNorm(h.data(), static_cast<const float*>(L.post_norm->data), hn.data(), n, 1e-6F);
    ffnStep(m.model, L, hn.data(), ffn.data());
    for (size_t i = 0; i < n; ++i) cur[i] = h[i] + ffn[i];
  }
  rmsNorm(cur.data(), static_cast<const float*>(m.model.outNorm->data), cur.data(), n, 1e-6F);
  return cur;
}

Floats hidden(OpenModel& m, size_t token, size_t pos) {
  Floats out(m.model.nEmb);
  forwardTokenHidden(m.model, m.embedding(token).data(), pos, out.data());
  return out;
}

TEST(Forward, HiddenStateIsTheLayersInOrder) {
  const TinyModel tiny;
  OpenModel m(tiny);
  OpenModel hand(tiny);
  for (size_t pos = 0; pos < 3; ++pos) {
    EXPECT_EQ(hidden(m, 20 + pos, pos), hiddenByHand(hand, hand.embedding(20 + pos), pos));
  }
}

TEST(Forward, LogitsAreEmbeddingRowsTimesTheHiddenState) {
  const TinyModel tiny;
  OpenModel m(tiny);
  OpenModel other(tiny);
  const Floats logits = m.logits(25, 0);
  const Floats h = hidden(other, 25, 0);
  for (size_t v = 0; v < logits.size(); ++v) {
    EXPECT_EQ(logits[v], dotF32(m.embedding(v).data(), h.data(), h.size())) << v;
  }
}

Floats secondLogits(const TinyModel& tiny, int threads) {
  const ThreadCount guard(threads);
  OpenModel m(tiny);
  m.logits(30, 0);
  return m.logits(31, 1);
}

TEST(Forward, EveryThreadCountGivesTheBitsOfOneThread) {
  const TinyModel tiny;
  const Floats want = secondLogits(tiny, 1);
  for (const int threads : {2, 3, 5, 16}) EXPECT_EQ(secondLogits(tiny, threads), want) << threads;
}

TEST(Forward, QuantisedModelsRun) {
  for (const kiv::DType type : kStoredTypes) {
    zemtest::TinyModelOptions options;
    options.width = 256;
    options.feedForward = 256;
    options.matrixType = type;
    OpenModel m{TinyModel(options)};
    ASSERT_TRUE(m.bound);
    const Floats first = m.logits(30, 0);
    const Floats second = m.logits(31, 1);
    EXPECT_NE(first, second);
    for (const float x : second) ASSERT_TRUE(std::isfinite(x)) << kiv::dtypeName(type);
  }
}

TEST(Forward, HiddenPassNeverTouchesTheHead) {
  zemtest::TinyModelOptions options;
  options.width = 256;
  options.feedForward = 256;
  options.matrixType = kiv::DType::Q4_K;
  OpenModel m{TinyModel(options)};
  struct Seen {
    const TensorView* head;
    size_t others = 0;
    bool headSeen = false;
  } seen{m.model.emb};
  m.model.gpuCtx = &seen;
  m.model.gpuGemvRow = [](void* ctx, const TensorView* W, const float*, float*) {
    auto* s = static_cast<Seen*>(ctx);
    if (W == s->head) {
      s->headSeen = true;
    } else {
      ++s->others;
    }
    return false;
  };
  hidden(m, 30, 0);
  EXPECT_FALSE(seen.headSeen);
  EXPECT_GT(seen.others, 100U);
  m.logits(30, 1);
  EXPECT_TRUE(seen.headSeen);
}

TEST(Forward, AcceptedHeadOnTheGpuIsFinal) {
  zemtest::TinyModelOptions options;
  options.width = 256;
  options.feedForward = 256;
  options.matrixType = kiv::DType::Q6_K;
  OpenModel m{TinyModel(options)};
  m.model.gpuCtx = &m.model;
  m.model.gpuGemvRow = [](void* ctx, const TensorView* W, const float*, float* y) {
    const auto* model = static_cast<const Model*>(ctx);
    if (W != model->emb) return false;
    std::fill_n(y, model->nVocab, 5.0F);
    return true;
  };
  EXPECT_EQ(m.logits(30, 0), Floats(m.model.nVocab, 5.0F));
}

TEST(Ablation, LinKeepsOnlyTheLinearLayers) {
  const TinyModel tiny;
  OpenModel ablated(tiny);
  const ScopedEnv env("QWEN35_ABLATE", "lin");
  const Floats logits = ablated.logits(30, 0);
  for (const Layer& L : ablated.model.L) EXPECT_EQ(L.kvLen, 0U);

  // The same model whose full-attention layers contribute nothing.
  TinyModel silent;
  for (size_t il = 1; il < 32; ++il) {
    auto& wo = silent.tensor("blk." + std::to_string(il) + ".attn_output.weight");
    std::fill(wo.data.begin(), wo.data.end(), uint8_t{0});
  }
  const ScopedEnv off("QWEN35_ABLATE", nullptr);
  OpenModel m(silent);
  EXPECT_EQ(m.logits(30, 0), logits);
}

TEST(Ablation, FullKeepsOnlyTheFullAttentionLayers) {
  OpenModel m{TinyModel()};
  const ScopedEnv env("QWEN35_ABLATE", "full");
  m.logits(30, 0);
  for (const float s : m.model.L[0].state) ASSERT_EQ(s, 0.0F);
  EXPECT_EQ(m.model.L[1].kvLen, 1U);
}

TEST(Ablation, OtherValuesHaveNoEffect) {
  const TinyModel tiny;
  OpenModel plain(tiny);
  const Floats want = plain.logits(30, 0);
  const ScopedEnv env("QWEN35_ABLATE", "LIN");
  OpenModel m(tiny);
  EXPECT_EQ(m.logits(30, 0), want);
}

}  // namespace
}  // namespace qwen35
