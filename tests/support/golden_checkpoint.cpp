// SPDX-License-Identifier: Apache-2.0
#include "support/golden_checkpoint.h"

#include <cmath>
#include <map>

namespace zemtest {
namespace {

using Floats = std::vector<float>;

constexpr size_t kHeadWidth = 128;
constexpr size_t kKeyHeads = 16;
constexpr size_t kKeyRows = 2 * kKeyHeads * kHeadWidth;  // queries and keys of attn_qkv

bool endsWith(const std::string& text, const std::string& end) { return text.ends_with(end); }

float uniform(uint64_t hash, uint64_t i) {
  uint64_t x = hash + i + 0x9E3779B97F4A7C15;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
  x = x ^ (x >> 31);
  return static_cast<float>(x >> 40) / 8388608.0F - 1.0F;
}

float shaped(const std::string& name, float u, uint64_t lastExtent) {
  if (endsWith(name, "linear_attn.norm.weight")) return 1.0F + 0.25F * u;
  if (endsWith(name, "norm.weight")) return 0.25F * u;
  if (endsWith(name, "A_log")) return 1.0F + u;
  if (endsWith(name, "dt_bias")) return -1.0F + u;
  if (endsWith(name, "conv1d.weight")) return 0.5F * u;
  if (endsWith(name, "embed_tokens.weight")) return u;
  return u * static_cast<float>(1.75 / std::sqrt(static_cast<double>(lastExtent)));
}

// The checkpoint groups the value heads that share a key head; the container
// deals them out in turn. Container head h is this one of the checkpoint.
size_t checkpointHead(size_t h, size_t valueHeads) {
  return h % kKeyHeads * (valueHeads / kKeyHeads) + h / kKeyHeads;
}

// Reorders value heads in rows [first, end) of `values`, `block` rows a head.
void reorderRows(Floats& values, size_t valueHeads, size_t first, size_t block, size_t rowLength) {
  const Floats before = values;
  const size_t length = block * rowLength;
  for (size_t h = 0; h < valueHeads; ++h) {
    const size_t from = first * rowLength + checkpointHead(h, valueHeads) * length;
    const size_t to = first * rowLength + h * length;
    for (size_t i = 0; i < length; ++i) values[to + i] = before[from + i];
  }
}

void reorderColumns(Floats& values, size_t valueHeads, size_t cols) {
  const Floats before = values;
  for (size_t i = 0; i < values.size(); ++i) {
    const size_t col = i % cols;
    values[i] = before[i - col + checkpointHead(col / kHeadWidth, valueHeads) * kHeadWidth +
                       col % kHeadWidth];
  }
}

// The container's name of a block tensor, by the checkpoint's.
std::string blockSuffix(const std::string& name) {
  static const std::map<std::string, std::string> names = {
      {"input_layernorm.weight", "attn_norm.weight"},
      {"post_attention_layernorm.weight", "post_attention_norm.weight"},
      {"mlp.gate_proj.weight", "ffn_gate.weight"},
      {"mlp.up_proj.weight", "ffn_up.weight"},
      {"mlp.down_proj.weight", "ffn_down.weight"},
      {"self_attn.q_proj.weight", "attn_q.weight"},
      {"self_attn.k_proj.weight", "attn_k.weight"},
      {"self_attn.v_proj.weight", "attn_v.weight"},
      {"self_attn.o_proj.weight", "attn_output.weight"},
      {"self_attn.q_norm.weight", "attn_q_norm.weight"},
      {"self_attn.k_norm.weight", "attn_k_norm.weight"},
      {"linear_attn.in_proj_qkv.weight", "attn_qkv.weight"},
      {"linear_attn.in_proj_z.weight", "attn_gate.weight"},
      {"linear_attn.in_proj_b.weight", "ssm_beta.weight"},
      {"linear_attn.in_proj_a.weight", "ssm_alpha.weight"},
      {"linear_attn.dt_bias", "ssm_dt.bias"},
      {"linear_attn.A_log", "ssm_a"},
      {"linear_attn.conv1d.weight", "ssm_conv1d.weight"},
      {"linear_attn.norm.weight", "ssm_norm.weight"},
      {"linear_attn.out_proj.weight", "ssm_out.weight"},
  };
  return names.at(name);
}

}  // namespace

Floats goldenTensor(const std::string& tag, const std::string& name,
                    const std::vector<uint64_t>& shape) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const char c : tag + ":" + name) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3;
  size_t count = 1;
  for (const uint64_t extent : shape) count *= extent;
  Floats values(count);
  for (size_t i = 0; i < count; ++i) values[i] = shaped(name, uniform(hash, i), shape.back());
  return values;
}

std::string goldenContainerName(const std::string& name) {
  if (name == "lm_head.weight") return "output.weight";
  const std::string prefix = "model.language_model.";
  const std::string rest = name.substr(prefix.size());
  if (rest == "embed_tokens.weight") return "token_embd.weight";
  if (rest == "norm.weight") return "output_norm.weight";
  const size_t dot = rest.find('.', 7);  // behind "layers.N"
  return "blk." + rest.substr(7, dot - 7) + "." + blockSuffix(rest.substr(dot + 1));
}

void toContainerLayout(const std::string& name, Floats& values, std::vector<uint64_t>& shape,
                       size_t valueHeads) {
  const uint64_t cols = shape.back();
  if (endsWith(name, "conv1d.weight")) {
    shape = {shape[0], shape[2]};
    reorderRows(values, valueHeads, kKeyRows, kHeadWidth, shape[1]);
  } else if (endsWith(name, "in_proj_qkv.weight")) {
    reorderRows(values, valueHeads, kKeyRows, kHeadWidth, cols);
  } else if (endsWith(name, "in_proj_z.weight")) {
    reorderRows(values, valueHeads, 0, kHeadWidth, cols);
  } else if (endsWith(name, "out_proj.weight")) {
    reorderColumns(values, valueHeads, cols);
  } else if (endsWith(name, "in_proj_a.weight") || endsWith(name, "in_proj_b.weight")) {
    reorderRows(values, valueHeads, 0, 1, cols);
  } else if (endsWith(name, "A_log") || endsWith(name, "dt_bias")) {
    reorderRows(values, valueHeads, 0, 1, 1);
    if (endsWith(name, "A_log")) {
      for (float& x : values) x = -std::exp(x);
    }
  } else if (endsWith(name, "norm.weight") && !endsWith(name, "linear_attn.norm.weight")) {
    for (float& x : values) x += 1.0F;
  }
}

}  // namespace zemtest
