// SPDX-License-Identifier: Apache-2.0
// The tool's reading of a plan, held against the plug-in's own.
#include "host/layer_plan.h"

#include <gtest/gtest.h>

#include <string>

#include "qwen35_layer_plan.h"

namespace zemtool {
namespace {

constexpr size_t kLayers = 32;

LayerSplit asThePluginReadsIt(const std::string& plan) {
  qwen35gpu::LayerPlan layers;
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(layers.set(kLayers, plan)) << plan;
  ::testing::internal::GetCapturedStderr();
  LayerSplit split;
  for (size_t i = 0; i < kLayers; ++i) {
    ++(layers.allows("blk." + std::to_string(i) + ".ffn_up.weight") ? split.gpu : split.cpu);
  }
  return split;
}

TEST(SplitLayers, CountsFromTheFirstLayerOn) {
  const LayerSplit split = splitLayers("gpu:20,cpu:5,gpu:all", kLayers);
  EXPECT_EQ(split.gpu, 27U);
  EXPECT_EQ(split.cpu, 5U);
}

TEST(SplitLayers, TheLastLetterTakesTheRest) {
  EXPECT_EQ(splitLayers("gpu:20", kLayers).gpu, 32U);
  EXPECT_EQ(splitLayers("gpu:20,cpu", kLayers).gpu, 20U);
  EXPECT_EQ(splitLayers("nonsense", kLayers).cpu, 32U);
}

TEST(SplitLayers, AgreesWithThePluginOnEveryPlan) {
  for (const std::string plan : {"gpu:all",
                                 "cpu:all",
                                 "gpu:1,cpu:all",
                                 "gpu:10,cpu:0",
                                 "gpu:10",
                                 "cpu:10,gpu",
                                 "gpu,cpu:3",
                                 "gpu:0,cpu:all",
                                 "gpu:32,cpu:all",
                                 "gpu:33,cpu:all",
                                 "gpu:32,cpu",
                                 "cpu:40,gpu",
                                 "g:4",
                                 "gp:4",
                                 "g:4,cpu:2",
                                 "gpu0:20,cpux",
                                 "gpu:-3,cpu:1",
                                 "gpu:-3",
                                 "gpu:x,cpu:1",
                                 "gpu:4x,cpu:all",
                                 "gpu: 4,cpu",
                                 "gpu:+4,cpu",
                                 "gpu:4:9,cpu",
                                 "gpu:,cpu:1",
                                 ",,gpu:2,,cpu:all,",
                                 "bad,gpu:2,cpu",
                                 "GPU:all",
                                 "gpu:all,cpu:1",
                                 "gpu:all,cpu",
                                 "x",
                                 "gpu:1,bad",
                                 "gpu:1,cpu:1,",
                                 "gpu:ALL,cpu:30",
                                 "gpu:99999999999",
                                 "cpu:31,gpu:1,cpu",
                                 ","}) {
    const LayerSplit own = splitLayers(plan, kLayers);
    const LayerSplit plugin = asThePluginReadsIt(plan);
    EXPECT_EQ(own.gpu, plugin.gpu) << plan;
    EXPECT_EQ(own.cpu, plugin.cpu) << plan;
  }
}

}  // namespace
}  // namespace zemtool
