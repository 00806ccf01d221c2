// SPDX-License-Identifier: Apache-2.0
// What plan texts mean.
#include "qwen35_layer_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace zemtest {

using namespace qwen35gpu;

namespace {

// Sets a plan and returns what was printed.
std::string set(LayerPlan& plan, size_t layers, const std::string& text, bool expected = true) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(plan.set(layers, text), expected);
  return testing::internal::GetCapturedStderr();
}

// One letter a layer, as the plan allows it.
std::string layersOf(const LayerPlan& plan, size_t layers) {
  std::string letters;
  for (size_t i = 0; i < layers; ++i) {
    letters += plan.allows("blk." + std::to_string(i) + ".ffn_up.weight") ? 'g' : 'c';
  }
  return letters;
}

std::string summary(size_t gpu, size_t cpu) {
  return "[qwen35-gpu] layer plan: " + std::to_string(gpu) + " gpu / " + std::to_string(cpu) +
         " cpu layers\n";
}

struct PlanCase {
  const char* text;
  const char* layers;
  const char* badTokens = "";  // lines before the summary
};

class PlanText : public ::testing::TestWithParam<PlanCase> {};

TEST_P(PlanText, AssignsLayers) {
  const PlanCase& c = GetParam();
  const std::string layers = c.layers;
  LayerPlan plan;
  const std::string printed = set(plan, layers.size(), c.text);
  const auto gpu = static_cast<size_t>(std::count(layers.begin(), layers.end(), 'g'));
  EXPECT_EQ(printed, c.badTokens + summary(gpu, layers.size() - gpu));
  EXPECT_EQ(layersOf(plan, layers.size()), layers);
  EXPECT_TRUE(plan.isSet());
  EXPECT_EQ(plan.allows("token_embd.weight"), gpu > 0);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PlanText,
    ::testing::Values(
        PlanCase{"cpu:all", "cccccccc"}, PlanCase{"gpu:all", "gggggggg"},
        PlanCase{"gpu:4,cpu:all", "ggggcccc"}, PlanCase{"gpu:4", "gggggggg"},
        PlanCase{"gpu:4,cpu:0", "ggggcccc"}, PlanCase{"cpu:2,gpu:3,cpu:1", "ccgggccc"},
        PlanCase{"cpu:2,gpu:3,cpu", "ccgggccc"}, PlanCase{"g:4", "gggggggg"},
        PlanCase{"c:4", "cccccccc"}, PlanCase{"gpu", "gggggggg"}, PlanCase{"cpu", "cccccccc"},
        PlanCase{"cpu:3,gpu", "cccggggg"}, PlanCase{"gpu:-5,cpu:all", "cccccccc"},
        PlanCase{"gpu:-5", "gggggggg"}, PlanCase{"gpu:0", "gggggggg"},
        PlanCase{"gpu:99,cpu:all", "gggggggg"},
        PlanCase{"gpu:99999999999999999999,cpu:1", "gggggggg"},
        PlanCase{"gpu:many,cpu:2", "cccccccc"}, PlanCase{"gpu:2x,cpu:all", "ggcccccc"},
        PlanCase{"gpu:,cpu:2,gpu:all", "ccgggggg"}, PlanCase{"gpu1:2,gpu0:1,cpu:all", "gggccccc"},
        PlanCase{"green:3,cyan:5", "gggccccc"}, PlanCase{"gpu:2:4,cpu:all", "ggcccccc"},
        PlanCase{"gp:2,cpu:all", "ggcccccc"}, PlanCase{"gpu:2,", "gggggggg"},
        // Nothing is left to assign: what follows is not even looked at.
        PlanCase{"gpu:8,cpu:1,x", "gggggggg"},
        // ... but a token without a count is, and has no layer to decide.
        PlanCase{"gpu:8,cpu,x", "gggggggg", "[qwen35-gpu] bad plan token 'x'\n"},
        PlanCase{"x:3", "cccccccc", "[qwen35-gpu] bad plan token 'x:3'\n"},
        PlanCase{"gp", "cccccccc", "[qwen35-gpu] bad plan token 'gp'\n"},
        PlanCase{"GPU:3", "cccccccc", "[qwen35-gpu] bad plan token 'GPU:3'\n"},
        PlanCase{" gpu:3", "cccccccc", "[qwen35-gpu] bad plan token ' gpu:3'\n"},
        PlanCase{",", "cccccccc", "[qwen35-gpu] bad plan token ''\n"},
        PlanCase{"gpu:2,,cpu:all", "ggcccccc", "[qwen35-gpu] bad plan token ''\n"},
        PlanCase{",gpu:3,cpu:0", "gggccccc", "[qwen35-gpu] bad plan token ''\n"},
        PlanCase{"gpu:1,bad token,tpu:3", "gggggggg",
                 "[qwen35-gpu] bad plan token 'bad token'\n"
                 "[qwen35-gpu] bad plan token 'tpu:3'\n"},
        PlanCase{"gpu:1,cpu:all", "g"}, PlanCase{"cpu:1,gpu:all", "c"}));

