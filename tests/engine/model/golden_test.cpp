// SPDX-License-Identifier: Apache-2.0
// The engine against independent implementations of the model family, in shapes of several sizes.
// The weights come from a formula; tests/data/README.md has it, and the origin of the values.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine/model/decoder.h"
#include "engine/model/plain_decoder.h"
#include "engine/model/shaped_model.h"
#include "matmul/thread_team.h"
#include "support/container_builder.h"
#include "support/golden_checkpoint.h"
#include "support/tiny_model.h"

namespace zem {
namespace {

using Floats = std::vector<float>;
using nlohmann::json;

json readGolden(const char* name) {
  std::ifstream file(std::string(ZEM_TEST_DATA "/") + name);
  return json::parse(file);
}

class GoldenContainer {
 public:
  explicit GoldenContainer(std::string tag, uint32_t valueHeads = 32)
      : tag_(std::move(tag)), valueHeads_(valueHeads) {
    builder_.tokenizer(zemtest::tinyTokenizer()).addMetaStr("general.architecture", "qwen35");
    meta("linear.value_head_count", valueHeads);
  }

  void meta(const std::string& key, uint32_t value) { builder_.addMetaU32("qwen35." + key, value); }

  // The tensor that a checkpoint publishes under `name`, its outermost extent first.
  void add(const std::string& name, std::vector<uint64_t> shape) {
    Floats values = zemtest::goldenTensor(tag_, name, shape);
    zemtest::toContainerLayout(name, values, shape, valueHeads_);
    builder_.addTensor(zemtest::goldenContainerName(name), kiv::DType::F32,
                       {shape.rbegin(), shape.rend()},
                       zemtest::encodeRows(kiv::DType::F32, values, shape.back()));
  }
  void addAll(const json& tensors) {
    for (const auto& [name, shape] : tensors.items()) add(name, shape);
  }

  zemtest::Bytes build() { return builder_.build(); }

