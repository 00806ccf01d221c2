// SPDX-License-Identifier: Apache-2.0
#include "kiv/gpu_tensor.h"

#include <gtest/gtest.h>

namespace zemtest {

using namespace kiv;

namespace {

GPUTensorView view(uint64_t cols, uint32_t bytesPerBlock) {
  GPUTensorView view;
  view.size = 1000;
  view.shape = {cols, 3, 0, 0};
  view.quant.bytesPerBlock = bytesPerBlock;
  return view;
}

TEST(GPUTensorView, RowIsWholeBlocksOf256Elements) {
  EXPECT_EQ(view(256, 144).rowBytes(), 144U);
  EXPECT_EQ(view(2560, 210).rowBytes(), 2100U);
  EXPECT_EQ(view(1, 144).rowBytes(), 144U);
  EXPECT_EQ(view(257, 176).rowBytes(), 352U);
  EXPECT_EQ(view(0, 144).rowBytes(), 0U);
}

TEST(GPUTensorView, WithoutABlockDescriptionTheRowIsEverything) {
  EXPECT_EQ(view(256, 0).rowBytes(), 1000U);
  EXPECT_EQ(GPUTensorView().rowBytes(), 0U);
}

TEST(DeviceBufferBytes, AreWholeWordsAndNeverNone) {
  EXPECT_EQ(deviceBufferBytes(0), 4U);
  EXPECT_EQ(deviceBufferBytes(1), 4U);
  EXPECT_EQ(deviceBufferBytes(4), 4U);
  EXPECT_EQ(deviceBufferBytes(5), 8U);
  EXPECT_EQ(deviceBufferBytes(210), 212U);
}

}  // namespace
}  // namespace zemtest
