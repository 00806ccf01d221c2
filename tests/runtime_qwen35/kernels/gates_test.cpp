// SPDX-License-Identifier: Apache-2.0
// The gates against the plain formulas, bit for bit, at every level.
#include <gtest/gtest.h>

#include "kernels/kernel_table.h"
#include "kernels/reference.h"
#include "kiv/math/exact_math.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

class GatesAtEveryLevel : public AtEveryLevel<CpuLevel> {
 protected:
  const KernelTable& kernels() const { return kernelTable(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Levels, GatesAtEveryLevel, testing::ValuesIn(kEveryLevel), levelName);

TEST_P(GatesAtEveryLevel, SiluMulIsThePlainOne) {
  for (const size_t n : {0, 1, 2, 3, 7, 8, 15, 16, 17, 31, 33, 100, 1000}) {
    const Floats gate = hostileVector(n, 9);
    const Floats x = randomVector(n, 10);
    Floats want(n);
    reference::silu(gate.data(), want.data(), n);
    for (size_t i = 0; i < n; ++i) want[i] *= x[i];
    Floats out(n);
    kernels().siluMul(gate.data(), x.data(), out.data(), n);
    EXPECT_TRUE(sameBits(out, want)) << n;
    Floats inGate = gate;
    kernels().siluMul(inGate.data(), x.data(), inGate.data(), n);
    EXPECT_TRUE(sameBits(inGate, want)) << n;
    Floats inX = x;
    kernels().siluMul(gate.data(), inX.data(), inX.data(), n);
    EXPECT_TRUE(sameBits(inX, want)) << n;
  }
}

TEST_P(GatesAtEveryLevel, EveryExponentOfTheGateGivesTheSameBits) {
  const Floats gate = anyFloats(100000, 11);
  const Floats ones(gate.size(), 1.0F);
  Floats want(gate.size());
  reference::silu(gate.data(), want.data(), gate.size());
  Floats out(gate.size());
  kernels().siluMul(gate.data(), ones.data(), out.data(), gate.size());
  EXPECT_TRUE(sameBits(out, want));
}

TEST_P(GatesAtEveryLevel, SigmoidGateIsThePlainOne) {
  for (const size_t n : {0, 1, 3, 8, 17, 64, 100}) {
    const Floats gate = hostileVector(n, 12);
    Floats x = randomVector(n, 13);
    Floats want(n);
    for (size_t i = 0; i < n; ++i) want[i] = x[i] / (kiv::math::expF32(-gate[i]) + 1.0F);
    kernels().sigmoidGate(gate.data(), x.data(), x.data(), n);
    EXPECT_TRUE(sameBits(x, want)) << n;
  }
}

}  // namespace
}  // namespace qwen35
