// SPDX-License-Identifier: Apache-2.0
#include "kiv/model/architecture.h"

#include <array>
#include <utility>

namespace kiv {
namespace {

constexpr std::array kSuffixes = {
    "token_embd.weight",
    "output_norm.weight",
    "output.weight",
    "attn_norm.weight",
    "post_attention_norm.weight",
    "ffn_gate.weight",
    "ffn_up.weight",
    "ffn_down.weight",
    "attn_q.weight",
    "attn_k.weight",
    "attn_v.weight",
    "attn_output.weight",
    "attn_q_norm.weight",
    "attn_k_norm.weight",
    "attn_q.bias",
    "attn_k.bias",
    "attn_v.bias",
    "attn_qkv.weight",
    "attn_gate.weight",
    "ssm_beta.weight",
    "ssm_alpha.weight",
    "ssm_dt.bias",
    "ssm_a",
    "ssm_conv1d.weight",
    "ssm_norm.weight",
    "ssm_out.weight",
};
static_assert(kSuffixes.size() == static_cast<size_t>(TensorRole::StateOutput) + 1);

class Lister {
 public:
  explicit Lister(const Architecture& architecture) : a_(architecture) {}

  std::vector<ArchitectureTensor> list() {
    matrix(TensorRole::Embedding, a_.vocabulary, a_.width);
    vector(TensorRole::OutputNorm, a_.width);
    if (a_.ownHead) matrix(TensorRole::OutputHead, a_.vocabulary, a_.width);
    for (layer_ = 0; layer_ < a_.layers; ++layer_) layer();
    return std::move(tensors_);
  }

 private:
  void layer() {
    vector(TensorRole::AttentionNorm, a_.width);
    vector(TensorRole::FeedForwardNorm, a_.width);
    matrix(TensorRole::FeedForwardGate, a_.feedForward, a_.width);
    matrix(TensorRole::FeedForwardUp, a_.feedForward, a_.width);
    matrix(TensorRole::FeedForwardDown, a_.width, a_.feedForward);
    if (a_.isFull(layer_)) {
      fullAttention();
    } else {
      linearAttention();
    }
  }

  void fullAttention() {
    const uint64_t queryRows = 2 * a_.heads * a_.headSize;
    const uint64_t kvRows = a_.kvHeads * a_.headSize;
    matrix(TensorRole::Query, queryRows, a_.width);
    matrix(TensorRole::Key, kvRows, a_.width);
    matrix(TensorRole::Value, kvRows, a_.width);
    matrix(TensorRole::AttentionOutput, a_.width, a_.heads * a_.headSize);
    vector(TensorRole::QueryNorm, a_.headSize);
    vector(TensorRole::KeyNorm, a_.headSize);
    bias(TensorRole::QueryBias, queryRows);
    bias(TensorRole::KeyBias, kvRows);
    bias(TensorRole::ValueBias, kvRows);
  }

  void linearAttention() {
    matrix(TensorRole::Mixed, a_.channels(), a_.width);
    matrix(TensorRole::Gate, a_.valueRows(), a_.width);
    matrix(TensorRole::Beta, a_.valueHeads, a_.width);
    matrix(TensorRole::Alpha, a_.valueHeads, a_.width);
    vector(TensorRole::DecayBias, a_.valueHeads);
    vector(TensorRole::Decay, a_.valueHeads);
    add(TensorRole::Convolution, {a_.taps, a_.channels()});
    vector(TensorRole::StateNorm, a_.stateSize);
    matrix(TensorRole::StateOutput, a_.width, a_.valueRows());
  }

  void matrix(TensorRole role, uint64_t rows, uint64_t cols) {
    add(role, {cols, rows}).matrix = true;
  }
  void vector(TensorRole role, uint64_t size) { add(role, {size}); }
  void bias(TensorRole role, uint64_t size) { add(role, {size}).optional = true; }

  ArchitectureTensor& add(TensorRole role, std::vector<uint64_t> shape) {
    ArchitectureTensor tensor;
    tensor.name = tensorName(role, layer_);
    tensor.role = role;
    tensor.layer = isOfLayer(role) ? layer_ : 0;
    tensor.shape = std::move(shape);
    return tensors_.emplace_back(std::move(tensor));
  }

  const Architecture& a_;
  uint32_t layer_ = 0;
  std::vector<ArchitectureTensor> tensors_;
};

}  // namespace

std::string tensorName(TensorRole role, uint32_t layer) {
  const std::string suffix = kSuffixes[static_cast<size_t>(role)];
  return isOfLayer(role) ? "blk." + std::to_string(layer) + "." + suffix : suffix;
}

std::vector<ArchitectureTensor> tensorsOf(const Architecture& architecture) {
  return Lister(architecture).list();
}

void addMetadata(const Architecture& architecture, ZEM2Writer& writer) {
  const std::string prefix = std::string(kArchitectureName) + ".";
  const auto whole = [&](const char* key, uint64_t value) {
    writer.addMetaU32(prefix + key, static_cast<uint32_t>(value));
  };
  const auto number = [&](const char* key, double value) {
    writer.addMetaF32(prefix + key, static_cast<float>(value));
  };
  const Architecture& a = architecture;
  whole("block_count", a.layers);
  if (a.contextLength != 0) whole("context_length", a.contextLength);
  whole("embedding_length", a.width);
  whole("feed_forward_length", a.feedForward);
  whole("vocabulary_size", a.vocabulary);
  whole("full_attention_interval", a.fullEvery);
  whole("attention.head_count", a.heads);
  whole("attention.head_count_kv", a.kvHeads);
  whole("attention.head_size", a.headSize);
  whole("attention.rotary_size", a.rotarySize);
  whole("linear.key_head_count", a.keyHeads);
  whole("linear.value_head_count", a.valueHeads);
  whole("linear.head_size", a.stateSize);
  whole("linear.convolution_taps", a.taps);
  number("attention.rotary_base", a.rotaryBase);
  number("norm_epsilon", a.normEpsilon);
}

}  // namespace kiv
