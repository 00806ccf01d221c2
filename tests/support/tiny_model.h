// SPDX-License-Identifier: Apache-2.0
// A whole model of the supported architecture that is small enough for a test:
// 32 layers with the fixed heads, a narrow width, random weights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kiv/tensor.h"
#include "kiv/tokenizer.h"
#include "support/container_builder.h"

namespace zemtest {

// Printable ASCII, U+2581, line feed, a few merges, and the ChatML tokens
// "<|endoftext|>" (the eosId), "<|im_start|>", "<|im_end|>" as special ones.
kiv::TokenizerData tinyTokenizer();

// One tensor before it is stored.
struct StoredTensor {
  kiv::DType type = kiv::DType::F32;
  std::vector<uint64_t> shape;  // innermost first
  Bytes data;
};

// `values` as rows of `cols` elements of `type` (F32, BF16, Q8_0 or a K type).
Bytes encodeRows(kiv::DType type, const std::vector<float>& values, size_t cols);

struct TinyModelOptions {
  size_t width = 8;
  size_t feedForward = 12;
  size_t vocab = 0;  // 0: as many rows as the tokenizer has tokens
  // The layers with linear attention. Each costs 2 MB of state and half a
  // million state steps a token, so most tests want few.
  std::vector<size_t> linearLayers = {0};
  kiv::DType matrixType = kiv::DType::F32;  // K types need a width of 256
  uint32_t seed = 1;
  std::string architecture = "qwen35";  // empty: no such key
  kiv::TokenizerData tokenizer = tinyTokenizer();
  bool quantInfo = false;  // blocks are described, as GPU products need it
};

// Made on construction; change what a test wants changed, then build(). The
// logits are finite, differ between tokens, and depend on the whole text.
class TinyModel {
 public:
  explicit TinyModel(const TinyModelOptions& options = {});

  // The tensors by name, to be changed, erased or added to.
  std::map<std::string, StoredTensor>& tensors() { return tensors_; }
  StoredTensor& tensor(const std::string& name) { return tensors_.at(name); }
  // Sets element `index` of an F32 tensor.
  void setFloat(const std::string& name, size_t index, float value);

  // The container as bytes.
  Bytes build() const;

 private:
  void addMatrix(const std::string& name, size_t cols, size_t rows);
  void addFloats(const std::string& name, std::vector<uint64_t> shape, float low, float high);
  void addLinearLayer(const std::string& prefix);
  void addFullLayer(const std::string& prefix);

  TinyModelOptions options_;
  std::map<std::string, StoredTensor> tensors_;
};

}  // namespace zemtest
