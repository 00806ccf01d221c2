#include "demo/demo_model.h"

#include <cmath>
#include <string_view>

#include "demo/demo_vocabulary.h"
#include "kiv/quant/row_codec.h"

namespace zemtool {
namespace {

using kiv::DType;

constexpr uint32_t kLayers = 32;
constexpr uint32_t kFullEvery = 4;  // layers 3, 7, ... have full attention
constexpr uint64_t kHeads = 16;
constexpr uint64_t kKvHeads = 4;
constexpr uint64_t kHeadDim = 256;
constexpr uint64_t kRotary = 64;
constexpr uint64_t kKeyHeads = 16;
constexpr uint64_t kValueHeads = 32;
constexpr uint64_t kStateDim = 128;
constexpr uint64_t kTaps = 4;
constexpr uint64_t kInner = kValueHeads * kStateDim;
constexpr uint64_t kChannels = kInner + 2 * kKeyHeads * kStateDim;
constexpr uint32_t kContext = 8192;

struct Dimensions {
  uint32_t width;
  uint32_t feedForward;
  uint32_t tokens;  // at least
};

constexpr Dimensions dimensionsOf(DemoSize size) {
  return size == DemoSize::Tiny ? Dimensions{256, 512, 0} : Dimensions{2560, 9216, 248320};
}

bool isFull(uint32_t layer) { return layer % kFullEvery == kFullEvery - 1; }

DType matrixType(DemoType type, std::string_view suffix) {
  switch (type) {
    case DemoType::F32:
      return DType::F32;
    case DemoType::BF16:
      return DType::BF16;
    case DemoType::Q8_0:
      return DType::Q8_0;
    case DemoType::Q4_K:
      return DType::Q4_K;
    case DemoType::Q5_K:
      return DType::Q5_K;
    case DemoType::Q6_K:
      return DType::Q6_K;
    case DemoType::Q4_K_M:
      break;
  }
  if (suffix == "attn_v.weight" || suffix == "ffn_down.weight" || suffix == "token_embd.weight") {
    return DType::Q6_K;
  }
  return suffix == "ssm_alpha.weight" || suffix == "ssm_beta.weight" ? DType::Q8_0 : DType::Q4_K;
}

// Collects the tensors of one model.
class Planner {
 public:
  explicit Planner(DemoModel& model) : model_(model) {}

  // Uniform weights of variance 1 / cols: a product keeps its input's size.
  void matrix(const std::string& prefix, const char* suffix, uint64_t rows, uint64_t cols) {
    DemoTensor tensor;
    tensor.name = prefix + suffix;
    tensor.type = matrixType(model_.type, suffix);
    tensor.shape = {cols, rows};
    tensor.spread = std::sqrt(3.0F / static_cast<float>(cols));
    model_.tensors.push_back(std::move(tensor));
  }

  void plain(std::string name, std::vector<uint64_t> shape, float mean, float spread) {
    DemoTensor tensor;
    tensor.name = std::move(name);
    tensor.shape = std::move(shape);
    tensor.mean = mean;
    tensor.spread = spread;
    model_.tensors.push_back(std::move(tensor));
  }

  void norm(std::string name, uint64_t size) { plain(std::move(name), {size}, 1.0F, 0.1F); }

  void layer(uint32_t index) {
    const std::string prefix = layerPrefix(index);
    const uint64_t width = model_.width;
    norm(prefix + "attn_norm.weight", width);
    norm(prefix + "post_attention_norm.weight", width);
    matrix(prefix, "ffn_gate.weight", model_.feedForward, width);
    matrix(prefix, "ffn_up.weight", model_.feedForward, width);
    matrix(prefix, "ffn_down.weight", width, model_.feedForward);
    if (isFull(index)) {
      fullAttention(prefix);
    } else {
      linearAttention(prefix);
    }
  }

