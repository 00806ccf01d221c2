// SPDX-License-Identifier: Apache-2.0
#include "engine/model/shaped_model.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

#include "support/tiny_model.h"

namespace zemtest {
namespace {

using kiv::ArchitectureTensor;
using kiv::TensorRole;

void require(const kiv::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.message());
}

struct Range {
  float low;
  float high;
};

Range rangeOf(const ArchitectureTensor& tensor) {
  if (tensor.matrix) {
    const float scale = std::sqrt(3.0F / static_cast<float>(tensor.shape[0]));
    return {-scale, scale};
  }
  switch (tensor.role) {
    case TensorRole::Decay:
      return {-1, -0.01F};
    case TensorRole::DecayBias:
      return {-1, 1};
    case TensorRole::Convolution:
      return {-0.5F, 0.5F};
    case TensorRole::QueryBias:
    case TensorRole::KeyBias:
    case TensorRole::ValueBias:
      return {-0.2F, 0.2F};
    default:
      return {0.5F, 1.5F};
  }
}

std::vector<float> randomValues(const ArchitectureTensor& tensor, uint32_t seed) {
  std::seed_seq seeds(tensor.name.begin(), tensor.name.end());
  std::mt19937 random(seeds);
  random.discard(seed);
  size_t count = 1;
  for (const uint64_t extent : tensor.shape) count *= extent;
  const Range range = rangeOf(tensor);
  std::vector<float> values(count);
  for (float& value : values) {
    value = range.low + (range.high - range.low) * static_cast<float>(random() >> 8) * 0x1p-24F;
  }
  return values;
}

}  // namespace

kiv::Architecture smallArchitecture() {
  kiv::Architecture a;
  a.layers = 8;
  a.width = 40;
  a.feedForward = 56;
  a.vocabulary = tinyTokenizer().tokens.size();
  a.heads = 6;
  a.kvHeads = 2;
  a.headSize = 32;
  a.rotarySize = 8;
  a.keyHeads = 2;
  a.valueHeads = 6;
  a.stateSize = 12;
  a.contextLength = 4096;
  return a;
}

void writeShapedModel(const TempFile& file, const kiv::Architecture& architecture, kiv::DType type,
                      uint32_t seed) {
  kiv::ZEM2Writer writer;
  writer.setTokenizer(tinyTokenizer());
  finishShapedModel(writer, file, architecture, type, seed);
}

void finishShapedModel(kiv::ZEM2Writer& writer, const TempFile& file,
                       const kiv::Architecture& architecture, kiv::DType type, uint32_t seed) {
  writer.setModel(
      {0, architecture.width, architecture.layers, static_cast<uint32_t>(architecture.vocabulary)});
  writer.addMetaStr("general.architecture", kiv::kArchitectureName);
  kiv::addMetadata(architecture, writer);
  std::map<std::string, ArchitectureTensor> tensors;
  for (const ArchitectureTensor& tensor : kiv::tensorsOf(architecture)) {
    tensors[tensor.name] = tensor;
    writer.addTensor(tensor.name, tensor.matrix ? type : kiv::DType::F32, tensor.shape);
  }
  require(writer.begin(file.string()));
  for (const std::string& name : writer.order()) {
    const ArchitectureTensor& tensor = tensors.at(name);
    const Bytes bytes = encodeRows(tensor.matrix ? type : kiv::DType::F32,
                                   randomValues(tensor, seed), tensor.shape[0]);
    require(writer.write(bytes.data(), bytes.size()));
  }
  require(writer.finish());
}

std::unique_ptr<zem::Weights> openWeights(const TempFile& file) {
  std::unique_ptr<zem::Weights> weights;
  require(zem::Weights::open(file.string(), weights));
  return weights;
}

std::vector<uint32_t> randomIds(size_t count, size_t vocabulary, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint32_t> ids(count);
  for (uint32_t& id : ids) id = static_cast<uint32_t>(random() % vocabulary);
  return ids;
}

}  // namespace zemtest
