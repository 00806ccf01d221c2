// SPDX-License-Identifier: Apache-2.0
#include "convert/gguf/gguf_source.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "compat/files.h"
#include "console/terminal.h"
#include "convert/checkpoint_layout.h"
#include "convert/gguf/gguf_tokenizer.h"
#include "convert/model_sizes.h"
#include "kiv/container/gguf.h"

namespace zemtool {
namespace {

using kiv::TensorRole;

constexpr std::string_view kArchitecture = kiv::kArchitectureName;

std::string cut(std::string_view text) {
  return std::string(text.substr(0, 80)) + (text.size() > 80 ? "..." : "");
}

class GgufReader {
 public:
  explicit GgufReader(const std::string& path)
      : path_(path), gguf_(std::make_shared<kiv::GgufFile>()) {}

  ModelSource read() {
    if (const kiv::Status s = gguf_->open(path_); !s.ok()) throw Failure(s.message());
    checkArchitecture();
    readSizes();
    checkFixed();
    source_.format = "GGUF";
    source_.files = {compat::nameOf(compat::pathOf(path_).filename())};
    readFacts();
    for (const kiv::GgufTensor& tensor : gguf_->tensors()) place(tensor);
    checkPrediction();
    placeHead();
    source_.architecture = settleSizes(source_, sizes_);
    checkDerived();
    source_.tokenizer = readGgufTokenizer(*gguf_, source_.architecture.vocabulary);
    source_.owners.push_back(gguf_);
    return std::move(source_);
  }

 private:
  [[noreturn]] void fail(const std::string& problem) const {
    throw Failure(path_ + ": " + problem);
  }

  const kiv::GgufValue* find(const std::string& key) const {
    return gguf_->find(std::string(kArchitecture) + "." + key);
  }

  void checkArchitecture() const {
    std::string_view architecture;
    const auto* value = gguf_->find("general.architecture");
    if (value == nullptr || !value->getText(architecture)) {
      fail("has no general.architecture, needs \"qwen35\"");
    }
    if (architecture != kArchitecture) {
      fail("general.architecture is \"" + cut(architecture) + "\", needs \"qwen35\"" +
           (architecture == "qwen35moe" ? ": not a mixture of experts" : ""));
    }
    uint64_t parts = 0;
    const auto* split = gguf_->find("split.count");
    if (split != nullptr && split->getUint(parts) && parts > 1) {
      fail("is one of " + std::to_string(parts) + " parts (split.count); join them first");
    }
  }

  void readSizes() {
    const auto read = [&](Size size, const std::string& key) {
      sizes_.key(size) = std::string(kArchitecture) + "." + key;
      sizes_.value(size) = whole(key);
    };
    sizes_.path = path_;
    sizes_.key(Size::Layers) = std::string(kArchitecture) + ".block_count";
    readLayers();
    read(Size::FullEvery, "full_attention_interval");
    read(Size::Width, "embedding_length");
    read(Size::FeedForward, "feed_forward_length");
    read(Size::HeadSize, "attention.key_length");
    read(Size::RotarySize, "rope.dimension_count");
    read(Size::StateSize, "ssm.state_size");
    read(Size::KeyHeads, "ssm.group_count");
    read(Size::ValueHeads, "ssm.time_step_rank");
    readHeads(Size::Heads, "attention.head_count");
    readHeads(Size::KvHeads, "attention.head_count_kv");
  }

  void checkFixed() const {
    checkSections();
    checkWhole("ssm.conv_kernel", source_.architecture.taps);
    checkWhole("expert_count", 0);
    checkNumber("rope.freq_base", source_.architecture.rotaryBase);
    checkNumber("attention.layer_norm_rms_epsilon", source_.architecture.normEpsilon);
  }

  // What other sizes decide.
  void checkDerived() const {
    checkWhole("attention.value_length", source_.architecture.headSize);
    checkWhole("ssm.inner_size", source_.architecture.valueRows());
  }

  [[noreturn]] void failKey(const std::string& key, const std::string& found,
                            const std::string& needed) const {
    fail(std::string(kArchitecture) + "." + key + " is " + found + ", needs " + needed);
  }

  std::optional<uint64_t> whole(const std::string& key) const {
    const kiv::GgufValue* value = find(key);
    if (value == nullptr) return {};
    uint64_t found = 0;
    if (!value->getUint(found)) failKey(key, "not a whole number", "one");
    return found;
  }