  // Layer `index` uses the tensors that layer `source` declared since `begin`.
  void aliasLayer(uint32_t index, uint32_t source, size_t begin, size_t end) {
    const size_t skip = layerPrefix(source).size();
    for (size_t i = begin; i < end; ++i) {
      const std::string& target = model_.tensors[i].name;
      model_.aliases.emplace_back(layerPrefix(index) + target.substr(skip), target);
    }
  }

 private:
  static std::string layerPrefix(uint32_t index) { return "blk." + std::to_string(index) + "."; }

  void linearAttention(const std::string& prefix) {
    const uint64_t width = model_.width;
    matrix(prefix, "attn_qkv.weight", kChannels, width);
    matrix(prefix, "attn_gate.weight", kInner, width);
    matrix(prefix, "ssm_beta.weight", kValueHeads, width);
    matrix(prefix, "ssm_alpha.weight", kValueHeads, width);
    plain(prefix + "ssm_dt.bias", {kValueHeads}, 0.0F, 1.0F);
    plain(prefix + "ssm_a", {kValueHeads}, -4.005F, 3.995F);  // decay rates, [-8, -0.01]
    plain(prefix + "ssm_conv1d.weight", {kTaps, kChannels}, 0.0F, 0.8F);
    norm(prefix + "ssm_norm.weight", kStateDim);
    matrix(prefix, "ssm_out.weight", width, kInner);
  }

  void fullAttention(const std::string& prefix) {
    const uint64_t width = model_.width;
    matrix(prefix, "attn_q.weight", 2 * kHeads * kHeadDim, width);  // queries and gates
    matrix(prefix, "attn_k.weight", kKvHeads * kHeadDim, width);
    matrix(prefix, "attn_v.weight", kKvHeads * kHeadDim, width);
    matrix(prefix, "attn_output.weight", width, kHeads * kHeadDim);
    norm(prefix + "attn_q_norm.weight", kHeadDim);
    norm(prefix + "attn_k_norm.weight", kHeadDim);
  }

  DemoModel& model_;
};

void planLayers(DemoModel& model) {
  Planner planner(model);
  if (model.size == DemoSize::Full4B) {
    for (uint32_t i = 0; i < kLayers; ++i) planner.layer(i);
    return;
  }
  constexpr uint32_t kFirstFull = kFullEvery - 1;
  const size_t linear = model.tensors.size();
  planner.layer(0);
  const size_t full = model.tensors.size();
  planner.layer(kFirstFull);
  const size_t end = model.tensors.size();
  for (uint32_t i = 1; i < kLayers; ++i) {
    if (i == kFirstFull) continue;
    if (isFull(i)) {
      planner.aliasLayer(i, kFirstFull, full, end);
    } else {
      planner.aliasLayer(i, 0, linear, full);
    }
  }
}

// The finaliser of splitmix64, a bijection of 64 bits.
uint64_t mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;

uint64_t keyOf(uint64_t seed, const std::string& name) {
  uint64_t key = mix(seed + kGolden);
  for (const char c : name) key = mix(key ^ static_cast<uint8_t>(c)) + kGolden;
  return key;
}

float signedUnit(uint64_t bits) {  // [-1, 1]
  return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(bits))) * 0x1p-31F;
}

// One hash gives two elements; every row length is even.
void fill(uint64_t key, uint64_t firstElement, const DemoTensor& tensor, float gain, float* out) {
  const float mean = tensor.mean;
  const float spread = tensor.spread * gain;
  const uint64_t cols = tensor.cols();
  for (uint64_t i = 0; i < cols; i += 2) {
    const uint64_t bits = mix(key + ((firstElement + i) / 2) * kGolden);
    out[i] = mean + spread * signedUnit(bits);
    out[i + 1] = mean + spread * signedUnit(bits >> 32);
  }
}

