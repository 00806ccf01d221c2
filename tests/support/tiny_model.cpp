// SPDX-License-Identifier: Apache-2.0
#include "support/tiny_model.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "kiv/quant.h"
#include "kiv/quant_k.h"

namespace zemtest {
namespace {

constexpr size_t kLayers = 32;

// FNV-1a, so that each tensor has its own stream of numbers.
uint64_t hashOf(const std::string& text, uint32_t seed) {
  uint64_t hash = 0xcbf29ce484222325 + seed;
  for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3;
  return hash;
}

std::vector<float> randomFloats(uint64_t state, size_t count, float low, float high) {
  std::vector<float> values(count);
  for (float& value : values) {
    state = state * 6364136223846793005 + 1442695040888963407;
    const auto unit = static_cast<float>(state >> 40) / 16777216.0F;
    value = low + (high - low) * unit;
  }
  return values;
}

uint16_t bf16(float value) { return static_cast<uint16_t>(std::bit_cast<uint32_t>(value) >> 16); }

}  // namespace

kiv::TokenizerData tinyTokenizer() {
  kiv::TokenizerData data;
  data.tokens = {"<|endoftext|>", "<|im_start|>", "<|im_end|>", "\n", "\xE2\x96\x81"};
  data.tokenTypes = {3, 3, 3, 1, 1};
  for (char c = '!'; c <= '~'; ++c) data.tokens.emplace_back(1, c);
  for (const char* merge : {"t h", "th e", "a n", "h e", "e r", "s y", "sy s"}) {
    data.merges.emplace_back(merge);
    std::string joined = merge;
    std::erase(joined, ' ');
    data.tokens.push_back(joined);
  }
  data.tokenTypes.resize(data.tokens.size(), 1);
  data.eosId = 0;
  data.chatTemplate = "chatml";
  return data;
}

Bytes encodeRows(kiv::DType type, const std::vector<float>& values, size_t cols) {
  const size_t rowBytes = kiv::dtypeBytes(type, cols);
  Bytes out(values.size() / cols * rowBytes);
  for (size_t row = 0; row * cols < values.size(); ++row) {
    const float* in = values.data() + row * cols;
    uint8_t* to = out.data() + row * rowBytes;
    switch (type) {
      case kiv::DType::F32:
        std::memcpy(to, in, rowBytes);
        break;
      case kiv::DType::BF16:
        for (size_t i = 0; i < cols; ++i) {
          const uint16_t half = bf16(in[i]);
          std::memcpy(to + i * sizeof half, &half, sizeof half);
        }
        break;
      case kiv::DType::Q8_0:
        kiv::quant::quantQ80(in, to, cols);
        break;
      case kiv::DType::Q4_K:
        kiv::quant::quantQ4K(in, to, cols);
        break;
      case kiv::DType::Q5_K:
        kiv::quant::quantQ5K(in, to, cols);
        break;
      case kiv::DType::Q6_K:
        kiv::quant::quantQ6K(in, to, cols);
        break;
      default:
        throw std::invalid_argument("encodeRows: no encoder for this type");
    }
  }
  return out;
}

namespace {

constexpr size_t kBankCols = 256;
constexpr size_t kBankRows = 509;

Bytes randomRows(kiv::DType type, size_t cols, size_t rows, uint64_t seed) {
  const float scale = std::sqrt(3.0F / static_cast<float>(cols));
  return encodeRows(type, randomFloats(seed, cols * rows, -scale, scale), cols);
}

// Made once for each type and width.
const Bytes& rowBank(kiv::DType type, size_t cols) {
  static std::mutex mutex;
  static std::map<std::pair<kiv::DType, size_t>, Bytes> banks;
  const std::lock_guard lock(mutex);
  Bytes& bank = banks[{type, cols}];
  if (bank.empty()) bank = randomRows(type, cols, kBankRows, cols);
  return bank;
}

}  // namespace

TinyModel::TinyModel(const TinyModelOptions& options) : options_(options) {
  const size_t width = options_.width;
  if (options_.vocab == 0) options_.vocab = options_.tokenizer.tokens.size();
  addMatrix("token_embd.weight", width, options_.vocab);
  addFloats("output_norm.weight", {width}, 0.5F, 1.5F);
  for (size_t i = 0; i < kLayers; ++i) {
    const std::string prefix = "blk." + std::to_string(i) + ".";
    const auto& linear = options_.linearLayers;
    addFloats(prefix + "attn_norm.weight", {width}, 0.5F, 1.5F);
    addFloats(prefix + "post_attention_norm.weight", {width}, 0.5F, 1.5F);
    addMatrix(prefix + "ffn_gate.weight", width, options_.feedForward);
    addMatrix(prefix + "ffn_up.weight", width, options_.feedForward);
    addMatrix(prefix + "ffn_down.weight", options_.feedForward, width);
    if (std::find(linear.begin(), linear.end(), i) != linear.end()) {
      addLinearLayer(prefix);
    } else {
      addFullLayer(prefix);
    }
  }
}

void TinyModel::addLinearLayer(const std::string& prefix) {
  const size_t width = options_.width;
  addMatrix(prefix + "attn_qkv.weight", width, 8192);
  addMatrix(prefix + "attn_gate.weight", width, 4096);
  addMatrix(prefix + "ssm_beta.weight", width, 32);
  addMatrix(prefix + "ssm_alpha.weight", width, 32);
  addFloats(prefix + "ssm_dt.bias", {32}, -1, 1);
  addFloats(prefix + "ssm_a", {32}, -1, -0.01F);
  addFloats(prefix + "ssm_conv1d.weight", {4, 8192}, -0.5F, 0.5F);
  addFloats(prefix + "ssm_norm.weight", {128}, 0.5F, 1.5F);
  addMatrix(prefix + "ssm_out.weight", 4096, width);
}

void TinyModel::addFullLayer(const std::string& prefix) {
  const size_t width = options_.width;
  addMatrix(prefix + "attn_q.weight", width, 8192);
  addMatrix(prefix + "attn_k.weight", width, 1024);
  addMatrix(prefix + "attn_v.weight", width, 1024);
  addMatrix(prefix + "attn_output.weight", 4096, width);
  addFloats(prefix + "attn_q_norm.weight", {256}, 0.5F, 1.5F);
  addFloats(prefix + "attn_k_norm.weight", {256}, 0.5F, 1.5F);
}

// Wide models would take seconds to draw and to quantise: their matrices take rows from a bank,
// from another one on for each name. Rows of one matrix are alike only kBankRows apart.
void TinyModel::addMatrix(const std::string& name, size_t cols, size_t rows) {
  const uint64_t seed = hashOf(name, options_.seed);
  StoredTensor& tensor = tensors_[name];
  tensor = {options_.matrixType, {cols, rows}, {}};
  if (cols < kBankCols) {
    tensor.data = randomRows(options_.matrixType, cols, rows, seed);
    return;
  }
  const Bytes& bank = rowBank(options_.matrixType, cols);
  const size_t rowBytes = bank.size() / kBankRows;
  tensor.data.reserve(rows * rowBytes);
  for (size_t row = 0; row < rows; ++row) {
    const auto from = bank.begin() + static_cast<ptrdiff_t>((seed + row) % kBankRows * rowBytes);
    tensor.data.insert(tensor.data.end(), from, from + static_cast<ptrdiff_t>(rowBytes));
  }
}

void TinyModel::addFloats(const std::string& name, std::vector<uint64_t> shape, float low,
                          float high) {
  size_t count = 1;
  for (const uint64_t extent : shape) count *= extent;
  const auto values = randomFloats(hashOf(name, options_.seed), count, low, high);
  tensors_[name] = {kiv::DType::F32, std::move(shape), encodeRows(kiv::DType::F32, values, count)};
}

void TinyModel::setFloat(const std::string& name, size_t index, float value) {
  Bytes& data = tensors_.at(name).data;
  std::memcpy(data.data() + index * sizeof value, &value, sizeof value);
}

Bytes TinyModel::build() const {
  ContainerBuilder builder;
  builder.quantInfo(options_.quantInfo)
      .hiddenSize(options_.width)
      .layerCount(kLayers)
      .vocabSize(static_cast<uint32_t>(options_.vocab))
      .tokenizer(options_.tokenizer);
  if (!options_.architecture.empty()) {
    builder.addMetaStr("general.architecture", options_.architecture);
  }
  for (const auto& [name, tensor] : tensors_) {
    builder.addTensor(name, tensor.type, tensor.shape, tensor.data);
  }
  return builder.build();
}

}  // namespace zemtest
