// SPDX-License-Identifier: Apache-2.0
// The softmax of several heads against the plain one, bit for bit, at every level.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "kernels/kernel_table.h"
#include "kiv/math/exact_math.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

class SoftmaxAtEveryLevel : public AtEveryLevel<CpuLevel> {
 protected:
  const KernelTable& kernels() const { return kernelTable(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Levels, SoftmaxAtEveryLevel, testing::ValuesIn(kEveryLevel), levelName);

TEST_P(SoftmaxAtEveryLevel, SumsEachHeadFromTheFirstSlot) {
  for (size_t heads = 1; heads <= kSoftmaxHeads; ++heads) {
    for (const size_t slots : {1, 2, 3, 31, 255, 256, 257, 1000}) {
      SCOPED_TRACE(testing::Message() << heads << " heads, " << slots << " slots");
      Floats scores = randomVector(heads * slots, static_cast<uint32_t>(slots));
      for (float& s : scores) s *= 9;
      Floats want = scores;
      float max[kSoftmaxHeads];
      float sum[kSoftmaxHeads];
      kernels().softmax(scores.data(), slots, heads, max, sum);
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
TEST_P(SoftmaxAtEveryLevel, OfHostileScores) {
  Floats low = {-kInf, -3e38F, -2e30F, -kInf};
  float max[kSoftmaxHeads];
  float sum[kSoftmaxHeads];
  kernels().softmax(low.data(), 4, 1, max, sum);
  EXPECT_EQ(max[0], -1e30F);
  EXPECT_EQ(sum[0], 0.0F);
  EXPECT_TRUE(std::isnan(low[0])) << "nothing divided by nothing";

  Floats some = {1.0F, std::numeric_limits<float>::quiet_NaN(), 2.0F};
  kernels().softmax(some.data(), 3, 1, max, sum);
  EXPECT_EQ(max[0], 2.0F);
  EXPECT_TRUE(std::isnan(sum[0]));
}

}  // namespace
}  // namespace qwen35
