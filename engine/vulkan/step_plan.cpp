// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/step_plan.h"

#include <bit>
#include <initializer_list>
#include <utility>

#include "qwen35_model.h"

namespace zem {
namespace {

using kiv::Status;
using kiv::TensorRole;
using kiv::vulkan::VulkanBuffer;

constexpr uint64_t kInvocations = 256;  // of a workgroup over elements

StageGroups overElements(uint64_t count) {
  return {static_cast<uint32_t>((count + kInvocations - 1) / kInvocations)};
}

uint32_t bitsOf(float value) { return std::bit_cast<uint32_t>(value); }

uint32_t word(uint64_t value) { return static_cast<uint32_t>(value); }

uint32_t zOf(const StepShape& shape, StageOver over) {
  switch (over) {
    case StageOver::Runs:
      return shape.runs;
    case StageOver::Picks:
      return shape.picks;
    case StageOver::Tokens:
      break;
  }
  return shape.tokens;
}

}  // namespace

class StepPlan::Builder {
 public:
  Builder(const Weights& weights, const ResidentWeights& resident, const ResidentStore& store,
          const StepBuffers& buffers, StepKernels& kernels)
      : weights_(weights),
        shape_(weights.shape()),
        resident_(resident),
        store_(store),
        b_(buffers),
        kernels_(kernels),
        floatCache_(store.pageLayout().type() == CacheType::F32) {}

  Status build(StepPlan& plan) {
    out_ = &plan.embed_;
    embed();
    plan.layers_.resize(weights_.layers().size());
    for (size_t i = 0; i < plan.layers_.size(); ++i) {
      out_ = &plan.layers_[i];
      layer(i);
    }
    out_ = &plan.head_;
    head();
    out_ = &plan.top_;
    top();
    return status_;
  }

 private:
  void add(StepShader shader, std::initializer_list<StageUse> uses,
           std::initializer_list<uint32_t> push, StageGroups groups,
           StageOver over = StageOver::Tokens) {
    std::vector<Stage> made;
    if (status_.ok()) status_ = kernels_.add(shader, uses, push, groups, over, made);
    if (status_.ok()) out_->push_back({std::move(made[0]), std::nullopt});
  }

  void embed() {
    const DeviceTensor& t = resident_.tensor(TensorRole::Embedding);
    add(StepShader::Embed, {reads(b_.rows.buffer), reads(t.buffer), writes(b_.x)},
        {t.cols, t.rowBytes, embedTypeOf(t.type)}, overElements(t.cols));
  }

  void layer(size_t index) {
    const LayerWeights& layer = weights_.layers()[index];
    norm(TensorRole::AttentionNorm, index, StageOver::Tokens);
    if (layer.isFull) {
      fullAttention(index, layer.kindIndex);
    } else {
      linearAttention(index, layer);
    }
    norm(TensorRole::FeedForwardNorm, index, StageOver::Tokens);
    product(TensorRole::FeedForwardGate, index, b_.normed, b_.gate);
    product(TensorRole::FeedForwardUp, index, b_.normed, b_.mixed);
    add(StepShader::Gate, {reads(b_.gate), reads(b_.mixed), writes(b_.heads)},
        {word(shape_.feedForward)}, overElements(shape_.feedForward));
    product(TensorRole::FeedForwardDown, index, b_.heads, b_.x, kAdds);
  }

  // b_.normed from b_.x.
  void norm(TensorRole role, size_t index, StageOver over) {
    add(StepShader::Norm,
        {reads(b_.picks.buffer), reads(b_.x), reads(resident_.tensor(role, index).buffer),
         writes(b_.normed)},
        {word(shape_.width), bitsOf(qwen35::kNormEps), over == StageOver::Picks ? 1U : 0U}, {1},
        over);
  }

  static constexpr uint32_t kAdds = 1;

