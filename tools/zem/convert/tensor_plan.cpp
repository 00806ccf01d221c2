#include "convert/tensor_plan.h"

#include <algorithm>
#include <map>
#include <utility>

#include "console/terminal.h"
#include "kiv/quant/row_codec.h"

namespace zemtool {
namespace {

using kiv::DType;

constexpr uint64_t kAlignment = 64;
constexpr uint64_t kMaxVocabulary = uint64_t{1} << 22;

constexpr std::array<std::pair<const char*, const char*>, 23> kBlockNames = {{
    {"attn_norm.weight", "input_layernorm.weight"},
    {"post_attention_norm.weight", "post_attention_layernorm.weight"},
    {"ffn_gate.weight", "mlp.gate_proj.weight"},
    {"ffn_up.weight", "mlp.up_proj.weight"},
    {"ffn_down.weight", "mlp.down_proj.weight"},
    {"attn_q.weight", "self_attn.q_proj.weight"},
    {"attn_k.weight", "self_attn.k_proj.weight"},
    {"attn_v.weight", "self_attn.v_proj.weight"},
    {"attn_output.weight", "self_attn.o_proj.weight"},
    {"attn_q.bias", "self_attn.q_proj.bias"},
    {"attn_k.bias", "self_attn.k_proj.bias"},
    {"attn_v.bias", "self_attn.v_proj.bias"},
    {"attn_q_norm.weight", "self_attn.q_norm.weight"},
    {"attn_k_norm.weight", "self_attn.k_norm.weight"},
    {"attn_qkv.weight", "linear_attn.in_proj_qkv.weight"},
    {"attn_gate.weight", "linear_attn.in_proj_z.weight"},
    {"ssm_beta.weight", "linear_attn.in_proj_b.weight"},
    {"ssm_alpha.weight", "linear_attn.in_proj_a.weight"},
    {"ssm_dt.bias", "linear_attn.dt_bias"},
    {"ssm_a", "linear_attn.A_log"},
    {"ssm_conv1d.weight", "linear_attn.conv1d.weight"},
    {"ssm_norm.weight", "linear_attn.norm.weight"},
    {"ssm_out.weight", "linear_attn.out_proj.weight"},
}};

// Extents of 1 say nothing about where elements lie.
std::vector<uint64_t> squeezed(std::vector<uint64_t> shape) {
  std::erase(shape, 1);
  return shape;
}

std::string nameInSource(const ModelSource& source, const std::string& name) {
  return "'" + (source.checkpointLayout ? checkpointName(name) : name) + "'";
}

const SourceTensor& require(const ModelSource& source, const std::string& name) {
  const auto found = source.tensors.find(name);
  if (found == source.tensors.end()) {
    throw Failure("tensor " + nameInSource(source, name) + " is missing");
  }
  return found->second;
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

DType baseType(WeightMix mix) {
  switch (mix) {
    case WeightMix::F32:
      return DType::F32;
    case WeightMix::BF16:
      return DType::BF16;
    case WeightMix::Q8_0:
      return DType::Q8_0;
    case WeightMix::Q4_K:
    case WeightMix::Q4_K_M:
      return DType::Q4_K;
    case WeightMix::Q5_K:
    case WeightMix::Q5_K_M:
      return DType::Q5_K;
    case WeightMix::Q6_K:
      return DType::Q6_K;
  }
  return DType::F32;
}

bool isOneOf(const std::string& text, std::initializer_list<const char*> list) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

DType wantedType(WeightMix mix, const std::string& suffix) {
  const DType base = baseType(mix);
  if (base == DType::F32 || base == DType::BF16) return base;
  // Few weights that decide how fast the state decays.
  if (isOneOf(suffix, {"ssm_alpha.weight", "ssm_beta.weight"})) return DType::Q8_0;
  const bool mixed = mix == WeightMix::Q4_K_M || mix == WeightMix::Q5_K_M;
  const bool sensitive = isOneOf(suffix, {"token_embd.weight", "attn_v.weight", "ffn_down.weight"});
  return mixed && sensitive ? DType::Q6_K : base;
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
    plan_.widths = widthsOf(source_);
    for (const ExpectedTensor& expected : expectedTensors(plan_.widths)) {
      if (!expected.optional || source_.tensors.count(expected.name) != 0) add(expected);
    }
    checkBiases();
    std::sort(plan_.tensors.begin(), plan_.tensors.end(),
              [](const PlannedTensor& a, const PlannedTensor& b) { return a.name < b.name; });
    return std::move(plan_);
  }

 private:
  void add(const ExpectedTensor& expected) {
    PlannedTensor tensor;
    tensor.name = expected.name;
    tensor.shape = expected.shape;
    tensor.source = &require(source_, expected.name);
    checkShape(source_, *tensor.source, expected.shape);
    checkType(source_, *tensor.source);
    chooseType(expected, tensor);
    if (source_.checkpointLayout) changeLayout(suffixOf(expected.name), tensor);
    plan_.tensors.push_back(std::move(tensor));
  }

  void chooseType(const ExpectedTensor& expected, PlannedTensor& tensor) {
    DType stored = DType::F32;
    const bool storable = !source_.checkpointLayout &&
                          kiv::ggufStoredAs(tensor.source->type, stored) &&
                          (expected.matrix || stored == DType::F32);
    if (storable && !(recode_ && expected.matrix)) {
      tensor.type = stored;
      tensor.copied = true;
      return;
    }
    if (!expected.matrix) return;
    const DType wanted = wantedType(mix_, suffixOf(expected.name));
    tensor.type = fittingType(wanted, tensor.cols());
    tensor.copied = storable && stored == tensor.type;
    if (tensor.type == wanted) return;
    plan_.fallbacks.push_back({tensor.name, wanted, tensor.type,
                               "its rows of " + std::to_string(tensor.cols()) +
                                   " weights are not whole blocks of " +
                                   std::to_string(kiv::dtypeBlockSize(wanted))});
  }

  static void changeLayout(const std::string& suffix, PlannedTensor& tensor) {
    if (isOneOf(suffix, {"attn_norm.weight", "post_attention_norm.weight", "attn_q_norm.weight",
                         "attn_k_norm.weight", "output_norm.weight"})) {
      tensor.change = ElementChange::PlusOne;
    } else if (isOneOf(suffix, {"attn_qkv.weight", "ssm_conv1d.weight"})) {
      tensor.rowOrder = {kKeyRows, kStateSize};
    } else if (suffix == "attn_gate.weight") {
      tensor.rowOrder = {0, kStateSize};
    } else if (suffix == "ssm_out.weight") {
      tensor.columnOrder = {0, kStateSize};
    } else if (isOneOf(suffix, {"ssm_beta.weight", "ssm_alpha.weight"})) {
      tensor.rowOrder = {0, 1};
    } else if (isOneOf(suffix, {"ssm_dt.bias", "ssm_a"})) {
      tensor.columnOrder = {0, 1};
      if (suffix == "ssm_a") tensor.change = ElementChange::NegativeExp;
    }
  }

  // The decoder takes the three together or not at all.
  void checkBiases() const {
    for (uint32_t i = kFullEvery - 1; i < kLayers; i += kFullEvery) {
      const std::string prefix = "blk." + std::to_string(i) + ".";
      const std::array names = {prefix + "attn_q.bias", prefix + "attn_k.bias",
                                prefix + "attn_v.bias"};
      const auto present = [&](const std::string& n) { return source_.tensors.count(n) != 0; };
      if (std::none_of(names.begin(), names.end(), present)) continue;
      for (const std::string& name : names) require(source_, name);
    }
  }

  const ModelSource& source_;
  WeightMix mix_;
  bool recode_;
  ConversionPlan plan_;
};

}  // namespace

const char* weightMixName(WeightMix mix) {
  constexpr std::array kNames = {"f32", "bf16", "q8_0", "q4_k", "q5_k", "q6_k", "q4_k_m", "q5_k_m"};
  return kNames[static_cast<size_t>(mix)];
}

uint64_t ConversionPlan::bytes() const {
  uint64_t total = 0;
  for (const PlannedTensor& tensor : tensors) {
    total += (tensor.bytes() + kAlignment - 1) / kAlignment * kAlignment;
  }
  return total;
}

ModelWidths widthsOf(const ModelSource& source) {
  const auto matrix = [&](const std::string& name) {
    const SourceTensor& tensor = require(source, name);
    if (tensor.shape.size() == 2 && tensor.shape[0] > 0 && tensor.shape[1] > 0) return tensor.shape;
    throw Failure("tensor '" + tensor.name + "' has the shape " +
                  sourceShape(source, tensor.shape) + ", needs two extents");
  };
  ModelWidths widths;
  const std::vector<uint64_t> embedding = matrix("token_embd.weight");
  widths.width = embedding[0];
  widths.vocabulary = embedding[1];
  widths.feedForward = matrix("blk.0.ffn_gate.weight")[1];
  if (widths.vocabulary > kMaxVocabulary) {
    throw Failure("tensor " + nameInSource(source, "token_embd.weight") + " has " +
                  std::to_string(widths.vocabulary) + " tokens, at most " +
                  std::to_string(kMaxVocabulary) + " can be stored");
  }
  return widths;
}

ConversionPlan planConversion(const ModelSource& source, WeightMix mix, bool recode) {
  return Planner(source, mix, recode).plan();
}

std::string checkpointName(const std::string& containerName) {
  if (containerName == "token_embd.weight") return "embed_tokens.weight";
  if (containerName == "output_norm.weight") return "norm.weight";
  const std::string suffix = suffixOf(containerName);
  const auto* const found = std::find_if(kBlockNames.begin(), kBlockNames.end(),
                                         [&](const auto& pair) { return suffix == pair.first; });
  const size_t end = containerName.size() - suffix.size() - 1;
  return "layers." + containerName.substr(4, end - 4) + "." + found->second;
}

std::string sourceShape(const ModelSource& source, const std::vector<uint64_t>& innermostFirst) {
  std::vector<uint64_t> shape = innermostFirst;
  if (source.checkpointLayout) std::reverse(shape.begin(), shape.end());
  std::string text;
  for (const uint64_t extent : shape) text += (text.empty() ? "" : ", ") + std::to_string(extent);
  return "[" + text + "]";
}

}  // namespace zemtool
