// What becomes of each tensor: its type in the container, and the way there.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "convert/model_shape.h"
#include "convert/source.h"
#include "kiv/tensor.h"

namespace zemtool {

// The type of the matrices. The two mixes store the embedding, attn_v and
// ffn_down as Q6_K and the rest as Q4_K or Q5_K. Below Q8_0, ssm_alpha and ssm_beta
// are Q8_0. Vectors and the convolution are F32 always.
enum class WeightMix { F32, BF16, Q8_0, Q4_K, Q5_K, Q6_K, Q4_K_M, Q5_K_M };

inline constexpr std::array kWeightMixes = {WeightMix::F32,    WeightMix::BF16,  WeightMix::Q8_0,
                                            WeightMix::Q4_K,   WeightMix::Q5_K,  WeightMix::Q6_K,
                                            WeightMix::Q4_K_M, WeightMix::Q5_K_M};

const char* weightMixName(WeightMix mix);  // "f32", ..., "q5_k_m"

// Indexes of the container are `first` and up in runs of `block`, one a value
// head, in another order than the checkpoint's; 0: nothing moves.
struct HeadOrder {
  uint64_t first = 0;
  uint64_t block = 0;

  // The checkpoint's index of the container's index `i`.
  uint64_t source(uint64_t i) const {
    if (block == 0 || i < first) return i;
    const uint64_t head = (i - first) / block;
    return first + checkpointValueHead(head) * block + (i - first) % block;
  }
};

enum class ElementChange { None, PlusOne, NegativeExp };

struct PlannedTensor {
  std::string name;
  std::vector<uint64_t> shape;  // the container's
  kiv::DType type = kiv::DType::F32;
  const SourceTensor* source = nullptr;
  bool copied = false;  // the source's bytes are the container's
  HeadOrder rowOrder;
  HeadOrder columnOrder;
  ElementChange change = ElementChange::None;

  uint64_t cols() const { return shape[0]; }
  uint64_t rows() const { return shape.size() > 1 ? shape[1] : 1; }
  uint64_t rowBytes() const { return kiv::dtypeBytes(type, cols()); }
  uint64_t bytes() const { return rows() * rowBytes(); }
  uint64_t elements() const { return rows() * cols(); }
};

// A matrix that could not have the wanted type.
struct Fallback {
  std::string name;
  kiv::DType wanted;
  kiv::DType type;
  std::string reason;
};

struct ConversionPlan {
  ModelWidths widths;
  std::vector<PlannedTensor> tensors;  // by name
  std::vector<Fallback> fallbacks;

  uint64_t bytes() const;  // with the padding between tensors
};

// Takes the widths from the tensors and checks that every tensor is there and has
// the shape that the architecture needs. Blocks that a container holds as they are
// are copied, unless `recode` asks for `mix` everywhere. Throws Failure, which
// names the tensor, what was found and what is needed.
ConversionPlan planConversion(const ModelSource& source, WeightMix mix, bool recode);

// The widths that the embedding and the first feed-forward block have.
ModelWidths widthsOf(const ModelSource& source);

// The source's name for a container's tensor, for messages and look-ups.
std::string checkpointName(const std::string& containerName);

// "[8192, 64]", in the order of the source's own tools.
std::string sourceShape(const ModelSource& source, const std::vector<uint64_t>& innermostFirst);

}  // namespace zemtool