  void product(TensorRole role, size_t index, const VulkanBuffer& x, const VulkanBuffer& y,
               uint32_t adds = 0, StageOver over = StageOver::Tokens) {
    const DeviceTensor& w = resident_.tensor(role, index);
    constexpr uint64_t kRowsOfGroup = 2;
    const uint32_t blocks = w.cols / productBlock(w.type);
    add(matvecFor(w.type), {reads(x), reads(w.buffer), writes(y)},
        {w.rows, w.cols, blocks, w.rowBytes, adds},
        spread((w.rows + kRowsOfGroup - 1) / kRowsOfGroup), over);
    const uint32_t tiles = (w.rows + kMatmulRows - 1) / kMatmulRows;
    constexpr uint32_t kMostGroups = 65535;
    if (tiles > kMostGroups) return;
    std::vector<Stage> many;
    if (status_.ok()) {
      status_ = kernels_.add(matmulFor(w.type), {reads(x), reads(w.buffer), writes(y)},
                             {w.rows, w.cols, blocks, w.rowBytes, 0, adds}, {tiles}, over, many);
    }
    if (status_.ok()) out_->back().many = std::move(many[0]);
  }

  void linearAttention(size_t index, const LayerWeights& layer) {
    const VulkanBuffer& states = store_.states(layer.kindIndex);
    const uint32_t stateFloats = word(store_.stateFloats());
    const uint32_t channels = word(shape_.channels());
    const auto floats = [&](TensorRole role) {
      return reads(resident_.tensor(role, index).buffer);
    };
    product(TensorRole::Mixed, index, b_.normed, b_.mixed);
    product(TensorRole::Gate, index, b_.normed, b_.gate);
    product(TensorRole::Beta, index, b_.normed, b_.beta);
    product(TensorRole::Alpha, index, b_.normed, b_.alpha);
    add(StepShader::Convolve,
        {reads(b_.runs.buffer), floats(TensorRole::Convolution), writes(states), writes(b_.mixed)},
        {channels, word(layer.linear.tapStride), stateFloats, word(store_.matrixFloats())},
        overElements(channels), StageOver::Runs);
    add(StepShader::DeltaRule,
        {reads(b_.runs.buffer), reads(b_.mixed), reads(b_.beta), reads(b_.alpha), reads(b_.gate),
         floats(TensorRole::DecayBias), floats(TensorRole::Decay), floats(TensorRole::StateNorm),
         writes(states), writes(b_.heads)},
        {word(shape_.keyHeads), word(shape_.valueHeads), word(shape_.stateSize), stateFloats,
         bitsOf(qwen35::kNormEps)},
        {word(shape_.valueHeads)}, StageOver::Runs);
    product(TensorRole::StateOutput, index, b_.heads, b_.x, kAdds);
  }

  void fullAttention(size_t index, size_t kindIndex) {
    const VulkanBuffer& cache = store_.cache(kindIndex);
    const uint32_t heads = word(shape_.heads);
    const uint32_t kvHeads = word(shape_.kvHeads);
    const uint32_t size = word(shape_.headSize);
    product(TensorRole::Query, index, b_.normed, b_.mixed);
    product(TensorRole::Key, index, b_.normed, b_.key);
    product(TensorRole::Value, index, b_.normed, b_.value);
    bias(TensorRole::QueryBias, index, b_.mixed);
    bias(TensorRole::KeyBias, index, b_.key);
    bias(TensorRole::ValueBias, index, b_.value);
    add(floatCache_ ? StepShader::AttentionInputsF32 : StepShader::AttentionInputsF16,
        {reads(b_.rows.buffer), reads(b_.pages.buffer), reads(b_.turns.buffer), writes(b_.mixed),
         reads(b_.key), reads(b_.value),
         reads(resident_.tensor(TensorRole::QueryNorm, index).buffer),
         reads(resident_.tensor(TensorRole::KeyNorm, index).buffer), writes(cache)},
        {heads, kvHeads, size, word(shape_.rotarySize), bitsOf(qwen35::kNormEps)},
        {heads + kvHeads});
    constexpr uint32_t kHeadsOfGroup = 4;
    const uint32_t packs = (heads / kvHeads + kHeadsOfGroup - 1) / kHeadsOfGroup;
    add(floatCache_ ? StepShader::AttentionPartsF32 : StepShader::AttentionPartsF16,
        {reads(b_.rows.buffer), reads(b_.pages.buffer), reads(b_.mixed), reads(cache),
         writes(b_.parts)},
        {heads, kvHeads, size, kAttentionSplits}, {kvHeads * packs, kAttentionSplits});
    add(StepShader::AttentionJoin, {reads(b_.parts), reads(b_.mixed), writes(b_.heads)},
        {heads, size, kAttentionSplits}, {heads});
    product(TensorRole::AttentionOutput, index, b_.heads, b_.x, kAdds);
  }

