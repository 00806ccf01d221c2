// SPDX-License-Identifier: Apache-2.0
#include "convert/model_sizes.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "console/terminal.h"
#include "convert/checkpoint_layout.h"
#include "convert/json_file.h"
#include "convert/tensor_plan.h"
#include "kiv/math/checked.h"

namespace zemtool {
namespace {

using kiv::Architecture;
using kiv::TensorRole;

constexpr uint64_t kMaxVocabulary = uint64_t{1} << 22;
constexpr uint64_t kMaxHeads = 4096;
constexpr uint64_t kMaxHeadSize = 4096;
constexpr uint64_t kHeadLanes = 32;  // of the widest kernel over a head's floats

// What the tensors show. A tensor that is missing or misshapen shows nothing; the plan names it.
class TensorSizes {
 public:
  explicit TensorSizes(const ModelSource& source) {
    findFirst(source);
    findFullAttention();
    findLinearAttention();
  }

  std::optional<uint64_t> layers;  // one more than the last layer that has a tensor
  std::optional<uint64_t> fullEvery;
  std::optional<uint64_t> headSize;
  std::optional<uint64_t> heads;
  std::optional<uint64_t> kvHeads;
  std::optional<uint64_t> stateSize;
  std::optional<uint64_t> keyHeads;
  std::optional<uint64_t> valueHeads;

 private:
  struct Found {
    const SourceTensor* tensor = nullptr;
    uint32_t layer = 0;
  };

  // Each tensor of the first layer that has one.
  void findFirst(const ModelSource& source) {
    const TensorNames names(kiv::tensorName);
    for (const auto& [name, tensor] : source.tensors) {
      const auto place = names.find(name);
      if (!place || !kiv::isOfLayer(place->role)) continue;
      layers = std::max(layers.value_or(0), uint64_t{place->layer} + 1);
      Found& found = first_[place->role];
      if (found.tensor == nullptr || place->layer < found.layer) found = {&tensor, place->layer};
    }
  }

  const SourceTensor* first(TensorRole role) const {
    const auto found = first_.find(role);
    return found == first_.end() ? nullptr : found->second.tensor;
  }

  void findFullAttention() {
    const auto query = first_.find(TensorRole::Query);
    if (query != first_.end()) fullEvery = uint64_t{query->second.layer} + 1;
    const SourceTensor* norm = first(TensorRole::QueryNorm);
    const SourceTensor* output = first(TensorRole::AttentionOutput);
    const SourceTensor* key = first(TensorRole::Key);
    if (norm != nullptr) headSize = positive(elements(*norm));
    if (output != nullptr && headSize) heads = quotient(extent(*output, 0), *headSize);
    if (key != nullptr && headSize) kvHeads = quotient(extent(*key, 1), *headSize);
  }

  void findLinearAttention() {
    const SourceTensor* norm = first(TensorRole::StateNorm);
    const SourceTensor* decay = first(TensorRole::Decay);
    const SourceTensor* mixed = first(TensorRole::Mixed);
    if (norm != nullptr) stateSize = positive(elements(*norm));
    if (decay != nullptr) valueHeads = positive(elements(*decay));
    if (mixed == nullptr || !stateSize || !valueHeads) return;
    const uint64_t values = kiv::saturatingMul(*stateSize, *valueHeads);
    const uint64_t rows = extent(*mixed, 1);
    if (rows > values) keyHeads = quotient(rows - values, kiv::saturatingMul(2, *stateSize));
  }

  static uint64_t elements(const SourceTensor& tensor) {
    uint64_t count = 1;
    for (const uint64_t extent : tensor.shape) count = kiv::saturatingMul(count, extent);
    return count;
  }
  static uint64_t extent(const SourceTensor& tensor, size_t index) {
    return tensor.shape.size() == 2 ? tensor.shape[index] : 0;
  }
  static std::optional<uint64_t> positive(uint64_t value) {
    return value > 0 ? std::optional(value) : std::nullopt;
  }
  static std::optional<uint64_t> quotient(uint64_t value, uint64_t divisor) {
    return value % divisor == 0 ? positive(value / divisor) : std::nullopt;
  }

  std::map<TensorRole, Found> first_;
};

class Settler {
 public:
  Settler(const ModelSource& source, const StatedSizes& stated)
      : source_(source), stated_(stated), shown_(source) {}

  Architecture settle() {
    takeWidths();
    a_.layers = static_cast<uint32_t>(
        within(Size::Layers, agreed(Size::Layers, shown_.layers, a_.layers), kMaxLayers));
    a_.fullEvery = static_cast<uint32_t>(
        within(Size::FullEvery,
               stated_.value(Size::FullEvery).value_or(shown_.fullEvery.value_or(a_.fullEvery)),
               kMaxLayers));
    takeFullAttention();
    takeLinearAttention();
    a_.ownHead = source_.tensors.count(kiv::tensorName(TensorRole::OutputHead)) != 0;
    a_.contextLength = source_.contextLength;
    return a_;
  }

