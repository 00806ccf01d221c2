// SPDX-License-Identifier: Apache-2.0
// The convolution against the plain one, bit for bit, at every level.
#include <gtest/gtest.h>

#include <cstdint>

#include "kernels/kernel_table.h"
#include "kernels/reference.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

class ConvStepAtEveryLevel : public AtEveryLevel<CpuLevel> {
 protected:
  const KernelTable& kernels() const { return kernelTable(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Levels, ConvStepAtEveryLevel, testing::ValuesIn(kEveryLevel), levelName);

TEST_P(ConvStepAtEveryLevel, IsThePlainOne) {
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
        kernels().convStep(w.data(), stride, window.data(), x.data(), x.data(), channels);
        ASSERT_TRUE(sameBits(x, want));
        ASSERT_TRUE(sameBits(window, wantWindow));
      }
    }
  }
}

}  // namespace
}  // namespace qwen35