  void bias(TensorRole role, size_t index, const VulkanBuffer& y) {
    if (!resident_.has(role, index)) return;
    const DeviceTensor& t = resident_.tensor(role, index);
    add(StepShader::AddBias, {reads(t.buffer), writes(y)}, {t.cols}, overElements(t.cols));
  }

  void head() {
    norm(TensorRole::OutputNorm, 0, StageOver::Picks);
    product(shape_.ownHead ? TensorRole::OutputHead : TensorRole::Embedding, 0, b_.normed,
            b_.logits, 0, StageOver::Picks);
  }

  void top() {
    const uint32_t count = word(shape_.vocabulary);
    const uint32_t parts = (count + kTopPart - 1) / kTopPart;
    add(StepShader::TopParts, {reads(b_.logits), writes(b_.topParts)}, {count, kMostCandidates},
        {parts}, StageOver::Picks);
    add(StepShader::TopJoin, {reads(b_.topParts), writes(b_.top.buffer)}, {parts, kMostCandidates},
        {1}, StageOver::Picks);
  }

  const Weights& weights_;
  const Shape& shape_;
  const ResidentWeights& resident_;
  const ResidentStore& store_;
  const StepBuffers& b_;
  StepKernels& kernels_;
  bool floatCache_;
  Stages* out_ = nullptr;
  Status status_;
};

Status StepPlan::create(const Weights& weights, const ResidentWeights& resident,
                        const ResidentStore& store, const StepBuffers& buffers,
                        StepKernels& kernels) {
  buffers_ = &buffers;
  vocabulary_ = weights.shape().vocabulary;
  checkLayers_ = checkLayers(weights);
  return Builder(weights, resident, store, buffers, kernels).build(*this);
}

std::vector<size_t> StepPlan::checkLayers(const Weights& weights) {
  std::vector<size_t> layers;
  for (size_t i = 0; i < weights.layers().size(); ++i) {
    if (weights.layers()[i].kindIndex == 0) layers.push_back(i);
  }
  return layers;
}

void StepPlan::run(const Stages& stages, const StepShape& shape, StepRecorder& recorder) {
  for (const Planned& planned : stages) {
    const uint32_t z = zOf(shape, planned.stage.over);
    if (z < kManyTokens || !planned.many) {
      recorder.run(planned.stage, z);
      continue;
    }
    Stage many = *planned.many;
    many.push[kMatmulTokensPush] = z;
    many.y = (z + kMatmulTokens - 1) / kMatmulTokens;
    recorder.run(many, 1);
  }
}

StepCounts StepPlan::record(VkCommandBuffer cmd, const StepShape& shape) const {
  StepRecorder recorder(cmd);
  run(embed_, shape, recorder);
  if (shape.check) {
    for (const size_t index : checkLayers_) run(layers_[index], shape, recorder);
  } else {
    for (const Stages& layer : layers_) run(layer, shape, recorder);
  }
  if (shape.picks > 0 && (shape.candidates > 0 || shape.logits)) run(head_, shape, recorder);
  if (shape.picks > 0 && shape.candidates > 0) {
    Stages top = top_;
    for (Planned& planned : top) planned.stage.push.back() = shape.candidates;
    run(top, shape, recorder);
  }
  if (shape.picks > 0 && shape.logits) {
    recorder.copy(buffers_->logits, buffers_->logitsOut.buffer,
                  shape.picks * vocabulary_ * sizeof(float));
  }
  recorder.finish();
  return recorder.counts();
}

}  // namespace zem
