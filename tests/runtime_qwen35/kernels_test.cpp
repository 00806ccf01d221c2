// SPDX-License-Identifier: Apache-2.0
#include "qwen35_kernels.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "kernels/reference.h"
#include "kiv/math/exact_math.h"
#include "runtime_qwen35/open_model.h"

namespace qwen35 {
namespace {

Floats randomFloats(size_t n, uint32_t seed, float scale = 1.0F) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> range(-scale, scale);
  Floats out(n);
  for (float& x : out) x = range(rng);
  return out;
}

TEST(Bf16, OneIsAShiftedPattern) { EXPECT_EQ(f32ToBf16(1.0F), 0x3F80); }

TEST(Bf16, HalfwayRoundsToTheEvenNeighbour) {
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x3F808000U)), 0x3F80);
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x3F818000U)), 0x3F82);
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x3F808001U)), 0x3F81);
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x3F807FFFU)), 0x3F80);
}

TEST(Bf16, EveryPatternComesBackUnchanged) {
  for (uint32_t h = 0; h <= 0xFFFF; ++h) {
    const auto pattern = static_cast<uint16_t>(h);
    EXPECT_EQ(f32ToBf16(bf16ToF32(pattern)), pattern);
  }
}

TEST(RmsNorm, ZerosGiveZeros) {
  const Floats x(5, 0.0F);
  const Floats w(5, 3.0F);
  Floats out(5, 1.0F);
  rmsNorm(x.data(), w.data(), out.data(), 5, 1e-6F);
  EXPECT_EQ(out, Floats(5, 0.0F));
}

TEST(RmsNorm, NothingIsWrittenForNoElements) {
  float out = 7;
  rmsNorm(nullptr, nullptr, &out, 0, 1e-6F);
  EXPECT_EQ(out, 7.0F);
}

TEST(RmsNorm, WeightMultipliesDirectly) {
  const Floats x = {3, -4};
  const Floats w = {2, 0.5F};
  Floats out(2);
  rmsNorm(x.data(), w.data(), out.data(), 2, 0.0F);
  const float r = 1.0F / std::sqrt(12.5F);
  EXPECT_EQ(out[0], 3 * r * 2);
  EXPECT_EQ(out[1], -4 * r * 0.5F);
}

TEST(RmsNorm, SumIsTakenInDouble) {
  // In float the small squares would vanish beside the large one.
  Floats x(4097, 1.0F);
  x[0] = 8192.0F;
  const Floats w(x.size(), 1.0F);
  Floats out(x.size());
  rmsNorm(x.data(), w.data(), out.data(), x.size(), 0.0F);
  const auto mean = static_cast<float>((67108864.0 + 4096.0) / 4097.0);
  EXPECT_EQ(out[1], 1.0F / std::sqrt(mean));
  EXPECT_NE(mean, static_cast<float>(67108864.0 / 4097.0)) << "what a float's sum would give";
}

TEST(Activations, FollowTheirFormulas) {
  const Floats x = {-30, -1.5F, -0.0F, 0.25F, 4, 90, -90};
  Floats s(x.size());
  Floats g(x.size());
  silu(x.data(), s.data(), x.size());
  sigmoid(x.data(), g.data(), x.size());
  for (size_t i = 0; i < x.size(); ++i) {
    EXPECT_EQ(s[i], x[i] / (kiv::math::expF32(-x[i]) + 1.0F));
    EXPECT_EQ(g[i], 1.0F / (kiv::math::expF32(-x[i]) + 1.0F));
    EXPECT_NEAR(g[i], 1.0 / (1.0 + std::exp(-static_cast<double>(x[i]))), 1e-6);
  }
}

TEST(Activations, WorkInPlace) {
  Floats x = randomFloats(33, 1, 8);
  Floats out(x.size());
  silu(x.data(), out.data(), x.size());
  silu(x.data(), x.data(), x.size());
  EXPECT_EQ(x, out);
}

TEST(Softplus, ThresholdTwentyIsStrict) {
  const Floats x = {20.0F, 20.0001F, -5.0F, 100.0F};
  Floats out(x.size());
  softplus(x.data(), out.data(), x.size());
  EXPECT_EQ(out[0], kiv::math::log1pF32(kiv::math::expF32(20.0F)));
  EXPECT_EQ(out[1], 20.0001F);
  EXPECT_NEAR(out[2], std::log1p(std::exp(-5.0)), 1e-9);
  EXPECT_EQ(out[3], 100.0F);
}

