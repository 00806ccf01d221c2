// SPDX-License-Identifier: Apache-2.0
// The plan of a conversion: each tensor's type in the container, and the way there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "convert/checkpoint_layout.h"
#include "convert/source.h"
#include "kiv/model/weight_mix.h"
#include "kiv/tensor.h"

namespace zemtool {

using kiv::WeightMix;

struct PlannedTensor {
  std::string name;
  kiv::TensorRole role = kiv::TensorRole::Embedding;
  std::vector<uint64_t> shape;  // the container's
  kiv::DType type = kiv::DType::F32;
  const SourceTensor* source = nullptr;
  bool copied = false;  // the source's bytes are the container's
  LayoutChange change;

  uint64_t cols() const { return shape[0]; }
  uint64_t rows() const { return shape.size() > 1 ? shape[1] : 1; }
  uint64_t rowBytes() const { return kiv::dtypeBytes(type, cols()); }
  uint64_t bytes() const { return rows() * rowBytes(); }
  uint64_t elements() const { return rows() * cols(); }
};

// A matrix that has another type than the wanted one.
struct Fallback {
  std::string name;
  kiv::DType wanted;
  kiv::DType type;
  std::string reason;
};

struct ConversionPlan {
  kiv::Architecture architecture;
  std::vector<PlannedTensor> tensors;  // by name
  std::vector<Fallback> fallbacks;

  uint64_t bytes() const;  // with the padding between tensors
};

// Checks that every tensor is there and has the shape that the source's architecture needs. Blocks
// that a container can hold are copied, unless `recode` asks for `mix` everywhere. Throws Failure,
// which names the tensor, what was found and what is needed.
ConversionPlan planConversion(const ModelSource& source, WeightMix mix, bool recode);

// The tensor with the container's name for this role. Throws Failure where there is none.
const SourceTensor& requireTensor(const ModelSource& source, kiv::TensorRole role,
                                  uint32_t layer = 0);

// The tensor's name in messages: as the source spells it, in quotation marks.
std::string nameInSource(const ModelSource& source, kiv::TensorRole role, uint32_t layer = 0);

// "[8192, 64]", in the order of the source's own tools.
std::string sourceShape(const ModelSource& source, const std::vector<uint64_t>& innermostFirst);

}  // namespace zemtool
