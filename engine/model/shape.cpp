// SPDX-License-Identifier: Apache-2.0
#include "engine/model/shape.h"

#include <string>

#include "model/tensor_checks.h"

namespace zem {
namespace {

using kiv::ArchitectureTensor;
using kiv::Status;
using kiv::TensorRole;
using kiv::TensorView;

std::string keyOf(const char* name) { return std::string(kiv::kArchitectureName) + "." + name; }

// Keeps the first complaint.
class ShapeReader {
 public:
  ShapeReader(const kiv::ZEMLoader& loader, Shape& shape) : loader_(loader), shape_(shape) {}

  Status read() {
    shape_ = Shape{};
    readNumbers();
    takeFromTensors();
    if (status_.ok()) findKinds();
    if (status_.ok()) checkLimits();
    return status_;
  }

 private:
  template <typename Number>
  void whole(const char* key, Number& value) {
    uint32_t stated = 0;
    if (loader_.getMetaU32(keyOf(key).c_str(), stated)) value = stated;
  }
  void number(const char* key, double& value) {
    float stated = 0;
    if (loader_.getMetaF32(keyOf(key).c_str(), stated)) value = static_cast<double>(stated);
  }

  void readNumbers() {
    whole("block_count", shape_.layers);
    whole("context_length", shape_.contextLength);
    whole("embedding_length", shape_.width);
    whole("feed_forward_length", shape_.feedForward);
    whole("vocabulary_size", shape_.vocabulary);
    whole("full_attention_interval", shape_.fullEvery);
    whole("attention.head_count", shape_.heads);
    whole("attention.head_count_kv", shape_.kvHeads);
    whole("attention.head_size", shape_.headSize);
    whole("attention.rotary_size", shape_.rotarySize);
    whole("linear.key_head_count", shape_.keyHeads);
    whole("linear.value_head_count", shape_.valueHeads);
    whole("linear.head_size", shape_.stateSize);
    whole("linear.convolution_taps", shape_.taps);
    number("attention.rotary_base", shape_.rotaryBase);
    number("norm_epsilon", shape_.normEpsilon);
  }

  const TensorView* find(TensorRole role, uint32_t layer = 0) const {
    return loader_.findTensor(kiv::tensorName(role, layer));
  }

  void takeFromTensors() {
    const TensorView* embedding = find(TensorRole::Embedding);
    const TensorView* gate = find(TensorRole::FeedForwardGate);
    if (embedding == nullptr || gate == nullptr) {
      const auto role = embedding == nullptr ? TensorRole::Embedding : TensorRole::FeedForwardGate;
      return fail(kiv::tensorName(role) + ": the file has no such tensor");
    }
    if (shape_.width == 0) shape_.width = embedding->shape[0];
    if (shape_.vocabulary == 0) shape_.vocabulary = qwen35::statedRows(*embedding);
    if (shape_.feedForward == 0) shape_.feedForward = qwen35::statedRows(*gate);
    shape_.ownHead = find(TensorRole::OutputHead) != nullptr;
  }

  void findKinds() {
    constexpr uint32_t kMostLayers = 1024;
    within("block_count", shape_.layers, 1, kMostLayers);
    if (!status_.ok()) return;
    uint32_t interval = 0;
    const bool stated = loader_.getMetaU32(keyOf("full_attention_interval").c_str(), interval);
    within("full_attention_interval", shape_.fullEvery, 1, kMostLayers);
    for (uint32_t i = 0; i < shape_.layers && status_.ok(); ++i) {
      const bool full = find(TensorRole::StateOutput, i) == nullptr;
      shape_.kinds.push_back(full);
      if (stated && full != (i % interval == interval - 1)) {
        fail(keyOf("full_attention_interval") + " is " + std::to_string(interval) + ", but layer " +
             std::to_string(i) + " has the tensors of " + (full ? "full" : "linear") +
             " attention");
      }
    }
  }

