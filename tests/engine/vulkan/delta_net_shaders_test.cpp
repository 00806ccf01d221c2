// SPDX-License-Identifier: Apache-2.0
// The stages of linear attention on a device against those of the CPU.
#include <cmath>
#include <ostream>

#include "engine/vulkan/step_shaders.h"
#include "kiv/vulkan/shaders/float_testing.h"
#include "layers/delta_net.h"
#include "qwen35_model.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {
namespace {

using qwen35::Activations;
using qwen35::DeltaNetSizes;
using zem::StepShader;

// Two conversations: five tokens of the one in place 2, one of the one in place 0.
constexpr uint32_t kRunTokens = 6;
constexpr uint32_t kPlaces = 3;
const std::vector<uint32_t> kRuns = {0, 5, 2, 0, 5, 1, 0, 0};

struct Model {
  DeltaNetSizes sizes;
  size_t tapStride;
};
void PrintTo(const Model& model, std::ostream* out) {
  *out << model.sizes.keyHeads << '/' << model.sizes.valueHeads << " heads of "
       << model.sizes.headSize;
}

std::vector<Expected> close(const std::vector<float>& values, double share) {
  double largest = 0;
  for (const float value : values) largest = std::max(largest, std::abs(double{value}));
  std::vector<Expected> expected;
  for (const float value : values) expected.push_back({value, share * largest});
  return expected;
}

class DeltaNetShaders : public ShaderTest, public ::testing::WithParamInterface<Model> {
 protected:
  void SetUp() override {
    ShaderTest::SetUp();
    mixed_ = rows(sizes_.channels(), 1);
    gate_ = rows(sizes_.valueChannels(), 2);
    beta_ = rows(sizes_.valueHeads, 3);
    alpha_ = rows(sizes_.valueHeads, 4);
    for (float& value : alpha_.values) value *= 10;
    taps_ = randomVector(sizes_.channels() * GetParam().tapStride, 5);
    decayBias_ = randomVector(sizes_.valueHeads, 6);
    decay_ = randomVector(sizes_.valueHeads, 7);
    for (float& value : decay_) value = -std::abs(value);
    norm_ = randomVector(sizes_.headSize, 8);
    states_ = randomVector(kPlaces * stateFloats(), 9);
  }

  static Activations rows(size_t width, uint32_t seed) {
    return {width, randomVector(kRunTokens * width, seed)};
  }
  size_t stateFloats() const { return sizes_.stateFloats() + sizes_.windowFloats(); }
  uint32_t word(size_t value) const { return static_cast<uint32_t>(value); }

  std::vector<qwen35::StateRun> runs(std::vector<float>& states) const {
    std::vector<qwen35::StateRun> runs;
    for (size_t i = 0; i < kRuns.size(); i += 4) {
      float* state = states.data() + kRuns[i + 2] * stateFloats();
      runs.push_back({state, state + sizes_.stateFloats(), kRuns[i], kRuns[i + 1]});
    }
    return runs;
  }
  qwen35::DeltaNetWeights weights() const {
    return {decayBias_.data(), decay_.data(), taps_.data(), GetParam().tapStride, norm_.data()};
  }

  const DeltaNetSizes& sizes_ = GetParam().sizes;
  Activations mixed_;
  Activations gate_;
  Activations beta_;
  Activations alpha_;
  std::vector<float> taps_;
  std::vector<float> decayBias_;
  std::vector<float> decay_;
  std::vector<float> norm_;
  std::vector<float> states_;
};

INSTANTIATE_TEST_SUITE_P(Each, DeltaNetShaders,
                         ::testing::Values(Model{{1, 1, 1}, 4}, Model{{2, 6, 12}, 4},
                                           Model{{3, 3, 5}, 7}, Model{{2, 4, 64}, 4},
                                           Model{{1, 2, 65}, 5}, Model{{1, 3, 100}, 4},
                                           Model{{1, 2, 128}, 4}));

TEST_P(DeltaNetShaders, ConvolveAsOnTheCpu) {
  std::vector<BufferBytes> buffers = {bytesOf(kRuns), guarded(taps_), changeable(states_),
                                      changeable(mixed_.values)};
  run(zem::stepShader(StepShader::Convolve), buffers,
      {word(sizes_.channels()), word(GetParam().tapStride), word(stateFloats()),
       word(sizes_.stateFloats())},
      {ceilDiv(sizes_.channels(), 256), 1, 2});
  qwen35::convolve(sizes_, weights(), runs(states_), mixed_);
  expectResults(buffers[2], close(states_, 0));
  expectResults(buffers[3], close(mixed_.values, 1e-6));
}

TEST_P(DeltaNetShaders, AdvanceTheStateAsOnTheCpu) {
  std::vector<BufferBytes> buffers = {
      bytesOf(kRuns),        guarded(mixed_.values),
      guarded(beta_.values), guarded(alpha_.values),
      guarded(gate_.values), guarded(decayBias_),
      guarded(decay_),       guarded(norm_),
      changeable(states_),   room(kRunTokens * sizes_.valueChannels())};
  run(zem::stepShader(StepShader::DeltaRule), buffers,
      {word(sizes_.keyHeads), word(sizes_.valueHeads), word(sizes_.headSize), word(stateFloats()),
       pushFloat(qwen35::kNormEps)},
      {word(sizes_.valueHeads), 1, 2});

  qwen35::writeStrengths(beta_, kRunTokens);
  qwen35::logDecays(weights(), alpha_, kRunTokens);
  qwen35::normaliseKeys(sizes_, mixed_, kRunTokens);
  qwen35::recur(sizes_, runs(states_), mixed_, beta_, alpha_);
  qwen35::gateOutputs(sizes_, weights(), mixed_, gate_, kRunTokens);
  std::vector<float> out;
  for (size_t t = 0; t < kRunTokens; ++t) {
    const float* values = mixed_.token(t) + sizes_.keyChannels();
    out.insert(out.end(), values, values + sizes_.valueChannels());
  }
  expectResults(buffers[8], close(states_, 1e-5));
  expectResults(buffers[9], close(out, 3e-5));
}

}  // namespace
}  // namespace zemtest