  void checkWhole(const std::string& key, uint64_t needed) const {
    const std::optional<uint64_t> found = whole(key);
    if (found && *found != needed) failKey(key, std::to_string(*found), std::to_string(needed));
  }

  void checkNumber(const std::string& key, double needed) const {
    const kiv::GgufValue* value = find(key);
    if (value == nullptr) return;
    double found = 0;
    const bool number = value->getFloat(found);
    if (number && std::fabs(found - needed) <= 1e-6 * needed) return;
    failKey(key, number ? formatShort(found) : "not a number", formatShort(needed));
  }

  static std::string formatShort(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.6g", value);
    return text.data();
  }

  // Prediction layers count as blocks, whether or not their tensors are there. They come last.
  void readLayers() {
    const std::optional<uint64_t> blocks = whole("block_count");
    if (!blocks) fail("has no " + sizes_.key(Size::Layers));
    if (*blocks < 1 || *blocks > kMaxLayers) {
      failKey("block_count", std::to_string(*blocks), "1 to " + std::to_string(kMaxLayers));
    }
    blocks_ = *blocks;
    const uint64_t predicting = whole("nextn_predict_layers").value_or(lastBlockPredicts() ? 1 : 0);
    if (predicting >= blocks_) {
      failKey("nextn_predict_layers", std::to_string(predicting),
              "fewer than the " + std::to_string(blocks_) + " blocks");
    }
    layers_ = blocks_ - predicting;
    sizes_.value(Size::Layers) = layers_;
  }

  bool lastBlockPredicts() const {
    const std::string prefix = "blk." + std::to_string(blocks_ - 1) + ".nextn.";
    const std::vector<kiv::GgufTensor>& tensors = gguf_->tensors();
    return std::any_of(tensors.begin(), tensors.end(),
                       [&](const auto& tensor) { return tensor.name.starts_with(prefix); });
  }

  // One number, or one a layer, of which those with linear attention do not count.
  void readHeads(Size size, const std::string& key) {
    sizes_.key(size) = std::string(kArchitecture) + "." + key;
    const kiv::GgufValue* value = find(key);
    if (value == nullptr) return;
    if (value->count > kMaxLayers) {
      failKey(key, "a list of " + std::to_string(value->count), "one a layer");
    }
    std::vector<uint64_t> counts;
    if (!value->getUints(counts)) failKey(key, "not of whole numbers", "whole numbers");
    if (!value->array) {
      sizes_.value(size) = counts.front();
      return;
    }
    if (counts.size() < layers_) {
      failKey(key, "a list of " + std::to_string(counts.size()), "one a layer");
    }
    const uint64_t interval =
        sizes_.value(Size::FullEvery).value_or(source_.architecture.fullEvery);
    for (uint64_t i = 0; i < layers_ && interval != 0; ++i) {
      if (i % interval != interval - 1) continue;
      const uint64_t needed = sizes_.value(size).value_or(counts[i]);
      if (counts[i] != needed) {
        failKey(key + "[" + std::to_string(i) + "]", std::to_string(counts[i]),
                std::to_string(needed));
      }
      sizes_.value(size) = needed;
    }
  }

  // Text has one position for all sections, so their sizes do not matter.
  void checkSections() const {
    const std::string key = "rope.dimension_sections";
    const kiv::GgufValue* value = find(key);
    if (value == nullptr || (value->array && (value->count == 3 || value->count == 4))) return;
    failKey(key, "a list of " + std::to_string(value->count), "three or four sections");
  }

  void readFacts() {
    std::string_view name;
    const auto* stated = gguf_->find("general.name");
    if (stated == nullptr || !stated->getText(name) || name.empty()) {
      source_.name = compat::nameOf(compat::pathOf(path_).stem());
    } else {
      source_.name = name;
    }
    uint64_t context = 0;
    if (const auto* value = find("context_length")) (void)value->getUint(context);
    constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();
    source_.contextLength = static_cast<uint32_t>(std::min(context, kMax));
    source_.sampling.temperature = number("general.sampling.temp");
    source_.sampling.topP = number("general.sampling.top_p");
    uint64_t topK = 0;
    const auto* k = gguf_->find("general.sampling.top_k");
    if (k != nullptr && k->getUint(topK)) {
      source_.sampling.topK = static_cast<uint32_t>(std::min(topK, kMax));
    }
    addStop("tokenizer.ggml.eos_token_id");
    addStop("tokenizer.ggml.eot_token_id");
  }

