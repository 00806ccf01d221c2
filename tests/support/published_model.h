// SPDX-License-Identifier: Apache-2.0
// Models as they are published: checkpoint folders with safetensors files, and
// GGUF files. Made byte by byte, so that a mistake of the reader shows.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/model/architecture.h"
#include "support/container_builder.h"

namespace zemtest {

// ---- safetensors ----

// A tensor of a checkpoint. `data` may be empty: zeros then.
struct PublishedTensor {
  std::string type = "F32";
  std::vector<uint64_t> shape;  // outermost extent first
  Bytes data;

  uint64_t bytes() const;
};

using PublishedTensors = std::map<std::string, PublishedTensor>;

// A header as it is given, and what follows it.
Bytes safetensorsBytes(std::string_view header, const Bytes& data = {});
// A file of these tensors, in name order. Zeros at its end take no room on the disk.
void writeSafetensors(const std::string& path, const PublishedTensors& tensors);

// ---- A checkpoint of the supported architecture, by default all zeros ----

struct CheckpointOptions {
  uint64_t width = 8;
  uint64_t feedForward = 12;
  uint64_t vocabulary = 300;
  std::string type = "F32";
  std::string prefix = "model.language_model.";
  // The other sizes; its widths and vocabulary do not count.
  kiv::Architecture shape = {};
};

// The files of a checkpoint's folder; change what a test wants changed, then write.
class CheckpointBuilder {
 public:
  explicit CheckpointBuilder(const CheckpointOptions& options = {});

  // Parsed JSON of config.json, tokenizer.json and tokenizer_config.json; a null
  // one is not written.
  nlohmann::json& config() { return config_; }
  nlohmann::json& tokenizer() { return tokenizer_; }
  nlohmann::json& tokenizerConfig() { return tokenizerConfig_; }
  nlohmann::json& generationConfig() { return generationConfig_; }
  PublishedTensors& tensors() { return tensors_; }
  // By the name without prefix.
  PublishedTensor& tensor(const std::string& name) { return tensors_.at(prefix_ + name); }
  std::string named(const std::string& name) const { return prefix_ + name; }

  // Into an existing folder, with the tensors dealt out to `shards` files.
  void write(const std::string& folder, size_t shards = 1) const;

 private:
  std::string prefix_;
  nlohmann::json config_;
  nlohmann::json tokenizer_;
  nlohmann::json tokenizerConfig_;
  nlohmann::json generationConfig_;
  PublishedTensors tensors_;
};

// config.json of the supported architecture, values under "text_config".
nlohmann::json wrappedConfig(const CheckpointOptions& options);

// A byte-level tokenizer.json: the 256 bytes as ids 0 to 255, some merges, and
// "<|endoftext|>", "<|im_start|>", "<|im_end|>" and "<think>" from 270 on.
nlohmann::json byteLevelTokenizer();

// The same with what an exact reading needs: NFC, a pattern, and both sides of each merge.
nlohmann::json completeTokenizer();

// How byte-level vocabularies spell a byte.
std::string spelledByte(uint8_t byte);
std::string spelled(std::string_view bytes);

// ---- GGUF ----

// Type codes of GGUF values and tensors, stated a second time.
namespace gguf {
inline constexpr uint32_t u8 = 0, i8 = 1, u16 = 2, i16 = 3, u32 = 4, i32 = 5, f32 = 6, boolean = 7,
                          text = 8, array = 9, u64 = 10, i64 = 11, f64 = 12;
inline constexpr uint32_t kF32 = 0, kF16 = 1, kQ4_0 = 2, kQ8_0 = 8, kQ4_K = 12, kQ5_K = 13,
                          kQ6_K = 14, kBF16 = 30;
}  // namespace gguf

class GgufBuilder {
 public:
  GgufBuilder& version(uint32_t value);
  GgufBuilder& alignment(uint32_t value);  // states it, too

  GgufBuilder& addU32(const std::string& key, uint32_t value);
  GgufBuilder& addF32(const std::string& key, float value);
  GgufBuilder& addBool(const std::string& key, bool value);
  GgufBuilder& addText(const std::string& key, const std::string& value);
  GgufBuilder& addTexts(const std::string& key, const std::vector<std::string>& values);
  GgufBuilder& addI32s(const std::string& key, const std::vector<int32_t>& values);
  // The value's bytes as they are given.
  GgufBuilder& addRaw(const std::string& key, uint32_t type, const Bytes& value);
  void erase(const std::string& key);

  // `shape` has the innermost extent first.
  GgufBuilder& addTensor(const std::string& name, uint32_t type, std::vector<uint64_t> shape,
                         Bytes data);

  struct Tensor {
    std::string name;
    uint32_t type;
    std::vector<uint64_t> shape;
    Bytes data;
    uint64_t offset = ~uint64_t{0};  // chosen by build() where it is all ones
  };
  std::vector<Tensor>& tensors() { return tensors_; }

  Bytes build() const;

 private:
  struct Value {
    std::string key;
    uint32_t type;
    Bytes bytes;
  };
  uint32_t version_ = 3;
  uint32_t alignment_ = 32;
  std::vector<Value> values_;
  std::vector<Tensor> tensors_;
};

// Metadata and tokenizer of the supported architecture; no tensors.
GgufBuilder supportedGguf(uint64_t width, uint64_t feedForward,
                          const kiv::Architecture& shape = {});

}  // namespace zemtest