TEST(L2NormBlocks, EpsilonIsAddedToTheSum) {
  const Floats x = {3, 4, 0, 0};
  Floats out(4, 9.0F);
  l2NormBlocks(x.data(), out.data(), 2, 2, 0.5F);
  const float r = 1.0F / std::sqrt(25.5F);
  EXPECT_EQ(out, (Floats{3 * r, 4 * r, 0, 0}));
}

TEST(L2NormBlocks, SumIsTakenInDouble) {
  // In float the small squares would vanish beside the large one.
  Floats x(4097, 1.0F);
  x[0] = 8192.0F;
  Floats out(x.size());
  l2NormBlocks(x.data(), out.data(), 1, x.size(), 0.0F);
  const float r = 1.0F / std::sqrt(67112960.0F);
  EXPECT_EQ(out[1], r);
  EXPECT_NE(r, 1.0F / std::sqrt(67108864.0F)) << "what a float's sum would give";
}

TEST(DotF32, NoElementsGiveZero) { EXPECT_EQ(dotF32(nullptr, nullptr, 0), 0.0F); }

TEST(DotF32, SumsFromTheFirstElementUpward) {
  const Floats a = {1e8F, 1.0F, -1e8F, 1.0F};
  const Floats ones(4, 1.0F);
  EXPECT_EQ(dotF32(a.data(), ones.data(), 4), 1.0F);
}

class Matvec : public testing::TestWithParam<int> {};

TEST_P(Matvec, EachRowIsItsPlainSumAddedToY) {
  const ThreadCount threads(GetParam());
  // The last of these are enough weights for a team.
  for (const size_t rows : {1, 2, 3, 5, 16, 67, 1201, 1500}) {
    const size_t cols = 37;
    const Floats W = randomFloats(rows * cols, 2);
    const Floats x = randomFloats(cols, 3);
    std::vector<uint16_t> half(W.size());
    for (size_t i = 0; i < W.size(); ++i) half[i] = f32ToBf16(W[i]);
    Floats y = randomFloats(rows, 4);
    Floats yHalf = y;
    Floats want = y;
    Floats wantHalf = y;
    for (size_t r = 0; r < rows; ++r) {
      want[r] += reference::dotF32(W.data() + r * cols, x.data(), cols);
      wantHalf[r] += reference::dotBf16(half.data() + r * cols, x.data(), cols);
    }
    matvecF32Add(W.data(), x.data(), y.data(), rows, cols);
    matvecBf16Add(half.data(), x.data(), yHalf.data(), rows, cols);
    EXPECT_EQ(y, want);
    EXPECT_EQ(yHalf, wantHalf);
  }
}

INSTANTIATE_TEST_SUITE_P(Threads, Matvec, testing::Values(1, 2, 5));

TEST(Matvec, MoreThreadsThanRowsChangeNothing) {
  const size_t rows = 3;
  const size_t cols = 20000;
  const Floats W = randomFloats(rows * cols, 27);
  const Floats x = randomFloats(cols, 28);
  const ThreadCount threads(16);
  Floats y(rows);
  matvecF32Add(W.data(), x.data(), y.data(), rows, cols);
  for (size_t r = 0; r < rows; ++r) {
    EXPECT_EQ(y[r], reference::dotF32(W.data() + r * cols, x.data(), cols)) << r;
  }
}

TEST(Matvec, NoRowsOrColumnsAreFine) {
  float y = 3;
  matvecF32Add(nullptr, nullptr, &y, 0, 8);
  matvecF32Add(nullptr, nullptr, &y, 1, 0);
  EXPECT_EQ(y, 3.0F);
}

// The gated delta rule written from its formula, in double.
struct DeltaRule {
  std::vector<double> S;
  std::vector<double> out;
};

