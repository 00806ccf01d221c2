#include "convert/model_shape.h"

#include <utility>

namespace zemtool {
namespace {

class Lister {
 public:
  explicit Lister(const ModelWidths& widths) : widths_(widths) {}

  std::vector<ExpectedTensor> list() {
    matrix("token_embd.weight", widths_.vocabulary, widths_.width);
    vector("output_norm.weight", widths_.width);
    for (uint32_t i = 0; i < kLayers; ++i) layer(i);
    return std::move(tensors_);
  }

 private:
  void matrix(const std::string& name, uint64_t rows, uint64_t cols) {
    tensors_.push_back({name, {cols, rows}, true, false});
  }
  void vector(const std::string& name, uint64_t size, bool optional = false) {
    tensors_.push_back({name, {size}, false, optional});
  }

  void layer(uint32_t index) {
    const std::string prefix = "blk." + std::to_string(index) + ".";
    const uint64_t width = widths_.width;
    vector(prefix + "attn_norm.weight", width);
    vector(prefix + "post_attention_norm.weight", width);
    matrix(prefix + "ffn_gate.weight", widths_.feedForward, width);
    matrix(prefix + "ffn_up.weight", widths_.feedForward, width);
    matrix(prefix + "ffn_down.weight", width, widths_.feedForward);
    if (isFullAttention(index)) {
      fullAttention(prefix);
    } else {
      linearAttention(prefix);
    }
  }

  void linearAttention(const std::string& prefix) {
    const uint64_t width = widths_.width;
    matrix(prefix + "attn_qkv.weight", kChannels, width);
    matrix(prefix + "attn_gate.weight", kInner, width);
    matrix(prefix + "ssm_beta.weight", kValueHeads, width);
    matrix(prefix + "ssm_alpha.weight", kValueHeads, width);
    vector(prefix + "ssm_dt.bias", kValueHeads);
    vector(prefix + "ssm_a", kValueHeads);
    tensors_.push_back({prefix + "ssm_conv1d.weight", {kTaps, kChannels}, false, false});
    vector(prefix + "ssm_norm.weight", kStateSize);
    matrix(prefix + "ssm_out.weight", width, kInner);
  }

  void fullAttention(const std::string& prefix) {
    const uint64_t width = widths_.width;
    const uint64_t queryRows = 2 * kHeads * kHeadSize;  // each head's query, then its gate
    const uint64_t keyRows = kKvHeads * kHeadSize;
    matrix(prefix + "attn_q.weight", queryRows, width);
    matrix(prefix + "attn_k.weight", keyRows, width);
    matrix(prefix + "attn_v.weight", keyRows, width);
    matrix(prefix + "attn_output.weight", width, kHeads * kHeadSize);
    vector(prefix + "attn_q_norm.weight", kHeadSize);
    vector(prefix + "attn_k_norm.weight", kHeadSize);
    vector(prefix + "attn_q.bias", queryRows, true);
    vector(prefix + "attn_k.bias", keyRows, true);
    vector(prefix + "attn_v.bias", keyRows, true);
  }

  ModelWidths widths_;
  std::vector<ExpectedTensor> tensors_;
};

}  // namespace

std::vector<ExpectedTensor> expectedTensors(const ModelWidths& widths) {
  return Lister(widths).list();
}

bool isFullAttention(uint32_t layer) { return layer % kFullEvery == kFullEvery - 1; }

std::string suffixOf(const std::string& name) {
  if (!name.starts_with("blk.")) return name;
  return name.substr(name.find('.', 4) + 1);
}

}  // namespace zemtool
