// SPDX-License-Identifier: Apache-2.0
// What `zem make-demo` writes: models with seeded random weights, complete in names, shapes
// and metadata.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kiv/model/architecture.h"
#include "kiv/model/weight_mix.h"
#include "kiv/tensor.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_writer.h"

namespace zemtool {

enum class DemoSize {
  // Width 256. The layers of a kind share one set of tensors, so that a model of 32 layers
  // stays small.
  Tiny,
  // The shapes of the published models of as many billion weights, for measuring.
  Full08B,
  Full2B,
  Full4B,
  Full9B,
};

// A tensor and the rule of its weights. Element i follows from the hash of the model's seed,
// the tensor's name and i alone.
struct DemoTensor {
  std::string name;
  kiv::TensorRole role = kiv::TensorRole::Embedding;
  kiv::DType type = kiv::DType::F32;
  std::vector<uint64_t> shape;
  float mean = 0;
  float spread = 0;  // uniform in [mean - spread, mean + spread]

  uint64_t cols() const { return shape[0]; }
  uint64_t rows() const { return shape.size() > 1 ? shape[1] : 1; }
};

struct DemoModel {
  uint64_t seed = 0;
  DemoSize size = DemoSize::Tiny;
  kiv::WeightMix type = kiv::WeightMix::Q4_K;
  kiv::Architecture architecture;
  kiv::TokenizerData tokenizer;
  std::vector<float> loudness;  // one a token: the factor of its row in the output head
  std::vector<DemoTensor> tensors;
  std::vector<std::pair<std::string, std::string>> aliases;  // name, target
};

inline constexpr std::array kDemoSizes = {DemoSize::Tiny, DemoSize::Full08B, DemoSize::Full2B,
                                          DemoSize::Full4B, DemoSize::Full9B};
// A pure type is that of every matrix, ssm_alpha and ssm_beta included.
inline constexpr std::array kDemoTypes = {
    kiv::WeightMix::F32,  kiv::WeightMix::BF16, kiv::WeightMix::Q8_0,  kiv::WeightMix::Q4_K,
    kiv::WeightMix::Q5_K, kiv::WeightMix::Q6_K, kiv::WeightMix::Q4_K_M};

const char* demoSizeName(DemoSize size);  // "tiny", "0.8b", ...

// `type` is one of kDemoTypes.
DemoModel planDemoModel(DemoSize size, kiv::WeightMix type, uint64_t seed);

// Declares all sections and tensors; writes no weights. `generator` goes into the metadata.
void declareDemoModel(const DemoModel& model, const std::string& generator,
                      kiv::ZEM2Writer& writer);

// Replaces `out` by the stored bytes of rows `first` to `first + count - 1`. The
// bytes are the same on every machine. Any thread.
void encodeDemoRows(const DemoModel& model, const DemoTensor& tensor, uint64_t first,
                    uint64_t count, std::vector<uint8_t>& out);

}  // namespace zemtool