DeltaRule deltaRuleInDouble(const Floats& S, const Floats& q, const Floats& k, const Floats& v,
                            double beta, double g, double scale) {
  const size_t d = q.size();
  DeltaRule r{{S.begin(), S.end()}, std::vector<double>(d)};
  for (double& s : r.S) s *= std::exp(g);
  for (size_t j = 0; j < d; ++j) {
    double kv = 0;
    for (size_t i = 0; i < d; ++i) kv += k[i] * r.S[i * d + j];
    for (size_t i = 0; i < d; ++i) r.S[i * d + j] += k[i] * (v[j] - kv) * beta;
    for (size_t i = 0; i < d; ++i) r.out[j] += q[i] * r.S[i * d + j] * scale;
  }
  return r;
}

TEST(GdnStep, FollowsTheGatedDeltaRule) {
  const size_t d = 128;
  Floats S = randomFloats(d * d, 5);
  const Floats q = randomFloats(d, 6);
  const Floats k = randomFloats(d, 7, 0.1F);
  Floats v = randomFloats(d, 8);
  const DeltaRule want = deltaRuleInDouble(S, q, k, v, 0.7, -0.3, 0.088);
  gdnStep(S.data(), q.data(), k.data(), v.data(), 0.7F, d, -0.3F, 0.088F);
  for (size_t i = 0; i < S.size(); ++i) ASSERT_NEAR(S[i], want.S[i], 1e-5);
  for (size_t j = 0; j < d; ++j) ASSERT_NEAR(v[j], want.out[j], 1e-5);
}

// One column at a time, rows upward, as the formula reads; the loops of the
// kernel go through memory in another order and must not change a bit.
TEST(GdnStep, OrderOfEverySumIsByRowUpward) {
  const size_t d = 17;
  Floats S = randomFloats(d * d, 9);
  const Floats q = randomFloats(d, 10);
  const Floats k = randomFloats(d, 11);
  Floats v = randomFloats(d, 12);
  Floats wantS = S;
  Floats wantV(d);
  const float decay = kiv::math::expF32(-0.2F);
  for (float& s : wantS) s *= decay;
  for (size_t j = 0; j < d; ++j) {
    float kv = 0;
    for (size_t i = 0; i < d; ++i) kv = std::fma(k[i], wantS[i * d + j], kv);
    const float delta = (v[j] - kv) * 0.3F;
    float o = 0;
    for (size_t i = 0; i < d; ++i) {
      wantS[i * d + j] = std::fma(k[i], delta, wantS[i * d + j]);
      o = std::fma(q[i], wantS[i * d + j], o);
    }
    wantV[j] = o * 0.5F;
  }
  gdnStep(S.data(), q.data(), k.data(), v.data(), 0.3F, d, -0.2F, 0.5F);
  EXPECT_EQ(S, wantS);
  EXPECT_EQ(v, wantV);
}

TEST(GdnStep, WithoutGateAndWriteItOnlyReads) {
  const size_t d = 8;
  Floats S = randomFloats(d * d, 13);
  const Floats before = S;
  const Floats q = randomFloats(d, 14);
  const Floats k = randomFloats(d, 15);
  Floats v = randomFloats(d, 16);
  gdnStep(S.data(), q.data(), k.data(), v.data(), 0.0F, d, 0.0F, 2.0F);
  EXPECT_EQ(S, before);
  for (size_t j = 0; j < d; ++j) {
    float o = 0;
    for (size_t i = 0; i < d; ++i) o = std::fma(q[i], S[i * d + j], o);
    EXPECT_EQ(v[j], o * 2.0F);
  }
}

TEST(GdnStep, NoComponentsReturnAtOnce) {
  gdnStep(nullptr, nullptr, nullptr, nullptr, 1.0F, 0, 0.0F, 1.0F);
}

TEST(GdnStep, ImpossibleSizeIsALengthError) {
  float x = 0;
  EXPECT_THROW(gdnStep(&x, &x, &x, &x, 1.0F, std::numeric_limits<size_t>::max() / 2, 0.0F, 1.0F),
               std::length_error);
}

TEST(Rope, PositionZeroChangesNothing) {
  Floats x = randomFloats(64, 17);
  const Floats before = x;
  Floats c(32);
  Floats s(32);
  reference::ropeAngles(64, 0, c.data(), s.data());
  reference::ropeRotate(x.data(), 64, c.data(), s.data());
  EXPECT_EQ(x, before);
}

