// SPDX-License-Identifier: Apache-2.0
// The step of the gated delta rule against the plain one, bit for bit, at every level.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "kernels/kernel_table.h"
#include "kernels/reference.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

class GdnStepAtEveryLevel : public AtEveryLevel<CpuLevel> {
 protected:
  const KernelTable& kernels() const { return kernelTable(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Levels, GdnStepAtEveryLevel, testing::ValuesIn(kEveryLevel), levelName);

TEST_P(GdnStepAtEveryLevel, IsThePlainOne) {
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
      kernels().gdnStep(S.data(), q.data(), k.data(), v.data(), 0.6F, d, -0.1F, 0.4F);
      reference::gdnStep(wantS.data(), q.data(), k.data(), wantV.data(), 0.6F, d, -0.1F, 0.4F,
                         delta.data());
      ASSERT_TRUE(sameBits(S, wantS));
      ASSERT_TRUE(sameBits(v, wantV));
    }
  }
}

// Every exponent, sums that cancel or overflow, subnormal results: where a fused
// step that is not fused, or fused in double alone, would show.
TEST_P(GdnStepAtEveryLevel, FusesForAnyNumbers) {
  const size_t d = 36;
  for (uint32_t round = 0; round < 60; ++round) {
    Floats S = round % 2 == 0 ? anyFloats(d * d, round) : hostileVector(d * d, round);
    Floats wantS = S;
    Floats v = round % 3 == 0 ? anyFloats(d, round + 100) : randomVector(d, round);
    Floats wantV = v;
    const Floats q = anyFloats(d, round + 200);
    const Floats k = round % 4 == 0 ? randomVector(d, round) : anyFloats(d, round + 300);
    Floats delta(d);
    kernels().gdnStep(S.data(), q.data(), k.data(), v.data(), 1.0F, d, -1.0F, 1.0F);
    reference::gdnStep(wantS.data(), q.data(), k.data(), wantV.data(), 1.0F, d, -1.0F, 1.0F,
                       delta.data());
    ASSERT_TRUE(sameBits(S, wantS)) << round;
    ASSERT_TRUE(sameBits(v, wantV)) << round;
  }
}

// One row and one column reduce the step to single fused steps, of numbers that
// are chosen to need all their bits.
TEST_P(GdnStepAtEveryLevel, FusedStepsRoundOnce) {
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
    kernels().gdnStep(wide.data(), wideQ.data(), wideK.data(), wideV.data(), 1.0F, 8, 0.0F, 1.0F);
    const float delta = v - std::fma(k, s, 0.0F);
    const float state = std::fma(k, delta, s);
    ASSERT_EQ(wide[3], state) << k << " * " << delta << " + " << s;
    ASSERT_EQ(wideV[3], std::fma(q, state, 0.0F));
  }
}

}  // namespace
}  // namespace qwen35
