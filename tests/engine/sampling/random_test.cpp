// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/random.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace zemtest {

using namespace zem;

namespace {

// From published outputs of the algorithm.
TEST(Random, HasTheOutputsOfItsAlgorithm) {
  Random random(1234567);
  for (const uint64_t output : {6457827717110365317U, 3203168211198807973U, 9817491932198370423U,
                                4593380528125082431U, 16408922859458223821U}) {
    EXPECT_EQ(random.next(), output);
  }
  EXPECT_EQ(Random(0).next(), 0xE220A8397B1DCDAFU);
}

TEST(Random, FractionsAreTheUpperBitsOfOutputs) {
  Random fractions(9);
  Random outputs(9);
  for (int i = 0; i < 1000; ++i) {
    const double fraction = fractions.fraction();
    EXPECT_EQ(fraction * 0x1p53, static_cast<double>(outputs.next() >> 11U));
    EXPECT_LT(fraction, 1.0);
  }
}

}  // namespace
}  // namespace zemtest