TEST(Rope, PairsOfTheTwoHalvesTurnByPowersOfTheBase) {
  const size_t n = 64;
  const size_t pos = 8191;
  const Floats x = randomFloats(n, 18);
  Floats y = x;
  Floats c(n / 2);
  Floats s(n / 2);
  reference::ropeAngles(n, pos, c.data(), s.data());
  reference::ropeRotate(y.data(), n, c.data(), s.data());
  for (size_t i = 0; i < n / 2; ++i) {
    const double angle = 8191.0 * std::pow(1e7, -2.0 * static_cast<double>(i) / n);
    EXPECT_NEAR(y[i], std::cos(angle) * x[i] - std::sin(angle) * x[i + n / 2], 1e-6) << i;
    EXPECT_NEAR(y[i + n / 2], std::sin(angle) * x[i] + std::cos(angle) * x[i + n / 2], 1e-6) << i;
  }
}

TEST(Rope, FewerThanTwoDimensionsStayAsTheyAre) {
  float x = 4;
  reference::ropeAngles(1, 3, nullptr, nullptr);
  reference::ropeRotate(&x, 1, nullptr, nullptr);
  EXPECT_EQ(x, 4.0F);
}

TEST(ConvStep, FreshWindowLeavesOnlyTheLastTap) {
  Floats window(6, 0.0F);
  const Floats w = {1, 2, 3, 4, 5, 6, 7, 8};
  const Floats x = {0.5F, -0.5F};
  Floats out(2);
  reference::convStep(w.data(), 4, window.data(), x.data(), out.data(), 2);
  EXPECT_EQ(out[0], 2.0F / (kiv::math::expF32(-2.0F) + 1.0F));
  EXPECT_EQ(out[1], -4.0F / (kiv::math::expF32(4.0F) + 1.0F));
  EXPECT_EQ(window, (Floats{0, 0, 0.5F, 0, 0, -0.5F}));
}

TEST(ConvStep, FiveStoredTapsUseTheFirstFour) {
  Floats window = {1, 1, 1, 2, 2, 2};
  const Floats w = {1, 1, 1, 1, 1000, 2, 2, 2, 2, 1000};
  const Floats x = {1, 1};
  Floats out(2);
  reference::convStep(w.data(), 5, window.data(), x.data(), out.data(), 2);
  EXPECT_EQ(out[0], 4.0F / (kiv::math::expF32(-4.0F) + 1.0F));
  EXPECT_EQ(out[1], 14.0F / (kiv::math::expF32(-14.0F) + 1.0F));
}

TEST(AttendHead, OneSlotGivesTheGatedValue) {
  const Floats query = randomFloats(8, 19);
  const Floats gate = randomFloats(8, 20);
  const Floats key = randomFloats(8, 21);
  const Floats value = randomFloats(8, 22);
  Floats weights(1);
  Floats out(8);
  reference::attendHead(query.data(), gate.data(), key.data(), value.data(), 1, 8, weights.data(),
                        out.data());
  for (size_t d = 0; d < 8; ++d) {
    EXPECT_EQ(out[d], value[d] / (kiv::math::expF32(-gate[d]) + 1.0F));
  }
}

TEST(AttendHead, IsSoftmaxOverScaledScores) {
  const size_t slots = 50;
  const size_t n = 256;
  const Floats query = randomFloats(n, 23, 2);
  const Floats gate = randomFloats(n, 24);
  const Floats keys = randomFloats(slots * n, 25, 2);
  const Floats values = randomFloats(slots * n, 26);
  Floats weights(slots);
  Floats out(n);
  reference::attendHead(query.data(), gate.data(), keys.data(), values.data(), slots, n,
                        weights.data(), out.data());
  std::vector<double> p(slots);
  double sum = 0;
  for (size_t s = 0; s < slots; ++s) {
    double score = 0;
    for (size_t d = 0; d < n; ++d) score += static_cast<double>(query[d]) * keys[s * n + d];
    p[s] = std::exp(score / 16);
    sum += p[s];
  }
  for (size_t d = 0; d < n; ++d) {
    double mixed = 0;
    for (size_t s = 0; s < slots; ++s) mixed += p[s] / sum * values[s * n + d];
    EXPECT_NEAR(out[d], mixed / (1 + std::exp(-static_cast<double>(gate[d]))), 1e-5) << d;
  }
}

}  // namespace
}  // namespace qwen35