  void checkLimits() {
    constexpr uint64_t kLanes = 32;  // of the widest kernel over a head's components
    constexpr uint64_t kMost = uint64_t{1} << 24;
    within("embedding_length", shape_.width, 1, kMost);
    within("feed_forward_length", shape_.feedForward, 1, kMost);
    within("vocabulary_size", shape_.vocabulary, 1, kMost);
    within("attention.head_count", shape_.heads, 1, 4096);
    within("attention.head_count_kv", shape_.kvHeads, 1, 4096);
    within("attention.head_size", shape_.headSize, 2, 4096);
    within("attention.rotary_size", shape_.rotarySize, 2, shape_.headSize);
    within("linear.key_head_count", shape_.keyHeads, 1, 4096);
    within("linear.value_head_count", shape_.valueHeads, 1, 4096);
    within("linear.head_size", shape_.stateSize, 1, 4096);
    multiple("attention.head_count", shape_.heads, "attention.head_count_kv", shape_.kvHeads);
    multiple("linear.value_head_count", shape_.valueHeads, "linear.key_head_count",
             shape_.keyHeads);
    if (shape_.headSize % kLanes != 0) {
      fail("attention.head_size", std::to_string(shape_.headSize),
           "a multiple of " + std::to_string(kLanes));
    }
    if (shape_.rotarySize % 2 != 0) {
      fail("attention.rotary_size", std::to_string(shape_.rotarySize), "an even number");
    }
    exactly("linear.convolution_taps", static_cast<double>(shape_.taps), 4);
    exactly("attention.rotary_base", shape_.rotaryBase, 1e7);
    exactly("norm_epsilon", shape_.normEpsilon, 1e-6);
  }

  void within(const char* key, uint64_t value, uint64_t low, uint64_t high) {
    if (value >= low && value <= high) return;
    fail(key, std::to_string(value), std::to_string(low) + " to " + std::to_string(high));
  }
  void multiple(const char* key, uint64_t value, const char* of, uint64_t divisor) {
    if (!status_.ok() || value % divisor == 0) return;
    fail(key, std::to_string(value),
         "a multiple of " + keyOf(of) + ", which is " + std::to_string(divisor));
  }
  // As close as single precision states it.
  void exactly(const char* key, double value, double needed) {
    if (static_cast<float>(value) == static_cast<float>(needed)) return;
    fail(key, std::to_string(value), std::to_string(needed));
  }

  void fail(const char* key, const std::string& found, const std::string& needed) {
    fail(keyOf(key) + " is " + found + ", needs " + needed);
  }
  void fail(std::string message) {
    if (status_.ok()) status_ = kiv::invalidFormat(std::move(message));
  }

