// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "kiv/math/exact_math.h"
#include "qwen35_model.h"
#include "runtime_qwen35/open_model.h"
#include "runtime_qwen35/plain_layers.h"
#include "support/scoped_env.h"

namespace qwen35 {
namespace {

using kiv::DType;
using zemtest::ScopedEnv;
using zemtest::TinyModel;

TEST(LinearAttnStep, FollowsItsFormulasOverSeveralTokens) {
  OpenModel m{TinyModel()};
  LinearLayer want(m, 0);
  for (size_t pos = 0; pos < 5; ++pos) {
    const Floats x = m.embedding(10 + pos);
    EXPECT_EQ(attend(m, 0, x, pos), want.step(x)) << pos;
  }
}

TEST(LinearAttnStep, KeyHeadsAreDealtOutInTurn) {
  OpenModel m{TinyModel()};
  m.model.kHeads = 2;
  m.model.vHeads = 4;
  m.model.dInner = 4 * 128;
  // With only key head 1's key non-zero, exactly value heads 1 and 3 gain state.
  const size_t channels = 4 * 128 + 2 * 2 * 128;
  Floats taps(channels * 4);
  const size_t key1 = 3 * 128;
  for (size_t c = key1; c < key1 + 128; ++c) taps[4 * c + 3] = 1;
  for (size_t c = 4 * 128; c < channels; ++c) taps[4 * c + 3] = 1;
  TensorView conv = *m.model.L[0].conv1d;
  conv.data = taps.data();
  m.model.L[0].conv1d = &conv;
  TensorView out = *m.model.L[0].ssm_out;
  out.shape[0] = m.model.dInner;
  m.model.L[0].ssm_out = &out;
  attend(m, 0, m.embedding(9), 0);
  for (size_t h = 0; h < 4; ++h) {
    double sum = 0;
    for (size_t i = 0; i < 128 * 128; ++i) sum += std::fabs(m.model.L[0].state[h * 128 * 128 + i]);
    EXPECT_EQ(sum > 0, h % 2 == 1) << h;
  }
}

TEST(LinearAttnStep, NoDecaySwitchKeepsTheStateFromDecaying) {
  OpenModel m{TinyModel()};
  const ScopedEnv env("QWEN35_NODECAY", "1");
  LinearLayer undecayed(m, 0, /*decays=*/false);
  LinearLayer decayed(m, 0);
  for (size_t pos = 0; pos < 3; ++pos) {
    const Floats x = m.embedding(10 + pos);
    const Floats out = attend(m, 0, x, pos);
    EXPECT_EQ(out, undecayed.step(x)) << pos;
    // Zero times any decay is zero, so the first token cannot tell.
    EXPECT_EQ(out == decayed.step(x), pos == 0) << pos;
  }
}

TEST(LinearAttnStep, FiveStoredTapsGiveTheSameAsFour) {
  TinyModel four;
  TinyModel five;
  auto& conv = five.tensor("blk.0.ssm_conv1d.weight");
  zemtest::Bytes wider;
  for (size_t c = 0; c < 8192; ++c) {
    const auto row = conv.data.begin() + static_cast<ptrdiff_t>(c * 16);
    wider.insert(wider.end(), row, row + 16);
    zemtest::putF32(wider, 1e9F);
  }
  conv.data = wider;
  conv.shape = {5, 8192};
  OpenModel a(four);
  OpenModel b(five);
  for (size_t pos = 0; pos < 4; ++pos) {
    const Floats x = a.embedding(20 + pos);
    EXPECT_EQ(attend(a, 0, x, pos), attend(b, 0, x, pos));
  }
}

TEST(LinearAttnStep, FirstTokenAfterResetSeesAnEmptyWindow) {
  OpenModel m{TinyModel()};
  const Floats x = m.embedding(12);
  const Floats first = attend(m, 0, x, 0);
  attend(m, 0, m.embedding(50), 1);
  resetModel(m.model);
  EXPECT_EQ(attend(m, 0, x, 0), first);
}

TinyModel withBiases() {
  TinyModel tiny;
  const auto add = [&](const char* name, size_t n) {
    tiny.tensors()[name] = {DType::F32, {n}, zemtest::Bytes(n * 4)};
    for (size_t i = 0; i < n; ++i) tiny.setFloat(name, i, 0.001F * static_cast<float>(i % 97));
  };
  add("blk.1.attn_q.bias", 8192);
  add("blk.1.attn_k.bias", 1024);
  add("blk.1.attn_v.bias", 1024);
  return tiny;
}

TEST(FullAttnStep, FollowsItsFormulasOverSeveralTokens) {
  OpenModel m{TinyModel()};
  FullLayer want(m, 1);
  for (size_t pos = 0; pos < 6; ++pos) {
    const Floats x = m.embedding(10 + pos);
    EXPECT_EQ(attend(m, 1, x, pos), want.step(x, pos)) << pos;
    EXPECT_EQ(m.model.L[1].kvLen, pos + 1);
  }
}

TEST(FullAttnStep, BiasesAreAdded) {
  OpenModel m(withBiases());
  FullLayer want(m, 1);
  for (size_t pos = 0; pos < 3; ++pos) {
    const Floats x = m.embedding(10 + pos);
    EXPECT_EQ(attend(m, 1, x, pos), want.step(x, pos)) << pos;
  }
  OpenModel plain{TinyModel()};
  EXPECT_NE(attend(plain, 1, plain.embedding(10), 0), attend(m, 1, m.embedding(10), 3));
}

TEST(FullAttnStep, KeyBiasWithoutQueryBiasIsNotApplied) {
  TinyModel tiny = withBiases();
  tiny.tensors().erase("blk.1.attn_q.bias");
  OpenModel biased(tiny);
  OpenModel plain{TinyModel()};
  EXPECT_EQ(attend(biased, 1, biased.embedding(10), 0), attend(plain, 1, plain.embedding(10), 0));
}

TEST(FullAttnStep, FullCacheIsRefused) {
  OpenModel m(TinyModel(), 2);
  const Floats x = m.embedding(10);
  attend(m, 1, x, 0);
  attend(m, 1, x, 1);
  EXPECT_THROW(attend(m, 1, x, 2), std::length_error);
  EXPECT_EQ(m.model.L[1].kvLen, 2U);
}

TEST(FfnStep, IsSwiGlu) {
  OpenModel m{TinyModel()};
  Layer& L = m.model.L[2];
  const Floats xn = m.embedding(33);
  Floats out(m.model.nEmb, 99.0F);
  ffnStep(m.model, L, xn.data(), out.data());
  const Floats gate = times(m, L.ffn_gate, xn);
  const Floats up = times(m, L.ffn_up, xn);
  Floats h(gate.size());
  for (size_t i = 0; i < h.size(); ++i) {
    h[i] = (gate[i] / (kiv::math::expF32(-gate[i]) + 1.0F)) * up[i];
  }
  EXPECT_EQ(out, times(m, L.ffn_down, h));
}

TEST(Steps, UnalignedSmallTensorsGiveTheSameBits) {
  // Every tensor moved by one byte: floats of a stranger's file may lie anywhere.
  const TinyModel tiny;
  OpenModel aligned(tiny);
  zemtest::Bytes file = tiny.build();
  zemtest::Bytes shifted = file;
  const size_t weights = zemtest::sectionOffset(file, kiv::zem2::SectionType::WeightData);
  shifted.insert(shifted.begin() + static_cast<ptrdiff_t>(weights), 1, uint8_t{0});
  const size_t weightSection = zemtest::sectionIndex(file, kiv::zem2::SectionType::WeightData);
  zemtest::set(shifted, weightSection, zemtest::section::size,
               zemtest::get(file, weightSection, zemtest::section::size) + 1);
  for (size_t i = 0; i < aligned.loader.tensorCount(); ++i) {
    zemtest::set(shifted, i, zemtest::tensor::offset,
                 zemtest::get(file, i, zemtest::tensor::offset) + 1);
  }
  zemtest::reseal(shifted);
  const zemtest::TempFile path(shifted);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(path.path()).ok());
  Model model;
  ASSERT_TRUE(initLayers(loader, model, 32) && bindModel(loader, model, 32));
  Floats x(model.nEmb);
  Floats logits(model.nVocab);
  for (size_t pos = 0; pos < 2; ++pos) {
    embedRow(model, 40 + pos, x.data());
    forwardToken(model, x.data(), pos, logits.data());
    EXPECT_EQ(logits, aligned.logits(40 + pos, pos));
  }
}

}  // namespace
}  // namespace qwen35