  std::optional<float> number(const char* key) const {
    double found = 0;
    const auto* value = gguf_->find(key);
    if (value == nullptr || !value->getFloat(found) || !std::isfinite(found) || found < 0)
      return {};
    return static_cast<float>(found);
  }

  void addStop(const char* key) {
    uint64_t id = 0;
    const auto* value = gguf_->find(key);
    if (value == nullptr || !value->getUint(id) || id > std::numeric_limits<int32_t>::max()) return;
    std::vector<uint32_t>& stop = source_.sampling.stopIds;
    const auto token = static_cast<uint32_t>(id);
    if (std::find(stop.begin(), stop.end(), token) == stop.end()) stop.push_back(token);
  }

  void place(const kiv::GgufTensor& tensor) {
    std::string name(tensor.name);
    if (name.starts_with("v.") || name.starts_with("mm.")) {
      ++source_.leftOut.vision;
    } else if (isOfPrediction(name)) {
      ++source_.leftOut.prediction;
      predicts_ = predicts_ || name.find(".nextn.") != std::string::npos;
    } else if (name == kiv::tensorName(TensorRole::OutputHead)) {
      head_ = &tensor;
    } else if (isExpert(name)) {
      fail("tensor '" + cut(name) +
           "' belongs to a mixture of experts; needs one feed-forward block a layer");
    } else {
      const std::string stored = storedName(name);
      if (!names_.find(stored)) {
        source_.leftOut.others.push_back(name);
      } else if (!source_.tensors.emplace(stored, sourceTensor(tensor)).second) {
        fail("tensors '" + stored + "' and '" + name + "' are the same one");
      }
    }
  }

  bool isOfPrediction(std::string_view name) const {
    constexpr std::string_view kPrefix = "blk.";
    if (!name.starts_with(kPrefix)) return false;
    name.remove_prefix(kPrefix.size());
    uint64_t block = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), block);
    return error == std::errc() && block >= layers_ && block < blocks_;
  }

  // A block of the model that is counted as a prediction layer would be lost.
  void checkPrediction() const {
    if (source_.leftOut.prediction == 0 || predicts_) return;
    failKey("nextn_predict_layers", std::to_string(blocks_ - layers_),
            "0, for block " + std::to_string(layers_) + " has no tensors of a prediction layer");
  }

  static bool isExpert(const std::string& name) {
    return name.find("_exps.") != std::string::npos || name.find("_shexp.") != std::string::npos;
  }

  // Published with and without an ending.
  static std::string storedName(const std::string& name) {
    return name.ends_with(".ssm_dt") ? name + ".bias" : name;
  }

  SourceTensor sourceTensor(const kiv::GgufTensor& tensor) const {
    SourceTensor source;
    source.name = tensor.name;
    source.type = tensor.type;
    source.typeName = kiv::ggufTypeName(tensor.type);
    if (kiv::ggufBlockSize(tensor.type) == 0) {
      source.typeName = "number " + std::to_string(static_cast<uint32_t>(tensor.type));
    }
    source.shape = tensor.shape;
    source.data = tensor.data;
    source.bytes = tensor.bytes;
    source.file = &gguf_->file();
    return source;
  }

  // Some files store a tied head all the same.
  void placeHead() {
    if (head_ == nullptr) return;
    const auto found = source_.tensors.find(kiv::tensorName(TensorRole::Embedding));
    if (found == source_.tensors.end()) return;
    const SourceTensor& table = found->second;
    if (head_->type == table.type && head_->bytes == table.bytes && head_->bytes != 0 &&
        std::memcmp(head_->data, table.data, head_->bytes) == 0) {
      table.file->release(head_->data, head_->bytes);
      ++source_.leftOut.repeated;
      return;
    }
    source_.tensors.emplace(kiv::tensorName(TensorRole::OutputHead), sourceTensor(*head_));
  }

  std::string path_;
  std::shared_ptr<kiv::GgufFile> gguf_;
  const TensorNames names_{kiv::tensorName};
  StatedSizes sizes_;
  uint64_t blocks_ = 0;  // with prediction layers
  uint64_t layers_ = 0;
  bool predicts_ = false;  // a prediction layer has the tensors of one
  const kiv::GgufTensor* head_ = nullptr;
  ModelSource source_;
};

}  // namespace

ModelSource openGguf(const std::string& path) { return GgufReader(path).read(); }

}  // namespace zemtool
