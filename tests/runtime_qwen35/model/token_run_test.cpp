// SPDX-License-Identifier: Apache-2.0
// Many tokens through the layers at once: the bits, and the state left behind, of
// one token at a time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "kernels/reference.h"
#include "layers/blocks.h"
#include "matmul/matmul.h"
#include "model/checkpoint.h"
#include "qwen35_model.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/open_model.h"
#include "runtime_qwen35/random_matrix.h"
#include "support/scoped_env.h"
#include "support/thorough.h"

namespace qwen35 {
namespace {

using zemtest::fewCases;
using zemtest::ScopedEnv;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

constexpr size_t kCapacity = 160;
const std::vector<int> kThreads = fewCases() ? std::vector{5} : std::vector{1, 2, 5};

Floats embeddings(OpenModel& m, size_t count, size_t first) {
  Floats all;
  for (size_t i = 0; i < count; ++i) {
    const Floats x = m.embedding((first * 7 + i * 13) % m.model.nVocab);
    all.insert(all.end(), x.begin(), x.end());
  }
  return all;
}

Floats together(OpenModel& m, const Floats& x, size_t pos) {
  Floats hidden(x.size());
  forwardTokensHidden(m.model, x.data(), x.size() / m.model.nEmb, pos, hidden.data());
  return hidden;
}

Floats oneByOne(OpenModel& m, const Floats& x, size_t pos) {
  Floats hidden(x.size());
  const size_t n = m.model.nEmb;
  for (size_t i = 0; i * n < x.size(); ++i) {
    forwardTokenHidden(m.model, x.data() + i * n, pos + i, hidden.data() + i * n);
  }
  return hidden;
}

void expectSameState(const Model& a, const Model& b) {
  for (size_t i = 0; i < a.L.size(); ++i) {
    EXPECT_EQ(a.L[i].kvLen, b.L[i].kvLen) << i;
    EXPECT_TRUE(std::ranges::equal(a.L[i].state, b.L[i].state)) << i;
    EXPECT_TRUE(std::ranges::equal(a.L[i].convWin, b.L[i].convWin)) << i;
    EXPECT_TRUE(std::ranges::equal(a.L[i].kCache, b.L[i].kCache)) << i;
    EXPECT_TRUE(std::ranges::equal(a.L[i].vCache, b.L[i].vCache)) << i;
  }
}

class TokenRuns : public AtEveryLevel<CpuLevel> {};

INSTANTIATE_TEST_SUITE_P(Levels, TokenRuns, testing::ValuesIn(kEveryLevel), levelName);

TEST_P(TokenRuns, OfAnyLengthAreOneByOne) {
  const TinyModel tiny;
  for (const size_t count : {1, 2, 7, 9, 50}) {
    SCOPED_TRACE(count);
    OpenModel a(tiny, kCapacity);
    OpenModel b(tiny, kCapacity);
    const Floats x = embeddings(a, count, count);
    EXPECT_EQ(together(a, x, 0), oneByOne(b, x, 0));
    expectSameState(a.model, b.model);
    EXPECT_EQ(a.logits(9, count), b.logits(9, count));
  }
}

TEST_P(TokenRuns, MayFollowEachOther) {
  const TinyModel tiny;
  OpenModel a(tiny, kCapacity);
  OpenModel b(tiny, kCapacity);
  size_t pos = 0;
  for (const size_t count : {5, 1, 48, 2}) {
    SCOPED_TRACE(pos);
    const Floats x = embeddings(a, count, pos);
    EXPECT_EQ(together(a, x, pos), oneByOne(b, x, pos));
    pos += count;
  }
  expectSameState(a.model, b.model);
}

TEST_P(TokenRuns, AreTheSameForAnyNumberOfThreads) {
  TinyModelOptions options;
  options.width = 256;
  options.feedForward = 512;
  options.linearLayers = {0, 2};
  options.matrixType = DType::Q4_K;
  const TinyModel tiny(options);
  OpenModel b(tiny, kCapacity);
  const Floats x = embeddings(b, 21, 1);
  const Floats want = oneByOne(b, x, 0);
  for (const int threads : kThreads) {
    SCOPED_TRACE(threads);
    const ThreadCount guard(threads);
    OpenModel a(tiny, kCapacity);
    EXPECT_EQ(together(a, x, 0), want);
    expectSameState(a.model, b.model);
  }
}

TEST_P(TokenRuns, QuantisedModelsAreOneByOne) {
  for (const DType type :
       fewCases() ? std::vector{DType::Q6_K} : std::vector{DType::Q8_0, DType::Q6_K}) {
    SCOPED_TRACE(kiv::dtypeName(type));
    TinyModelOptions options;
    options.width = 256;
    options.feedForward = 256;
    options.matrixType = type;
    const TinyModel tiny(options);
    OpenModel a(tiny, kCapacity);
    OpenModel b(tiny, kCapacity);
    const Floats x = embeddings(a, 11, 3);
    EXPECT_EQ(together(a, x, 0), oneByOne(b, x, 0));
    expectSameState(a.model, b.model);
  }
}

// What one token attends to over a cache of `slots` random positions, by the plain
// loops, before the output product.
Floats attendedByHand(const Model& m, const Layer& L, const Floats& q, size_t pos) {
  Floats o(m.nHead * m.headDim);
  Floats weights(L.kvLen);
  Floats cosines(m.nRot / 2);
  Floats sines(m.nRot / 2);
  reference::ropeAngles(m.nRot, pos, cosines.data(), sines.data());
  for (size_t h = 0; h < m.nHead; ++h) {
    const float* head = q.data() + 2 * h * m.headDim;
    Floats query(m.headDim);
    reference::rmsNorm(head, static_cast<const float*>(L.q_norm->data), query.data(), m.headDim,
                       1e-6F);
    reference::ropeRotate(query.data(), m.nRot, cosines.data(), sines.data());
    const size_t cache = h / (m.nHead / m.nHeadKv) * m.kvCap * m.headDim;
    reference::attendHead(query.data(), head + m.headDim, L.kCache.data() + cache,
                          L.vCache.data() + cache, L.kvLen, m.headDim, weights.data(),
                          o.data() + h * m.headDim);
  }
  return o;
}

TEST_P(TokenRuns, ALongCacheIsReadInThePlainOrder) {
  for (const int threads : kThreads) {
    const ThreadCount guard(threads);
    for (const size_t before : {0, 1, 30, 31, 255, 256, 700}) {
      SCOPED_TRACE(testing::Message() << threads << " threads, " << before << " slots");
      OpenModel m(TinyModel(), 701);
      Layer& L = m.model.L[1];
      ASSERT_FALSE(L.recr);
      const Floats keys = randomVector(L.kCache.size(), 1);
      const Floats values = randomVector(L.vCache.size(), 2);
      std::copy(keys.begin(), keys.end(), L.kCache.begin());
      std::copy(values.begin(), values.end(), L.vCache.begin());
      L.kvLen = before;

      const Floats x = m.embedding(33);
      Floats got(m.model.nEmb);
      fullAttnStep(m.model, L, x.data(), got.data(), before, 1);
      ASSERT_EQ(L.kvLen, before + 1);

      Floats xn(m.model.nEmb);
      reference::rmsNorm(x.data(), static_cast<const float*>(L.attn_norm->data), xn.data(),
                         xn.size(), 1e-6F);
      Floats q(matrixRows(*L.wq));
      matvec({}, *L.wq, xn.data(), q);
      Floats want(m.model.nEmb);
      matvec({}, *L.wo, attendedByHand(m.model, L, q, before).data(), want);
      EXPECT_EQ(got, want);
    }
  }
}

// Head dimensions and groups that fill no vector: the decoder's loops must not
// count on the supported architecture's.
TEST_P(TokenRuns, OddHeadsAreReadInThePlainOrder) {
  Model m;
  m.nEmb = 20;
  m.nHead = 14;
  m.nHeadKv = 2;  // seven heads share a cache: four and three at a time
  m.headDim = 37;
  m.nRot = 10;
  m.kvCap = 50;
  std::mt19937 rng(3);
  const auto matrix = [&](size_t cols, size_t rows) {
    return RandomMatrix(DType::F32, rows, cols, static_cast<uint32_t>(rng()));
  };
  // Random bytes are of every exponent; numbers of one size tell more.
  const auto fill = [](RandomMatrix& W, uint32_t seed) {
    const Floats values = randomVector(W.view().size / sizeof(float), seed);
    std::copy_n(reinterpret_cast<const uint8_t*>(values.data()), W.view().size, W.bytes());
  };
  RandomMatrix wq = matrix(20, 2 * 14 * 37);
  RandomMatrix wk = matrix(20, 2 * 37);
  RandomMatrix wv = matrix(20, 2 * 37);
  RandomMatrix wo = matrix(14 * 37, 20);
  RandomMatrix norm = matrix(20, 1);
  RandomMatrix headNorm = matrix(37, 1);
  uint32_t seed = 10;
  for (RandomMatrix* W : {&wq, &wk, &wv, &wo, &norm, &headNorm}) fill(*W, ++seed);
  Layer L;
  L.attn_norm = &norm.view();
  L.wq = &wq.view();
  L.wk = &wk.view();
  L.wv = &wv.view();
  L.wo = &wo.view();
  L.q_norm = &headNorm.view();
  L.k_norm = &headNorm.view();
  L.kCache = ZeroedFloats(2 * 50 * 37);
  L.vCache = ZeroedFloats(2 * 50 * 37);

  for (size_t pos = 0; pos < 40; ++pos) {
    const Floats x = randomVector(20, 40 + static_cast<uint32_t>(pos));
    Floats got(20);
    fullAttnStep(m, L, x.data(), got.data(), pos, 0);
    Floats xn(20);
    reference::rmsNorm(x.data(), static_cast<const float*>(norm.view().data), xn.data(), 20, 1e-6F);
    Floats q(2 * 14 * 37);
    matvec({}, *L.wq, xn.data(), q);
    Floats want(20);
    matvec({}, *L.wo, attendedByHand(m, L, q, pos).data(), want);
    ASSERT_EQ(got, want) << pos;
  }
}

TEST(TokenRun, LongerThanTheCacheIsRefused) {
  OpenModel m(TinyModel(), 10);
  const Floats x = embeddings(m, 11, 0);
  Floats hidden(x.size());
  EXPECT_THROW(forwardTokensHidden(m.model, x.data(), 11, 0, hidden.data()), std::length_error);
}

TEST(TokenRun, OfNoTokensDoesNothing) {
  OpenModel m(TinyModel(), 10);
  forwardTokensHidden(m.model, nullptr, 0, 0, nullptr);
  EXPECT_EQ(m.model.L[1].kvLen, 0U);
}

// A trace or an ablation is of one token at a time, also within a run.
TEST(TokenRun, DiagnosticsSeeEveryToken) {
  OpenModel m(TinyModel(), kCapacity);
  const Floats x = embeddings(m, 3, 0);
  const ScopedEnv timing("QWEN35_TIMING", "1");
  testing::internal::CaptureStderr();
  together(m, x, 0);
  const std::string printed = testing::internal::GetCapturedStderr();
  for (const char* pos : {"pos=0 ", "pos=1 ", "pos=2 "}) {
    EXPECT_THAT(printed, testing::HasSubstr(pos));
  }
}

TEST(TokenRun, AblationLeavesLayersOutOfARun) {
  const TinyModel tiny;
  OpenModel a(tiny, kCapacity);
  OpenModel b(tiny, kCapacity);
  const Floats x = embeddings(a, 4, 0);
  const ScopedEnv env("QWEN35_ABLATE", "lin");
  EXPECT_EQ(together(a, x, 0), oneByOne(b, x, 0));
  EXPECT_EQ(a.model.L[1].kvLen, 0U);
}

class Restoring : public testing::TestWithParam<size_t> {};

TEST_P(Restoring, UndoesARun) {
  const size_t before = GetParam();
  const TinyModel tiny;
  OpenModel a(tiny, kCapacity);
  OpenModel b(tiny, kCapacity);
  const Floats first = embeddings(a, before, 0);
  together(a, first, 0);
  together(b, first, 0);
  Checkpoint checkpoint(a.model);
  checkpoint.take(before);
  together(a, embeddings(a, 9, 1), before);
  checkpoint.restore();
  expectSameState(a.model, b.model);
  // And again, from the same copy.
  together(a, embeddings(a, 20, 2), before);
  checkpoint.restore();
  expectSameState(a.model, b.model);
  EXPECT_EQ(a.logits(8, before), b.logits(8, before));
}

INSTANTIATE_TEST_SUITE_P(Checkpoint, Restoring, testing::Values(0, 1, 30));

TEST(Checkpoint, TakenAgainRemembersTheLaterState) {
  OpenModel m(TinyModel(), kCapacity);
  Checkpoint checkpoint(m.model);
  checkpoint.take(0);
  together(m, embeddings(m, 5, 0), 0);
  checkpoint.take(5);
  together(m, embeddings(m, 5, 1), 5);
  checkpoint.restore();
  EXPECT_EQ(m.model.L[1].kvLen, 5U);
}

}  // namespace
}  // namespace qwen35
