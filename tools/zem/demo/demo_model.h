// What `zem make-demo` writes: models of the supported architecture with seeded
// random weights, complete in names, shapes and metadata, without knowledge.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kiv/tensor.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_writer.h"

namespace zemtool {

enum class DemoSize {
  // Width 256. The layers of a kind share one set of tensors in the file, so
  // that a model of 32 layers stays small.
  Tiny,
  // The shapes of a model of four billion weights, for benchmarks.
  Full4B,
};

// The type of the matrices. Q4_K_M is a mix: Q6_K for attn_v, ffn_down and the
// embedding, Q8_0 for ssm_alpha and ssm_beta, Q4_K for the rest. Vectors and the
// convolution are F32 always.
enum class DemoType { F32, BF16, Q8_0, Q4_K, Q5_K, Q6_K, Q4_K_M };

// A tensor and the rule of its weights. Element i follows from the hash of the
// model's seed, the tensor's name and i, whoever computes it.
struct DemoTensor {
  std::string name;
  kiv::DType type = kiv::DType::F32;
  std::vector<uint64_t> shape;
  float mean = 0;
  float spread = 0;       // uniform in [mean - spread, mean + spread]
  bool perToken = false;  // row r is multiplied by DemoModel::loudness[r]

  uint64_t cols() const { return shape[0]; }
  uint64_t rows() const { return shape.size() > 1 ? shape[1] : 1; }
};

struct DemoModel {
  uint64_t seed = 0;
  DemoSize size = DemoSize::Tiny;
  DemoType type = DemoType::Q4_K;
  uint32_t width = 0;
  uint32_t feedForward = 0;
  kiv::TokenizerData tokenizer;
  std::vector<float> loudness;  // one a token
  std::vector<DemoTensor> tensors;
  std::vector<std::pair<std::string, std::string>> aliases;  // name, target
};

inline constexpr std::array kDemoSizes = {DemoSize::Tiny, DemoSize::Full4B};
inline constexpr std::array kDemoTypes = {DemoType::F32,   DemoType::BF16, DemoType::Q8_0,
                                          DemoType::Q4_K,  DemoType::Q5_K, DemoType::Q6_K,
                                          DemoType::Q4_K_M};

// "tiny", "4b"; "f32", ..., "q4_k_m".
const char* demoSizeName(DemoSize size);
const char* demoTypeName(DemoType type);

DemoModel planDemoModel(DemoSize size, DemoType type, uint64_t seed);

// Declares everything but the weights. `generator` goes into the metadata.
void declareDemoModel(const DemoModel& model, const std::string& generator,
                      kiv::ZEM2Writer& writer);

// Replaces `out` by the stored bytes of rows `first` to `first + count - 1`. The
// bytes are the same on every machine. Any thread.
void encodeDemoRows(const DemoModel& model, const DemoTensor& tensor, uint64_t first,
                    uint64_t count, std::vector<uint8_t>& out);

}  // namespace zemtool
