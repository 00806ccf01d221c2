// SPDX-License-Identifier: Apache-2.0
#include "convert/checkpoint_layout.h"

#include <gtest/gtest.h>

#include <set>

namespace zemtool {
namespace {

using kiv::Architecture;
using kiv::TensorRole;

TEST(CheckpointNames, AreTheLayersOwnOrTheModels) {
  EXPECT_EQ(checkpointName(TensorRole::Embedding, 0), "embed_tokens.weight");
  EXPECT_EQ(checkpointName(TensorRole::OutputNorm, 0), "norm.weight");
  EXPECT_EQ(checkpointName(TensorRole::Query, 3), "layers.3.self_attn.q_proj.weight");
  EXPECT_EQ(checkpointName(TensorRole::Decay, 10), "layers.10.linear_attn.A_log");
}

TEST(CheckpointNames, NoTwoTensorsShareOne) {
  Architecture architecture;
  architecture.ownHead = true;
  std::set<std::string> names;
  for (const kiv::ArchitectureTensor& tensor : kiv::tensorsOf(architecture)) {
    EXPECT_TRUE(names.insert(checkpointName(tensor.role, tensor.layer)).second) << tensor.name;
  }
}

TEST(CheckpointLayout, ValueHeadsOfAKeyHeadAreDealtOut) {
  Architecture architecture;
  for (const uint64_t valueHeads : {16, 32, 48}) {
    architecture.valueHeads = valueHeads;
    const HeadOrder order = changeFromCheckpoint(architecture, TensorRole::Alpha).rows;
    const uint64_t perKey = valueHeads / 16;
    std::set<uint64_t> seen;
    for (uint64_t i = 0; i < valueHeads; ++i) {
      // Head i of the container belongs to key head i % 16.
      EXPECT_EQ(order.source(i) / perKey, i % 16) << valueHeads;
      EXPECT_EQ(order.source(i) % perKey, i / 16) << valueHeads;
      seen.insert(order.source(i));
    }
    EXPECT_EQ(seen.size(), valueHeads);
  }
}

TEST(CheckpointLayout, QueriesAndKeysStayAndValuesMoveInRunsOfAHead) {
  const HeadOrder order = changeFromCheckpoint({}, TensorRole::Mixed).rows;
  EXPECT_EQ(order.source(0), 0U);
  EXPECT_EQ(order.source(4095), 4095U);
  EXPECT_EQ(order.source(4096), 4096U);
  EXPECT_EQ(order.source(4096 + 128 + 5), 4096U + 2 * 128 + 5);  // head 1 is the checkpoint's 2
  EXPECT_EQ(order.source(4096 + 16 * 128), 4096U + 1 * 128);     // head 16 is its 1
  EXPECT_EQ(order.source(4096 + 31 * 128), 4096U + 31 * 128);
}

TEST(CheckpointLayout, NormsGainOneButForThatOfTheState) {
  for (const TensorRole role :
       {TensorRole::AttentionNorm, TensorRole::FeedForwardNorm, TensorRole::QueryNorm,
        TensorRole::KeyNorm, TensorRole::OutputNorm}) {
    EXPECT_EQ(changeFromCheckpoint({}, role).elements, ElementChange::PlusOne);
  }
  EXPECT_EQ(changeFromCheckpoint({}, TensorRole::StateNorm).elements, ElementChange::None);
  EXPECT_EQ(changeFromCheckpoint({}, TensorRole::Decay).elements, ElementChange::NegativeExp);
  EXPECT_EQ(changeFromCheckpoint({}, TensorRole::Decay).columns.run, 1U);
  EXPECT_EQ(changeFromCheckpoint({}, TensorRole::FeedForwardUp).rows.run, 0U);
}

}  // namespace
}  // namespace zemtool