TEST(LayerPlan, AllowsEverythingUntilSet) {
  const LayerPlan plan;
  EXPECT_FALSE(plan.isSet());
  for (const char* name : {"blk.0.ffn_up.weight", "blk.-1.x", "token_embd.weight", ""}) {
    EXPECT_TRUE(plan.allows(name)) << name;
  }
}

TEST(LayerPlan, EmptyTextSetsNoPlanAndPrintsNothing) {
  LayerPlan plan;
  set(plan, 8, "cpu:all");
  EXPECT_EQ(set(plan, 8, ""), "");
  EXPECT_FALSE(plan.isSet());
  EXPECT_EQ(layersOf(plan, 8), "gggggggg");
  EXPECT_EQ(set(plan, 0, ""), "");
}

TEST(LayerPlan, WithoutLayersIsRefusedAndUnset) {
  LayerPlan plan;
  set(plan, 8, "cpu:all");
  EXPECT_EQ(set(plan, 0, "cpu:all", false), "[qwen35-gpu] layer plan ignored (no layers)\n");
  EXPECT_FALSE(plan.isSet());
  EXPECT_TRUE(plan.allows("blk.3.ffn_up.weight"));
}

TEST(LayerPlan, ALaterPlanReplacesAnEarlierOne) {
  LayerPlan plan;
  set(plan, 4, "gpu:all");
  set(plan, 6, "cpu:3,gpu:all");
  EXPECT_EQ(layersOf(plan, 6), "cccggg");
  set(plan, 4, "gpu:1,cpu:all");
  EXPECT_EQ(layersOf(plan, 4), "gccc");
}

TEST(LayerPlan, NamesOfLayersAreReadAsNumbers) {
  LayerPlan plan;
  set(plan, 10, "cpu:3,gpu:all");
  EXPECT_FALSE(plan.allows("blk.2.attn_q.weight"));
  EXPECT_TRUE(plan.allows("blk.3.attn_q.weight"));
  EXPECT_TRUE(plan.allows("blk.9.a.b"));
  EXPECT_FALSE(plan.allows("blk.10.attn_q.weight"));
  EXPECT_FALSE(plan.allows("blk.12.attn_q.weight"));
  EXPECT_FALSE(plan.allows("blk.-1.attn_q.weight"));
  EXPECT_FALSE(plan.allows("blk.99999999999999999999.x"));
  EXPECT_FALSE(plan.allows("blk..attn_q.weight")) << "no digits: layer 0";
  EXPECT_FALSE(plan.allows("blk.x.attn_q.weight")) << "no digits: layer 0";
}

TEST(LayerPlan, OtherNamesFollowWhetherAnyLayerIsOnTheGpu) {
  const char* const names[] = {
      "token_embd.weight", "output_norm.weight", "blk.3", "blk.", "blk", "", "Blk.0.x"};
  LayerPlan some;
  set(some, 10, "cpu:9,gpu:1");
  LayerPlan none;
  set(none, 10, "cpu:all");
  for (const char* name : names) {
    EXPECT_TRUE(some.allows(name)) << name;
    EXPECT_FALSE(none.allows(name)) << name;
  }
}

}  // namespace
}  // namespace zemtest
