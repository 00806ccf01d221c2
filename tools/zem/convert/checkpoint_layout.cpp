// SPDX-License-Identifier: Apache-2.0
#include "convert/checkpoint_layout.h"

#include <charconv>
#include <stdexcept>
#include <system_error>

namespace zemtool {
namespace {

using kiv::TensorRole;

const char* suffixOf(TensorRole role) {
  switch (role) {
    case TensorRole::Embedding:
      return "embed_tokens.weight";
    case TensorRole::OutputNorm:
      return "norm.weight";
    case TensorRole::OutputHead:
      return "lm_head.weight";
    case TensorRole::AttentionNorm:
      return "input_layernorm.weight";
    case TensorRole::FeedForwardNorm:
      return "post_attention_layernorm.weight";
    case TensorRole::FeedForwardGate:
      return "mlp.gate_proj.weight";
    case TensorRole::FeedForwardUp:
      return "mlp.up_proj.weight";
    case TensorRole::FeedForwardDown:
      return "mlp.down_proj.weight";
    case TensorRole::Query:
      return "self_attn.q_proj.weight";
    case TensorRole::Key:
      return "self_attn.k_proj.weight";
    case TensorRole::Value:
      return "self_attn.v_proj.weight";
    case TensorRole::AttentionOutput:
      return "self_attn.o_proj.weight";
    case TensorRole::QueryNorm:
      return "self_attn.q_norm.weight";
    case TensorRole::KeyNorm:
      return "self_attn.k_norm.weight";
    case TensorRole::QueryBias:
      return "self_attn.q_proj.bias";
    case TensorRole::KeyBias:
      return "self_attn.k_proj.bias";
    case TensorRole::ValueBias:
      return "self_attn.v_proj.bias";
    case TensorRole::Mixed:
      return "linear_attn.in_proj_qkv.weight";
    case TensorRole::Gate:
      return "linear_attn.in_proj_z.weight";
    case TensorRole::Beta:
      return "linear_attn.in_proj_b.weight";
    case TensorRole::Alpha:
      return "linear_attn.in_proj_a.weight";
    case TensorRole::DecayBias:
      return "linear_attn.dt_bias";
    case TensorRole::Decay:
      return "linear_attn.A_log";
    case TensorRole::Convolution:
      return "linear_attn.conv1d.weight";
    case TensorRole::StateNorm:
      return "linear_attn.norm.weight";
    case TensorRole::StateOutput:
      return "linear_attn.out_proj.weight";
  }
  throw std::logic_error("a tensor without a name in checkpoints");
}

}  // namespace

std::string checkpointName(TensorRole role, uint32_t layer) {
  return (kiv::isOfLayer(role) ? "layers." + std::to_string(layer) + "." : "") + suffixOf(role);
}

TensorNames::TensorNames(NameOf nameOf) : nameOf_(nameOf) {
  for (uint8_t i = 0; i <= static_cast<uint8_t>(TensorRole::StateOutput); ++i) {
    const auto role = static_cast<TensorRole>(i);
    ofLayer0_.emplace(nameOf(role, 0), role);
  }
}

std::optional<TensorPlace> TensorNames::find(std::string_view name) const {
  TensorPlace place;
  std::string ofLayer0(name);
  const size_t number = name.find('.') + 1;
  const char* end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data() + number, end, place.layer);
  if (number != 0 && error == std::errc()) {
    ofLayer0.replace(number, static_cast<size_t>(rest - name.data()) - number, "0");
  }
  const auto found = ofLayer0_.find(ofLayer0);
  if (found == ofLayer0_.end()) return {};
  place.role = found->second;
  if (nameOf_(place.role, place.layer) != name) return {};  // "blk.007."
  return place;
}

LayoutChange changeFromCheckpoint(const kiv::Architecture& architecture, TensorRole role) {
  const auto dealt = [&](uint64_t first, uint64_t run) {
    const uint64_t keyHeads = architecture.keyHeads;
    return HeadOrder{first, run, keyHeads, architecture.valueHeads / keyHeads};
  };
  const uint64_t size = architecture.stateSize;
  LayoutChange change;
  switch (role) {
    case TensorRole::AttentionNorm:
    case TensorRole::FeedForwardNorm:
    case TensorRole::QueryNorm:
    case TensorRole::KeyNorm:
    case TensorRole::OutputNorm:
      change.elements = ElementChange::PlusOne;
      break;
    case TensorRole::Mixed:
    case TensorRole::Convolution:
      change.rows = dealt(architecture.keyRows(), size);
      break;
    case TensorRole::Gate:
      change.rows = dealt(0, size);
      break;
    case TensorRole::StateOutput:
      change.columns = dealt(0, size);
      break;
    case TensorRole::Beta:
    case TensorRole::Alpha:
      change.rows = dealt(0, 1);
      break;
    case TensorRole::Decay:
      change.elements = ElementChange::NegativeExp;
      [[fallthrough]];
    case TensorRole::DecayBias:
      change.columns = dealt(0, 1);
      break;
    default:
      break;
  }
  return change;
}

}  // namespace zemtool
