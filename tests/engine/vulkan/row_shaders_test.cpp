// SPDX-License-Identifier: Apache-2.0
// Shaders over the rows of a step: norms, biases, gates, the first candidates.
#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>

#include "engine/vulkan/step_shaders.h"
#include "kernels/reference.h"
#include "kiv/vulkan/shaders/float_testing.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {
namespace {

using zem::StepShader;
namespace reference = qwen35::reference;

class RowShaders : public ShaderTest {
 protected:
  void run(StepShader shader, std::vector<BufferBytes>& buffers, const std::vector<uint32_t>& push,
           Workgroups groups) {
    ShaderTest::run(zem::stepShader(shader), buffers, push, groups);
  }
};

constexpr size_t kWidths[] = {1, 33, 256, 257, 1000};

TEST_F(RowShaders, NormDividesByTheRootOfTheMeanSquare) {
  constexpr float kEps = 1e-6F;
  const std::vector<uint32_t> picks = {2, 0};
  for (const size_t width : kWidths) {
    const std::vector<float> x = randomVector(3 * width, 1);
    const std::vector<float> weight = randomVector(width, 2);
    for (const uint32_t picked : {0U, 1U}) {
      std::vector<Expected> expected;
      for (size_t row = 0; row < 2; ++row) {
        std::vector<float> out(width);
        reference::rmsNorm(x.data() + (picked == 0 ? row : picks[row]) * width, weight.data(),
                           out.data(), width, kEps);
        for (const float value : out) expected.push_back({value, 1e-5 * std::abs(value) + 1e-30});
      }
      std::vector<BufferBytes> buffers = {bytesOf(picks), guarded(x), guarded(weight),
                                          room(expected.size())};
      run(StepShader::Norm, buffers, {static_cast<uint32_t>(width), pushFloat(kEps), picked},
          {1, 1, 2});
      expectResults(buffers[3], expected);
    }
  }
}

TEST_F(RowShaders, BiasesAreAddedToEveryRow) {
  for (const size_t width : kWidths) {
    const std::vector<float> bias = randomVector(width, 1);
    const std::vector<float> y = randomVector(3 * width, 2);
    std::vector<Expected> expected;
    for (size_t i = 0; i < y.size(); ++i) expected.push_back({y[i] + bias[i % width], 0});
    std::vector<BufferBytes> buffers = {guarded(bias), changeable(y)};
    run(StepShader::AddBias, buffers, {static_cast<uint32_t>(width)}, {ceilDiv(width, 256), 1, 3});
    expectResults(buffers[1], expected);
  }
}

TEST_F(RowShaders, GateMultipliesWithSiluOfTheGate) {
  for (const size_t width : kWidths) {
    std::vector<float> gate = randomVector(2 * width, 1);
    const std::vector<float> up = randomVector(2 * width, 2);
    for (float& g : gate) g *= 20;
    gate[0] = -200;
    std::vector<Expected> expected;
    for (size_t i = 0; i < gate.size(); ++i) {
      const double g = gate[i];
      const double wanted = g / (1 + std::exp(-g)) * static_cast<double>(up[i]);
      expected.push_back({wanted, 1e-5 * std::abs(wanted) + 1e-12});
    }
    std::vector<BufferBytes> buffers = {guarded(gate), guarded(up), room(expected.size())};
    run(StepShader::Gate, buffers, {static_cast<uint32_t>(width)}, {ceilDiv(width, 256), 1, 2});
    expectResults(buffers[2], expected);
  }
}

// ---- the first candidates

struct Ranked {
  uint32_t bits;
  uint32_t id;
  bool operator==(const Ranked&) const = default;
};

class TopShaders : public RowShaders {
 protected:
  // Of rows of `count` logits.
  std::vector<Ranked> top(const std::vector<float>& logits, uint32_t count, uint32_t most) {
    const auto rows = static_cast<uint32_t>(logits.size() / count);
    const uint32_t parts = ceilDiv(count, zem::kTopPart);
    const auto places = [&](uint32_t each) {
      return bytesOf(std::vector<Ranked>(size_t{rows} * each * most));
    };
    std::vector<BufferBytes> buffers = {guarded(logits), places(parts)};
    run(StepShader::TopParts, buffers, {count, most}, {parts, 1, rows});
    std::vector<BufferBytes> joined = {buffers[1], places(1)};
    run(StepShader::TopJoin, joined, {parts, most}, {1, 1, rows});
    return valuesOf<Ranked>(joined[1]);
  }

  static std::vector<Ranked> plainTop(const float* logits, uint32_t count, uint32_t most) {
    std::vector<uint32_t> order;
    for (uint32_t i = 0; i < count; ++i) {
      if (!std::isnan(logits[i])) order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return logits[a] > logits[b]; });
    std::vector<Ranked> out(most, Ranked{std::bit_cast<uint32_t>(-kInf), ~0U});
    for (size_t i = 0; i < std::min<size_t>(most, order.size()); ++i) {
      out[i] = {std::bit_cast<uint32_t>(logits[order[i]]), order[i]};
    }
    return out;
  }
};

TEST_F(TopShaders, GiveTheLargestLogitsInOrder) {
  for (const uint32_t count : {1U, 100U, 4096U, 4097U, 20000U}) {
    const std::vector<float> logits = randomVector(3 * size_t{count}, count);
    for (const uint32_t most : {1U, 7U, 64U}) {
      const std::vector<Ranked> actual = top(logits, count, most);
      for (size_t row = 0; row < 3; ++row) {
        const auto begin = actual.begin() + static_cast<ptrdiff_t>(row * most);
        EXPECT_EQ(std::vector<Ranked>(begin, begin + most),
                  plainTop(logits.data() + row * count, count, most))
            << count << " logits, " << most << " candidates, row " << row;
      }
    }
  }
}

TEST_F(TopShaders, TakeTheLowestOfEqualOnesAndNeverNaN) {
  std::vector<float> logits(9000, 1.5F);
  logits[4] = kNan;
  logits[0] = kNan;
  logits[8999] = kInf;
  logits[17] = -kInf;
  EXPECT_EQ(top(logits, 9000, 5), plainTop(logits.data(), 9000, 5));
  const std::vector<float> least(10, -kInf);
  EXPECT_EQ(top(least, 10, 3), plainTop(least.data(), 10, 3));
  const std::vector<float> none(5000, kNan);
  EXPECT_EQ(top(none, 5000, 3), plainTop(none.data(), 5000, 3));
}

}  // namespace
}  // namespace zemtest
