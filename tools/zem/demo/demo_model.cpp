// SPDX-License-Identifier: Apache-2.0
#include "demo/demo_model.h"

#include <cmath>
#include <utility>

#include "demo/demo_vocabulary.h"
#include "kiv/quant/row_codec.h"

namespace zemtool {
namespace {

using kiv::Architecture;
using kiv::ArchitectureTensor;
using kiv::DType;
using kiv::TensorRole;
using kiv::WeightMix;

constexpr uint32_t kContext = 8192;

constexpr uint32_t kPublishedTokens = 248320;

struct Dimensions {
  uint32_t layers;
  uint64_t width;
  uint64_t feedForward;
  uint64_t heads;
  uint64_t kvHeads;
  uint64_t valueHeads;
  bool ownHead;
  uint32_t tokens;  // at least
};

constexpr Dimensions dimensionsOf(DemoSize size) {
  switch (size) {
    case DemoSize::Tiny:
      break;
    case DemoSize::Full08B:
      return {24, 1024, 3584, 8, 2, 16, false, kPublishedTokens};
    case DemoSize::Full2B:
      return {24, 2048, 6144, 8, 2, 16, false, kPublishedTokens};
    case DemoSize::Full4B:
      return {32, 2560, 9216, 16, 4, 32, false, kPublishedTokens};
    case DemoSize::Full9B:
      return {32, 4096, 12288, 16, 4, 32, true, kPublishedTokens};
  }
  return {32, 256, 512, 16, 4, 32, false, 0};
}

Architecture architectureOf(const Dimensions& dimensions, uint64_t vocabulary) {
  Architecture a;
  a.layers = dimensions.layers;
  a.width = dimensions.width;
  a.feedForward = dimensions.feedForward;
  a.vocabulary = vocabulary;
  a.heads = dimensions.heads;
  a.kvHeads = dimensions.kvHeads;
  a.valueHeads = dimensions.valueHeads;
  a.ownHead = dimensions.ownHead;
  a.contextLength = kContext;
  return a;
}

TensorRole headRole(const Architecture& architecture) {
  return architecture.ownHead ? TensorRole::OutputHead : TensorRole::Embedding;
}

DType typeOf(WeightMix type, const ArchitectureTensor& tensor) {
  if (!tensor.matrix) return DType::F32;
  return kiv::isMixed(type) ? kiv::matrixType(type, tensor.role) : kiv::baseType(type);
}

// Where the weights of a vector or of the convolution lie.
struct Range {
  float mean;
  float spread;
};

Range rangeOf(TensorRole role) {
  switch (role) {
    case TensorRole::DecayBias:
      return {0.0F, 1.0F};
    case TensorRole::Decay:
      return {-4.005F, 3.995F};  // decay rates, [-8, -0.01]
    case TensorRole::Convolution:
      return {0.0F, 0.8F};
    default:
      return {1.0F, 0.1F};  // of norms
  }
}

DemoTensor planTensor(const ArchitectureTensor& tensor, WeightMix type) {
  DemoTensor planned;
  planned.name = tensor.name;
  planned.role = tensor.role;
  planned.type = typeOf(type, tensor);
  planned.shape = tensor.shape;
  if (tensor.matrix) {
    // Uniform weights of variance 1 / columns: a product keeps its input's size.
    planned.spread = std::sqrt(3.0F / static_cast<float>(tensor.shape[0]));
  } else {
    const Range range = rangeOf(tensor.role);
    planned.mean = range.mean;
    planned.spread = range.spread;
  }
  return planned;
}

// The first layer of the same kind. In a tiny model all such layers share its tensors.
uint32_t sharedLayer(const Architecture& architecture, uint32_t layer) {
  return architecture.isFull(layer) ? architecture.fullEvery - 1 : 0;
}

void planTensors(DemoModel& model) {
  for (const ArchitectureTensor& tensor : kiv::tensorsOf(model.architecture)) {
    if (tensor.optional) continue;
    const uint32_t source = sharedLayer(model.architecture, tensor.layer);
    const bool shared = model.size == DemoSize::Tiny && kiv::isOfLayer(tensor.role);
    if (shared && tensor.layer != source) {
      model.aliases.emplace_back(tensor.name, kiv::tensorName(tensor.role, source));
    } else {
      model.tensors.push_back(planTensor(tensor, model.type));
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
  writer.addMetaStr("general.architecture", kiv::kArchitectureName);
  writer.addMetaStr("general.name", "demo " + size + ", random weights");
  writer.addMetaStr("general.description", "random weights of `zem make-demo`; knows nothing");
  writer.addMetaStr("general.generator", generator);
  // Without a trained `</think>` nothing would be an answer, so it must not begin with thinking.
  writer.addMetaStr("chat.format", "qwen3.5-small");
  writer.addMetaU64("demo.seed", model.seed);
  writer.addMetaStr("demo.size", size);
  writer.addMetaStr("demo.type", kiv::weightMixName(model.type));
  kiv::addMetadata(model.architecture, writer);
}

}  // namespace

const char* demoSizeName(DemoSize size) {
  constexpr std::array kNames = {"tiny", "0.8b", "2b", "4b", "9b"};
  return kNames[static_cast<size_t>(size)];
}

DemoModel planDemoModel(DemoSize size, WeightMix type, uint64_t seed) {
  const Dimensions dimensions = dimensionsOf(size);
  DemoVocabulary vocabulary = makeDemoVocabulary(dimensions.tokens);
  DemoModel model;
  model.seed = seed;
  model.size = size;
  model.type = type;
  model.tokenizer = std::move(vocabulary.data);
  model.loudness = std::move(vocabulary.loudness);
  model.architecture = architectureOf(dimensions, model.tokenizer.tokens.size());
  planTensors(model);
  return model;
}

void declareDemoModel(const DemoModel& model, const std::string& generator,
                      kiv::ZEM2Writer& writer) {
  kiv::ZEM2ModelHeader header;
  header.hiddenSize = model.architecture.width;
  header.layerCount = model.architecture.layers;
  header.vocabSize = static_cast<uint32_t>(model.architecture.vocabulary);
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
    const float gain = tensor.role == headRole(model.architecture) ? model.loudness[row] : 1.0F;
    fill(key, row * cols, tensor, gain, scratch.data());
    kiv::encodeRow(tensor.type, scratch.data(), cols, out.data() + i * rowBytes);
  }
}

}  // namespace zemtool
