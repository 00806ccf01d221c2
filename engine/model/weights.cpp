// SPDX-License-Identifier: Apache-2.0
#include "engine/model/weights.h"

#include "matmul/matrix.h"

namespace zem {

using kiv::Status;
using kiv::TensorRole;

FloatWeights::FloatWeights(const TensorView& tensor, size_t count)
    : inPlace_(qwen35::floatsOf(&tensor, count, copy_)) {}

Status Weights::open(const std::string& path, std::unique_ptr<Weights>& out) {
  std::unique_ptr<Weights> weights(new Weights);
  Status status = weights->loader_.open(path.c_str());
  if (!status.ok()) return status;
  std::string architecture;
  weights->loader_.getMetaStr("general.architecture", architecture);
  if (architecture != kiv::kArchitectureName) {
    return kiv::invalidFormat("general.architecture is \"" + architecture + "\", needs \"" +
                              kiv::kArchitectureName + "\"");
  }
  status = readShape(weights->loader_, weights->shape_);
  if (status.ok()) status = checkTensors(weights->loader_, weights->shape_);
  if (!status.ok()) return status;
  weights->bind();
  out = std::move(weights);
  return {};
}

void Weights::bind() {
  embedding_ = find(TensorRole::Embedding);
  head_ = shape_.ownHead ? find(TensorRole::OutputHead) : embedding_;
  outputNorm_ = floats(TensorRole::OutputNorm, 0, shape_.width);
  for (uint32_t i = 0; i < shape_.layers; ++i) layers_.push_back(bindLayer(i));
}

LayerWeights Weights::bindLayer(uint32_t layer) {
  LayerWeights w;
  w.isFull = shape_.isFull(layer);
  w.kindIndex = w.isFull ? fullLayers_++ : layer - fullLayers_;
  w.attentionNorm = floats(TensorRole::AttentionNorm, layer, shape_.width);
  w.feedForwardNorm = floats(TensorRole::FeedForwardNorm, layer, shape_.width);
  w.feedForwardGate = find(TensorRole::FeedForwardGate, layer);
  w.feedForwardUp = find(TensorRole::FeedForwardUp, layer);
  w.feedForwardDown = find(TensorRole::FeedForwardDown, layer);
  if (w.isFull) {
    w.full = bindFull(layer);
  } else {
    w.linear = bindLinear(layer);
  }
  return w;
}

LinearWeights Weights::bindLinear(uint32_t layer) const {
  LinearWeights w;
  w.mixed = find(TensorRole::Mixed, layer);
  w.gate = find(TensorRole::Gate, layer);
  w.beta = find(TensorRole::Beta, layer);
  w.alpha = find(TensorRole::Alpha, layer);
  w.out = find(TensorRole::StateOutput, layer);
  w.decayBias = floats(TensorRole::DecayBias, layer, shape_.valueHeads);
  w.decay = floats(TensorRole::Decay, layer, shape_.valueHeads);
  w.tapStride = find(TensorRole::Convolution, layer)->shape[0];
  w.taps =
      floats(TensorRole::Convolution, layer, (shape_.channels() - 1) * w.tapStride + shape_.taps);
  w.norm = floats(TensorRole::StateNorm, layer, shape_.stateSize);
  return w;
}

FullWeights Weights::bindFull(uint32_t layer) const {
  FullWeights w;
  w.query = find(TensorRole::Query, layer);
  w.key = find(TensorRole::Key, layer);
  w.value = find(TensorRole::Value, layer);
  w.out = find(TensorRole::AttentionOutput, layer);
  w.queryNorm = floats(TensorRole::QueryNorm, layer, shape_.headSize);
  w.keyNorm = floats(TensorRole::KeyNorm, layer, shape_.headSize);
  if (find(TensorRole::QueryBias, layer) != nullptr) {
    w.queryBias = floats(TensorRole::QueryBias, layer, 2 * shape_.heads * shape_.headSize);
    w.keyBias = floats(TensorRole::KeyBias, layer, shape_.kvHeads * shape_.headSize);
    w.valueBias = floats(TensorRole::ValueBias, layer, shape_.kvHeads * shape_.headSize);
  }
  return w;
}

const TensorView* Weights::find(TensorRole role, uint32_t layer) const {
  return loader_.findTensor(kiv::tensorName(role, layer));
}

FloatWeights Weights::floats(TensorRole role, uint32_t layer, size_t count) const {
  return {*find(role, layer), count};
}

}  // namespace zem