void declareMetadata(const DemoModel& model, const std::string& generator,
                     kiv::ZEM2Writer& writer) {
  const std::string size = demoSizeName(model.size);
  writer.addMetaStr("general.architecture", "qwen35");
  writer.addMetaStr("general.name", "demo " + size + ", random weights");
  writer.addMetaStr("general.description", "random weights of `zem make-demo`; knows nothing");
  writer.addMetaStr("general.generator", generator);
  writer.addMetaU64("demo.seed", model.seed);
  writer.addMetaStr("demo.size", size);
  writer.addMetaStr("demo.type", demoTypeName(model.type));
  const auto u32 = [&](const char* key, uint64_t value) {
    writer.addMetaU32(std::string("qwen35.") + key, static_cast<uint32_t>(value));
  };
  u32("block_count", kLayers);
  u32("context_length", kContext);
  u32("embedding_length", model.width);
  u32("feed_forward_length", model.feedForward);
  u32("vocabulary_size", model.tokenizer.tokens.size());
  u32("full_attention_interval", kFullEvery);
  u32("attention.head_count", kHeads);
  u32("attention.head_count_kv", kKvHeads);
  u32("attention.head_size", kHeadDim);
  u32("attention.rotary_size", kRotary);
  u32("linear.key_head_count", kKeyHeads);
  u32("linear.value_head_count", kValueHeads);
  u32("linear.head_size", kStateDim);
  u32("linear.convolution_taps", kTaps);
  writer.addMetaF32("qwen35.attention.rotary_base", 1e7F);
  writer.addMetaF32("qwen35.norm_epsilon", 1e-6F);
}

}  // namespace

const char* demoSizeName(DemoSize size) { return size == DemoSize::Tiny ? "tiny" : "4b"; }

const char* demoTypeName(DemoType type) {
  constexpr const char* kNames[] = {"f32", "bf16", "q8_0", "q4_k", "q5_k", "q6_k", "q4_k_m"};
  return kNames[static_cast<size_t>(type)];
}

DemoModel planDemoModel(DemoSize size, DemoType type, uint64_t seed) {
  const Dimensions dimensions = dimensionsOf(size);
  DemoVocabulary vocabulary = makeDemoVocabulary(dimensions.tokens);
  DemoModel model;
  model.seed = seed;
  model.size = size;
  model.type = type;
  model.width = dimensions.width;
  model.feedForward = dimensions.feedForward;
  model.tokenizer = std::move(vocabulary.data);
  model.loudness = std::move(vocabulary.loudness);
  planLayers(model);
  Planner planner(model);
  planner.norm("output_norm.weight", model.width);
  planner.matrix("", "token_embd.weight", model.tokenizer.tokens.size(), model.width);
  model.tensors.back().perToken = true;
  return model;
}

void declareDemoModel(const DemoModel& model, const std::string& generator,
                      kiv::ZEM2Writer& writer) {
  kiv::ZEM2ModelHeader header;
  header.hiddenSize = model.width;
  header.layerCount = kLayers;
  header.vocabSize = static_cast<uint32_t>(model.tokenizer.tokens.size());
  writer.setModel(header);
  declareMetadata(model, generator, writer);
  writer.setTokenizer(model.tokenizer);
  for (const DemoTensor& tensor : model.tensors) {
    writer.addTensor(tensor.name, tensor.type, tensor.shape);
  }
  for (const auto& [name, target] : model.aliases) writer.addAlias(name, target);
}

void encodeDemoRows(const DemoModel& model, const DemoTensor& tensor, uint64_t first,
                    uint64_t count, std::vector<uint8_t>& out) {
  const uint64_t cols = tensor.cols();
  const uint64_t rowBytes = kiv::dtypeBytes(tensor.type, cols);
  const uint64_t key = keyOf(model.seed, tensor.name);
  std::vector<float> scratch(cols);
  out.resize(count * rowBytes);
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t row = first + i;
    fill(key, row * cols, tensor, tensor.perToken ? model.loudness[row] : 1.0F, scratch.data());
    kiv::encodeRow(tensor.type, scratch.data(), cols, out.data() + i * rowBytes);
  }
}

}  // namespace zemtool