 private:
  std::string tag_;
  uint32_t valueHeads_;
  zemtest::ContainerBuilder builder_;
};

GoldenContainer shapeD(const json& golden) {
  GoldenContainer container("d", golden["shape"]["vh"]);
  container.meta("block_count", golden["shape"]["layers"]);
  container.meta("attention.head_count", golden["shape"]["heads"]);
  container.meta("attention.head_count_kv", golden["shape"]["kv"]);
  container.addAll(golden["tensors"]);
  return container;
}

// The logits of all ids, in chunks.
Floats logitsOf(const Weights& weights, const std::vector<uint32_t>& ids) {
  qwen35::ThreadTeam team(2);
  const qwen35::UseTeam use(team);
  Decoder decoder(weights, CacheType::F32);
  SequenceState sequence = decoder.newSequence();
  Floats all;
  for (size_t first = 0; first < ids.size(); first += 9) {
    const size_t count = std::min<size_t>(9, ids.size() - first);
    const Chunk chunk{&sequence, std::span(ids).subspan(first, count), LogitsOf::All};
    Floats logits;
    decoder.step({&chunk, 1}, logits);
    all.insert(all.end(), logits.begin(), logits.end());
  }
  return all;
}

struct Comparison {
  double worst = 0;    // |difference|
  double largest = 0;  // |expected|
  size_t otherBest = 0;
};

template <typename Rows>
Comparison compare(const Floats& logits, const Rows& expected) {
  Comparison result;
  const float* row = logits.data();
  for (const auto& want : expected) {
    for (size_t v = 0; v < want.size(); ++v) {
      const auto wanted = static_cast<double>(want[v]);
      result.worst = std::max(result.worst, std::abs(static_cast<double>(row[v]) - wanted));
      result.largest = std::max(result.largest, std::abs(wanted));
    }
    const auto best = [](auto begin, auto end) { return std::max_element(begin, end) - begin; };
    result.otherBest += best(row, row + want.size()) != best(want.begin(), want.end());
    row += want.size();
  }
  return result;
}

std::vector<std::vector<double>> plainLogits(const Weights& weights,
                                             const std::vector<uint32_t>& ids) {
  zemtest::PlainDecoder plain(weights);
  std::vector<std::vector<double>> rows;
  for (const uint32_t id : ids) rows.push_back(plain.next(id));
  return rows;
}

Floats toFloats(const std::vector<std::vector<double>>& rows) {
  Floats all;
  for (const auto& row : rows) all.insert(all.end(), row.begin(), row.end());
  return all;
}

std::vector<std::vector<double>> goldenLogits(const json& golden) { return golden["logits"]; }

// The bounds are what was measured and at most a tenth more.
TEST(EngineGolden, ModelOf32Layers) {
  const json golden = readGolden("qwen35_tiny_a.json");
  GoldenContainer container("a");
  container.addAll(golden["tensors"]);
  const zemtest::TempFile file(container.build());
  const std::unique_ptr<Weights> weights = zemtest::openWeights(file);
  ASSERT_NE(weights, nullptr);
  const Floats logits = logitsOf(*weights, golden["ids"]);
  const Comparison with = compare(logits, goldenLogits(golden));
  EXPECT_LE(with.worst, 3.4e-4);
  EXPECT_EQ(with.otherBest, 0U);
  // Both are sums in single precision; rounding is what separates them.
  const auto plain = plainLogits(*weights, golden["ids"]);
  EXPECT_LE(compare(logits, plain).worst, 3.6e-4);
  EXPECT_LE(compare(toFloats(plain), goldenLogits(golden)).worst, 3e-4);
}

TEST(EngineGolden, ModelOf24LayersAnd16ValueHeads) {
  const json golden = readGolden("qwen35_tiny_d.json");
  const zemtest::TempFile file(shapeD(golden).build());
  const std::unique_ptr<Weights> weights = zemtest::openWeights(file);
  ASSERT_NE(weights, nullptr);
  EXPECT_EQ(weights->shape().layers, 24U);
  EXPECT_EQ(weights->fullLayers(), 6U);
  const Comparison with = compare(logitsOf(*weights, golden["ids"]), goldenLogits(golden));
  EXPECT_LE(with.worst, 2.7e-4) << "of " << with.largest;
  EXPECT_EQ(with.otherBest, 0U);
  // The formulas of the tests are right, too.
  const auto plain = plainLogits(*weights, golden["ids"]);
  EXPECT_LE(compare(toFloats(plain), goldenLogits(golden)).worst, 1.74e-5);
}

TEST(EngineGolden, OwnHeadAnd48ValueHeads) {
  const json golden = readGolden("qwen35_tiny_d.json");
  json tensors = golden["tensors"];
  // Three value heads a key head, as many layers as show both kinds, and a head.
  for (auto it = tensors.begin(); it != tensors.end();) {
    const std::string layers = "model.language_model.layers.";
    const bool later =
        it.key().starts_with(layers) && std::stoi(it.key().substr(layers.size())) > 3;
    it = later ? tensors.erase(it) : std::next(it);
  }
  for (auto& [name, shape] : tensors.items()) {
    for (json& extent : shape) {
      if (extent == 2048) extent = 48 * 128;
      if (extent == 6144 && !name.ends_with("z.weight") && !name.ends_with("out_proj.weight")) {
        extent = 2 * 2048 + 48 * 128;
      }
      if (extent == 16) extent = 48;
    }
  }
  GoldenContainer container("e", 48);
  container.meta("block_count", 4);
  container.meta("attention.head_count", golden["shape"]["heads"]);
  container.meta("attention.head_count_kv", golden["shape"]["kv"]);
  for (const auto& [name, shape] : tensors.items()) {
    std::vector<uint64_t> extents = shape;
    if (name.find("self_attn.o_proj") != std::string::npos) extents = {128, 2048};
    container.add(name, extents);
  }
  container.add("lm_head.weight", {130, 128});
  const zemtest::TempFile file(container.build());
  const std::unique_ptr<Weights> weights = zemtest::openWeights(file);
  ASSERT_NE(weights, nullptr);
  EXPECT_TRUE(weights->shape().ownHead);
  const Comparison with =
      compare(logitsOf(*weights, golden["ids"]), plainLogits(*weights, golden["ids"]));
  EXPECT_LE(with.worst, 1.26e-5) << "of " << with.largest;
}

}  // namespace
}  // namespace zem