 private:
  [[noreturn]] void fail(Size size, const std::string& found, const std::string& rest) const {
    throw Failure(stated_.path + ": " + stated_.key(size) + " is " + found + rest);
  }
  [[noreturn]] void failNeeds(Size size, uint64_t found, const std::string& needed) const {
    fail(size, std::to_string(found), ", needs " + needed);
  }

  // What is stated, if the tensors do not contradict it; else what they show; else the default.
  uint64_t agreed(Size size, std::optional<uint64_t> shown, uint64_t usual) const {
    const std::optional<uint64_t>& stated = stated_.value(size);
    if (stated && shown && *stated != *shown) {
      fail(size, std::to_string(*stated), ", the tensors have " + std::to_string(*shown));
    }
    return stated ? *stated : shown.value_or(usual);
  }

  uint64_t within(Size size, uint64_t value, uint64_t most) const {
    if (value >= 1 && value <= most) return value;
    failNeeds(size, value, "1 to " + std::to_string(most));
  }

  void multiple(Size size, uint64_t value, Size of, uint64_t divisor) const {
    if (value % divisor == 0) return;
    failNeeds(size, value,
              "a multiple of " + stated_.key(of) + ", which is " + std::to_string(divisor));
  }

  std::vector<uint64_t> matrix(TensorRole role) const {
    const SourceTensor& tensor = requireTensor(source_, role);
    if (tensor.shape.size() == 2 && tensor.shape[0] > 0 && tensor.shape[1] > 0) return tensor.shape;
    throw Failure("tensor '" + tensor.name + "' has the shape " +
                  sourceShape(source_, tensor.shape) + ", needs two extents");
  }

  void takeWidths() {
    const std::vector<uint64_t> embedding = matrix(TensorRole::Embedding);
    if (embedding[1] > kMaxVocabulary) {
      throw Failure("tensor " + nameInSource(source_, TensorRole::Embedding) + " has " +
                    std::to_string(embedding[1]) + " tokens, at most " +
                    std::to_string(kMaxVocabulary) + " can be stored");
    }
    a_.width = agreed(Size::Width, embedding[0], 0);
    a_.vocabulary = agreed(Size::Vocabulary, embedding[1], 0);
    a_.feedForward = agreed(Size::FeedForward, matrix(TensorRole::FeedForwardGate)[1], 0);
  }

  void takeFullAttention() {
    a_.headSize =
        within(Size::HeadSize, agreed(Size::HeadSize, shown_.headSize, a_.headSize), kMaxHeadSize);
    a_.heads = within(Size::Heads, agreed(Size::Heads, shown_.heads, a_.heads), kMaxHeads);
    a_.kvHeads =
        within(Size::KvHeads, agreed(Size::KvHeads, shown_.kvHeads, a_.kvHeads), kMaxHeads);
    multiple(Size::Heads, a_.heads, Size::KvHeads, a_.kvHeads);
    if (a_.headSize % kHeadLanes != 0) {
      failNeeds(Size::HeadSize, a_.headSize, "a multiple of " + std::to_string(kHeadLanes));
    }
    takeRotarySize();
  }

  void takeRotarySize() {
    const std::string most = std::to_string(a_.headSize);
    const auto fits = [&](uint64_t size) {
      return size >= 2 && size <= a_.headSize && size % 2 == 0;
    };
    a_.rotarySize = stated_.value(Size::RotarySize).value_or(a_.headSize / 4);
    if (stated_.rotaryPart) {
      const double size = *stated_.rotaryPart * static_cast<double>(a_.headSize);
      const bool inside = size > 1 && size < static_cast<double>(a_.headSize) + 1;
      a_.rotarySize = inside ? static_cast<uint64_t>(std::lround(size)) : 0;
      if (fits(a_.rotarySize) && std::fabs(size - std::round(size)) < 1e-3) return;
      fail(Size::RotarySize, json(*stated_.rotaryPart).dump(),
           ", needs a part of " + most + " that is an even number from 2 to " + most);
    }
    if (!fits(a_.rotarySize)) {
      failNeeds(Size::RotarySize, a_.rotarySize, "an even number from 2 to " + most);
    }
  }

  void takeLinearAttention() {
    a_.stateSize = within(Size::StateSize, agreed(Size::StateSize, shown_.stateSize, a_.stateSize),
                          kMaxHeadSize);
    a_.valueHeads = within(Size::ValueHeads,
                           agreed(Size::ValueHeads, shown_.valueHeads, a_.valueHeads), kMaxHeads);
    a_.keyHeads =
        within(Size::KeyHeads, agreed(Size::KeyHeads, shown_.keyHeads, a_.keyHeads), kMaxHeads);
    multiple(Size::ValueHeads, a_.valueHeads, Size::KeyHeads, a_.keyHeads);
  }

  const ModelSource& source_;
  const StatedSizes& stated_;
  TensorSizes shown_;
  Architecture a_;
};

}  // namespace

Architecture settleSizes(const ModelSource& source, const StatedSizes& stated) {
  return Settler(source, stated).settle();
}

}  // namespace zemtool
