// The loops of a token step at every instruction set against the plain ones, bit
// for bit.
#include "kernels/step_loops.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "kernels/reference.h"
#include "kiv/math/exact_math.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

class StepLoopsAtEveryLevel : public testing::TestWithParam<CpuLevel> {
 protected:
  const StepLoops& loops() const { return stepLoops(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(StepLoops, StepLoopsAtEveryLevel,
                         testing::ValuesIn(cpuLevels().begin(), cpuLevels().end()), levelName);

// Numbers of every size and sign, and what is no number.
Floats hostileVector(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  const float special[] = {0.0F,    -0.0F,
                           kInf,    -kInf,
                           88.8F,   -88.8F,
                           103.9F,  -104.1F,
                           3e38F,   std::numeric_limits<float>::denorm_min(),
                           1e-30F,  std::numeric_limits<float>::quiet_NaN(),
                           -1e-45F, 1.0F};
  Floats x = randomVector(n, seed);
  for (float& v : x) {
    if (rng() % 4 == 0) v = special[rng() % std::size(special)];
    if (rng() % 4 == 0) v *= 40;
  }
  return x;
}

// Bit patterns at random: numbers of every exponent.
Floats anyFloats(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Floats x(n);
  for (float& v : x) {
    const auto bits = static_cast<uint32_t>(rng());
    std::memcpy(&v, &bits, sizeof v);
  }
  return x;
}

TEST_P(StepLoopsAtEveryLevel, GdnStepIsThePlainOne) {
  for (const size_t d : {0, 1, 3, 4, 7, 8, 9, 16, 24, 31, 32, 33, 63, 64, 65, 100, 128, 129}) {
    SCOPED_TRACE(d);
    Floats S = randomVector(d * d, 1);
    Floats wantS = S;
    Floats v = randomVector(d, 2);
    Floats wantV = v;
    const Floats q = randomVector(d, 3);
    const Floats k = randomVector(d, 4);
    Floats delta(d);
    for (int step = 0; step < 3; ++step) {
      loops().gdnStep(S.data(), q.data(), k.data(), v.data(), 0.6F, d, -0.1F, 0.4F);
      reference::gdnStep(wantS.data(), q.data(), k.data(), wantV.data(), 0.6F, d, -0.1F, 0.4F,
                         delta.data());
      ASSERT_TRUE(sameBits(S, wantS));
      ASSERT_TRUE(sameBits(v, wantV));
    }
  }
}

// Every exponent, sums that cancel or overflow, subnormal results: where a fused
// step that is not fused, or fused in double alone, would show.
TEST_P(StepLoopsAtEveryLevel, GdnStepFusesForAnyNumbers) {
  const size_t d = 36;
  for (uint32_t round = 0; round < 60; ++round) {
    Floats S = round % 2 == 0 ? anyFloats(d * d, round) : hostileVector(d * d, round);
    Floats wantS = S;
    Floats v = round % 3 == 0 ? anyFloats(d, round + 100) : randomVector(d, round);
    Floats wantV = v;
    const Floats q = anyFloats(d, round + 200);
    const Floats k = round % 4 == 0 ? randomVector(d, round) : anyFloats(d, round + 300);
    Floats delta(d);
    loops().gdnStep(S.data(), q.data(), k.data(), v.data(), 1.0F, d, -1.0F, 1.0F);
    reference::gdnStep(wantS.data(), q.data(), k.data(), wantV.data(), 1.0F, d, -1.0F, 1.0F,
                       delta.data());
    ASSERT_TRUE(sameBits(S, wantS)) << round;
    ASSERT_TRUE(sameBits(v, wantV)) << round;
  }
}

// One row and one column reduce the step to single fused steps, of numbers that
// are chosen to need all their bits.
TEST_P(StepLoopsAtEveryLevel, FusedStepsRoundOnce) {
  std::mt19937 rng(5);
  const auto pick = [&rng](int exponents, int middle) {
    const auto mantissa = 1.0F + static_cast<float>(rng() & 0x7FFFFF) * 0x1p-23F;
    return std::ldexp(
        rng() % 2 == 0 ? mantissa : -mantissa,
        static_cast<int>(rng() % static_cast<uint32_t>(2 * exponents)) - exponents + middle);
  };
  for (int round = 0; round < 200000; ++round) {
    // One row of 8 columns: delta = v - k S, S += k delta, out = q S. Near 2^-68 the
    // products are subnormal.
    const int exponents = round % 3 == 0 ? 38 : 13;
    const int middle = round % 3 == 1 ? -68 : 0;
    const float s = pick(exponents, middle);
    const float v = pick(exponents, middle);
    const float k = pick(exponents, middle);
    const float q = pick(exponents, middle);
    Floats wide(64);
    Floats wideV(8);
    for (size_t j = 0; j < 8; ++j) {
      wide[j] = s;
      wideV[j] = v;
    }
    Floats wideK(8);
    Floats wideQ(8);
    wideK[0] = k;
    wideQ[0] = q;
    loops().gdnStep(wide.data(), wideQ.data(), wideK.data(), wideV.data(), 1.0F, 8, 0.0F, 1.0F);
    const float delta = v - std::fma(k, s, 0.0F);
    const float state = std::fma(k, delta, s);
    ASSERT_EQ(wide[3], state) << k << " * " << delta << " + " << s;
    ASSERT_EQ(wideV[3], std::fma(q, state, 0.0F));
  }
}

TEST_P(StepLoopsAtEveryLevel, ConvStepIsThePlainOne) {
  for (const size_t channels : {0, 1, 5, 16, 127, 128, 129, 300}) {
    for (const size_t stride : {4, 5}) {
      SCOPED_TRACE(testing::Message() << channels << " channels, stride " << stride);
      const Floats w = randomVector(channels * stride + 4, 6);
      Floats window = hostileVector(3 * channels, 7);
      Floats wantWindow = window;
      for (uint32_t step = 0; step < 3; ++step) {
        Floats x = hostileVector(channels, 8 + step);
        Floats want(channels);
        reference::convStep(w.data(), stride, wantWindow.data(), x.data(), want.data(), channels);
        loops().convStep(w.data(), stride, window.data(), x.data(), x.data(), channels);
        ASSERT_TRUE(sameBits(x, want));
        ASSERT_TRUE(sameBits(window, wantWindow));
      }
    }
  }
}

TEST_P(StepLoopsAtEveryLevel, SiluMulIsThePlainOne) {
  for (const size_t n : {0, 1, 2, 3, 7, 8, 15, 16, 17, 31, 33, 100, 1000}) {
    const Floats gate = hostileVector(n, 9);
    const Floats x = randomVector(n, 10);
    Floats want(n);
    reference::silu(gate.data(), want.data(), n);
    for (size_t i = 0; i < n; ++i) want[i] *= x[i];
    Floats out(n);
    loops().siluMul(gate.data(), x.data(), out.data(), n);
    EXPECT_TRUE(sameBits(out, want)) << n;
    Floats inGate = gate;
    loops().siluMul(inGate.data(), x.data(), inGate.data(), n);
    EXPECT_TRUE(sameBits(inGate, want)) << n;
    Floats inX = x;
    loops().siluMul(gate.data(), inX.data(), inX.data(), n);
    EXPECT_TRUE(sameBits(inX, want)) << n;
  }
}

TEST_P(StepLoopsAtEveryLevel, EveryExponentOfTheGateGivesTheSameBits) {
  const Floats gate = anyFloats(100000, 11);
  const Floats ones(gate.size(), 1.0F);
  Floats want(gate.size());
  reference::silu(gate.data(), want.data(), gate.size());
  Floats out(gate.size());
  loops().siluMul(gate.data(), ones.data(), out.data(), gate.size());
  EXPECT_TRUE(sameBits(out, want));
}

TEST_P(StepLoopsAtEveryLevel, SigmoidGateIsThePlainOne) {
  for (const size_t n : {0, 1, 3, 8, 17, 64, 100}) {
    const Floats gate = hostileVector(n, 12);
    Floats x = randomVector(n, 13);
    Floats want(n);
    for (size_t i = 0; i < n; ++i) want[i] = x[i] / (kiv::math::expF32(-gate[i]) + 1.0F);
    loops().sigmoidGate(gate.data(), x.data(), x.data(), n);
    EXPECT_TRUE(sameBits(x, want)) << n;
  }
}

TEST_P(StepLoopsAtEveryLevel, SoftmaxSumsEachHeadFromTheFirstSlot) {
  for (size_t heads = 1; heads <= kSoftmaxHeads; ++heads) {
    for (const size_t slots : {1, 2, 3, 31, 255, 256, 257, 1000}) {
      SCOPED_TRACE(testing::Message() << heads << " heads, " << slots << " slots");
      Floats scores = randomVector(heads * slots, static_cast<uint32_t>(slots));
      for (float& s : scores) s *= 9;
      Floats want = scores;
      float max[kSoftmaxHeads];
      float sum[kSoftmaxHeads];
      loops().softmax(scores.data(), slots, heads, max, sum);
      for (size_t h = 0; h < heads; ++h) {
        float wantMax = -1e30F;
        float wantSum = 0;
        for (size_t s = 0; s < slots; ++s) wantMax = std::max(wantMax, want[s * heads + h]);
        for (size_t s = 0; s < slots; ++s) {
          want[s * heads + h] = kiv::math::expF32(want[s * heads + h] - wantMax);
          wantSum += want[s * heads + h];
        }
        const float inverse = 1.0F / wantSum;
        for (size_t s = 0; s < slots; ++s) want[s * heads + h] *= inverse;
        EXPECT_EQ(max[h], wantMax);
        EXPECT_EQ(sum[h], wantSum);
      }
      EXPECT_TRUE(sameBits(scores, want));
    }
  }
}

// Scores below the start of the search, and scores that are no numbers: as the
// comparison of the plain loop has them.
TEST_P(StepLoopsAtEveryLevel, SoftmaxOfHostileScores) {
  Floats low = {-kInf, -3e38F, -2e30F, -kInf};
  float max[kSoftmaxHeads];
  float sum[kSoftmaxHeads];
  loops().softmax(low.data(), 4, 1, max, sum);
  EXPECT_EQ(max[0], -1e30F);
  EXPECT_EQ(sum[0], 0.0F);
  EXPECT_TRUE(std::isnan(low[0])) << "nothing divided by nothing";

  Floats some = {1.0F, std::numeric_limits<float>::quiet_NaN(), 2.0F};
  loops().softmax(some.data(), 3, 1, max, sum);
  EXPECT_EQ(max[0], 2.0F);
  EXPECT_TRUE(std::isnan(sum[0]));
}

}  // namespace
}  // namespace qwen35
