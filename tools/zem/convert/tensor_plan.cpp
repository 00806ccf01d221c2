// SPDX-License-Identifier: Apache-2.0
#include "convert/tensor_plan.h"

#include <algorithm>
#include <array>
#include <utility>

#include "console/terminal.h"

namespace zemtool {
namespace {

using kiv::ArchitectureTensor;
using kiv::DType;
using kiv::TensorRole;

constexpr uint64_t kAlignment = 64;

// Extents of 1 say nothing about where elements lie.
std::vector<uint64_t> squeezed(std::vector<uint64_t> shape) {
  std::erase(shape, 1);
  return shape;
}

bool has(const ModelSource& source, TensorRole role, uint32_t layer) {
  return source.tensors.count(kiv::tensorName(role, layer)) != 0;
}

void checkShape(const ModelSource& source, const SourceTensor& found,
                const std::vector<uint64_t>& needed) {
  if (squeezed(found.shape) == squeezed(needed)) return;
  throw Failure("tensor '" + found.name + "' has the shape " + sourceShape(source, found.shape) +
                ", needs " + sourceShape(source, needed));
}

void checkType(const ModelSource& source, const SourceTensor& tensor) {
  if (kiv::ggufBlockSize(tensor.type) != 0) return;
  throw Failure(
      "tensor '" + tensor.name + "' has the type " + tensor.typeName + ", which " +
      (source.checkpointLayout ? "is none of F32, BF16 and F16" : "this program cannot read"));
}

// A row has whole blocks only.
DType fittingType(DType wanted, uint64_t cols) {
  if (cols % kiv::dtypeBlockSize(wanted) == 0) return wanted;
  return cols % kiv::dtypeBlockSize(DType::Q8_0) == 0 ? DType::Q8_0 : DType::BF16;
}

class Planner {
 public:
  Planner(const ModelSource& source, WeightMix mix, bool recode)
      : source_(source), mix_(mix), recode_(recode) {}

  ConversionPlan plan() {
    plan_.architecture = source_.architecture;
    for (const ArchitectureTensor& tensor : kiv::tensorsOf(plan_.architecture)) {
      if (!tensor.optional || has(source_, tensor.role, tensor.layer)) add(tensor);
    }
    checkBiases();
    std::sort(plan_.tensors.begin(), plan_.tensors.end(),
              [](const PlannedTensor& a, const PlannedTensor& b) { return a.name < b.name; });
    return std::move(plan_);
  }

 private:
  void add(const ArchitectureTensor& needed) {
    PlannedTensor tensor;
    tensor.name = needed.name;
    tensor.role = needed.role;
    tensor.shape = needed.shape;
    tensor.source = &requireTensor(source_, needed.role, needed.layer);
    checkShape(source_, *tensor.source, needed.shape);
    checkType(source_, *tensor.source);
    chooseType(needed.matrix, tensor);
    if (source_.checkpointLayout) {
      tensor.change = changeFromCheckpoint(plan_.architecture, needed.role);
    }
    plan_.tensors.push_back(std::move(tensor));
  }

  void chooseType(bool matrix, PlannedTensor& tensor) {
    DType stored = DType::F32;
    const bool storable = !source_.checkpointLayout &&
                          kiv::ggufStoredAs(tensor.source->type, stored) &&
                          (matrix || stored == DType::F32);
    if (storable && !(recode_ && matrix)) {
      tensor.type = stored;
      tensor.copied = true;
      return;
    }
    if (!matrix) return;
    const DType wanted = kiv::matrixType(mix_, tensor.role);
    tensor.type = fittingType(wanted, tensor.cols());
    tensor.copied = storable && stored == tensor.type;
    if (tensor.type == wanted) return;
    plan_.fallbacks.push_back({tensor.name, wanted, tensor.type,
                               "its rows of " + std::to_string(tensor.cols()) +
                                   " weights are not whole blocks of " +
                                   std::to_string(kiv::dtypeBlockSize(wanted))});
  }

  // The decoder takes the three together or not at all.
  void checkBiases() const {
    constexpr std::array kBiases = {TensorRole::QueryBias, TensorRole::KeyBias,
                                    TensorRole::ValueBias};
    for (uint32_t layer = 0; layer < plan_.architecture.layers; ++layer) {
      const auto present = [&](TensorRole role) { return has(source_, role, layer); };
      if (std::none_of(kBiases.begin(), kBiases.end(), present)) continue;
      for (const TensorRole role : kBiases) requireTensor(source_, role, layer);
    }
  }

  const ModelSource& source_;
  WeightMix mix_;
  bool recode_;
  ConversionPlan plan_;
};

}  // namespace

uint64_t ConversionPlan::bytes() const {
  uint64_t total = 0;
  for (const PlannedTensor& tensor : tensors) {
    total += (tensor.bytes() + kAlignment - 1) / kAlignment * kAlignment;
  }
  return total;
}

std::string nameInSource(const ModelSource& source, TensorRole role, uint32_t layer) {
  return "'" +
         (source.checkpointLayout ? checkpointName(role, layer) : kiv::tensorName(role, layer)) +
         "'";
}

const SourceTensor& requireTensor(const ModelSource& source, TensorRole role, uint32_t layer) {
  const auto found = source.tensors.find(kiv::tensorName(role, layer));
  if (found == source.tensors.end()) {
    throw Failure("tensor " + nameInSource(source, role, layer) + " is missing");
  }
  return found->second;
}

ConversionPlan planConversion(const ModelSource& source, WeightMix mix, bool recode) {
  return Planner(source, mix, recode).plan();
}

std::string sourceShape(const ModelSource& source, const std::vector<uint64_t>& innermostFirst) {
  std::vector<uint64_t> shape = innermostFirst;
  if (source.checkpointLayout) std::reverse(shape.begin(), shape.end());
  std::string text;
  for (const uint64_t extent : shape) text += (text.empty() ? "" : ", ") + std::to_string(extent);
  return "[" + text + "]";
}

}  // namespace zemtool