  const kiv::ZEMLoader& loader_;
  Shape& shape_;
  Status status_;
};

// The keys that decide the rows and the columns of a tensor.
struct Keys {
  const char* rows;
  const char* cols;
};

Keys keysOf(TensorRole role) {
  switch (role) {
    case TensorRole::Embedding:
    case TensorRole::OutputHead:
      return {"vocabulary_size", "embedding_length"};
    case TensorRole::FeedForwardGate:
    case TensorRole::FeedForwardUp:
      return {"feed_forward_length", "embedding_length"};
    case TensorRole::FeedForwardDown:
      return {"embedding_length", "feed_forward_length"};
    case TensorRole::Query:
      return {"attention.head_count", "embedding_length"};
    case TensorRole::Key:
    case TensorRole::Value:
      return {"attention.head_count_kv", "embedding_length"};
    case TensorRole::AttentionOutput:
      return {"embedding_length", "attention.head_count"};
    case TensorRole::QueryBias:
      return {nullptr, "attention.head_count"};
    case TensorRole::KeyBias:
    case TensorRole::ValueBias:
      return {nullptr, "attention.head_count_kv"};
    case TensorRole::QueryNorm:
    case TensorRole::KeyNorm:
      return {nullptr, "attention.head_size"};
    case TensorRole::Mixed:
    case TensorRole::Gate:
    case TensorRole::Beta:
    case TensorRole::Alpha:
      return {"linear.value_head_count", "embedding_length"};
    case TensorRole::DecayBias:
    case TensorRole::Decay:
      return {nullptr, "linear.value_head_count"};
    case TensorRole::Convolution:
      return {"linear.value_head_count", "linear.convolution_taps"};
    case TensorRole::StateNorm:
      return {nullptr, "linear.head_size"};
    case TensorRole::StateOutput:
      return {"embedding_length", "linear.value_head_count"};
    default:
      return {nullptr, "embedding_length"};
  }
}

uint64_t valueOf(const Shape& shape, const std::string& key) {
  if (key == "vocabulary_size") return shape.vocabulary;
  if (key == "feed_forward_length") return shape.feedForward;
  if (key == "attention.head_count") return shape.heads;
  if (key == "attention.head_count_kv") return shape.kvHeads;
  if (key == "attention.head_size") return shape.headSize;
  if (key == "linear.value_head_count") return shape.valueHeads;
  if (key == "linear.head_size") return shape.stateSize;
  if (key == "linear.convolution_taps") return shape.taps;
  return shape.width;
}

// The sizes that an extent which does not fit was asked for by: "; qwen35.X is 5".
std::string reasonFor(const Shape& shape, const ArchitectureTensor& needed, const TensorView& t) {
  const Keys keys = keysOf(needed.role);
  const bool colsDiffer = t.shape[0] != needed.shape[0];
  const char* key = colsDiffer || keys.rows == nullptr ? keys.cols : keys.rows;
  return "; " + keyOf(key) + " is " + std::to_string(valueOf(shape, key));
}

Status withReason(const Status& status, const std::string& reason) {
  return {status.code(), status.message() + reason};
}

Status checkTensor(const kiv::ZEMLoader& loader, const Shape& shape,
                   const ArchitectureTensor& needed, const TensorView& t) {
  qwen35::TensorChecks check(loader);
  const uint64_t rows = needed.shape.size() > 1 ? needed.shape[1] : 1;
  const bool fits = t.shape[0] == needed.shape[0] && qwen35::statedRows(t) == rows;
  if (needed.matrix) {
    check.matrix(&t, needed.shape[0], rows);
  } else if (needed.role == TensorRole::Convolution) {
    check.taps(&t, rows, needed.shape[0]);
  } else {
    check.floats(&t, needed.shape[0]);
  }
  if (check.status().ok() || fits) return check.status();
  return withReason(check.status(), reasonFor(shape, needed, t));
}

// A layer has all three biases or none.
Status checkBiases(const kiv::ZEMLoader& loader, uint32_t layer) {
  const auto has = [&](TensorRole role) {
    return loader.findTensor(kiv::tensorName(role, layer)) != nullptr;
  };
  const bool query = has(TensorRole::QueryBias);
  if (query == has(TensorRole::KeyBias) && query == has(TensorRole::ValueBias)) return {};
  return kiv::invalidFormat("layer " + std::to_string(layer) +
                            " has some of attn_q.bias, attn_k.bias and attn_v.bias, needs all "
                            "three or none");
}

}  // namespace

Status readShape(const kiv::ZEMLoader& loader, Shape& shape) {
  return ShapeReader(loader, shape).read();
}

Status checkTensors(const kiv::ZEMLoader& loader, const Shape& shape) {
  for (const ArchitectureTensor& needed : kiv::tensorsOf(shape)) {
    const TensorView* t = loader.findTensor(needed.name);
    if (t == nullptr) {
      if (needed.optional) continue;
      return kiv::invalidFormat(needed.name + ": the file has no such tensor");
    }
    Status status = checkTensor(loader, shape, needed, *t);
    if (!status.ok()) return status;
  }
  for (uint32_t i = 0; i < shape.layers; ++i) {
    Status status = shape.isFull(i) ? checkBiases(loader, i) : Status();
    if (!status.ok()) return status;
  }
  return {};
}

}  // namespace zem
