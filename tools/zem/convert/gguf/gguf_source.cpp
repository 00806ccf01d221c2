// SPDX-License-Identifier: Apache-2.0
#include "convert/gguf/gguf_source.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "compat/files.h"
#include "console/terminal.h"
#include "convert/gguf/gguf_tokenizer.h"
#include "convert/tensor_plan.h"
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
    checkShape();
    source_.format = "GGUF";
    source_.files = {compat::nameOf(compat::pathOf(path_).filename())};
    readFacts();
    for (const kiv::GgufTensor& tensor : gguf_->tensors()) place(tensor);
    checkHead();
    const kiv::Architecture found = architectureOf(source_);
    checkWhole("embedding_length", found.width);
    checkWhole("feed_forward_length", found.feedForward);
    source_.tokenizer = readGgufTokenizer(*gguf_, found.vocabulary);
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

  void checkShape() {
    checkLayers();
    checkHeads("attention.head_count", needed_.heads);
    checkHeads("attention.head_count_kv", needed_.kvHeads);
    checkWhole("attention.key_length", needed_.headSize);
    checkWhole("attention.value_length", needed_.headSize);
    checkWhole("rope.dimension_count", needed_.rotarySize);
    checkSections();
    checkWhole("ssm.conv_kernel", needed_.taps);
    checkWhole("ssm.state_size", needed_.stateSize);
    checkWhole("ssm.group_count", needed_.keyHeads);
    checkWhole("ssm.time_step_rank", needed_.valueHeads);
    checkWhole("ssm.inner_size", needed_.valueRows());
    checkWhole("full_attention_interval", needed_.fullEvery);
    checkWhole("expert_count", 0);
    checkNumber("rope.freq_base", needed_.rotaryBase);
    checkNumber("attention.layer_norm_rms_epsilon", needed_.normEpsilon);
  }

  [[noreturn]] void failKey(const std::string& key, const std::string& found,
                            const std::string& needed) const {
    fail(std::string(kArchitecture) + "." + key + " is " + found + ", needs " + needed);
  }

  void checkWhole(const std::string& key, uint64_t needed) const {
    const kiv::GgufValue* value = find(key);
    if (value == nullptr) return;
    uint64_t found = 0;
    if (!value->getUint(found)) failKey(key, "not a whole number", std::to_string(needed));
    if (found != needed) failKey(key, std::to_string(found), std::to_string(needed));
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

  // A prediction layer counts as a block, whether or not its tensors are there.
  void checkLayers() {
    const kiv::GgufValue* count = find("block_count");
    uint64_t blocks = 0;
    if (count == nullptr || !count->getUint(blocks)) {
      fail("has no qwen35.block_count, needs " + std::to_string(needed_.layers));
    }
    uint64_t predicting = blocks > needed_.layers ? 1 : 0;
    if (const auto* stated = find("nextn_predict_layers")) (void)stated->getUint(predicting);
    if (predicting > 1 || blocks != needed_.layers + predicting) {
      failKey("block_count", std::to_string(blocks),
              std::to_string(needed_.layers) + ", or " + std::to_string(needed_.layers + 1) +
                  " with one prediction layer");
    }
    predictionPrefix_ = "blk." + std::to_string(needed_.layers) + ".";
  }

  // One number, or one a layer, of which those with linear attention do not count.
  void checkHeads(const std::string& key, uint64_t needed) const {
    const kiv::GgufValue* value = find(key);
    if (value == nullptr) return;
    if (value->count > 1024)
      failKey(key, "a list of " + std::to_string(value->count), "one a layer");
    std::vector<uint64_t> counts;
    if (!value->getUints(counts)) failKey(key, "not of whole numbers", std::to_string(needed));
    if (value->array && counts.size() < needed_.layers) {
      failKey(key, "a list of " + std::to_string(counts.size()), "one a layer");
    }
    for (size_t i = 0; i < counts.size(); ++i) {
      const bool counted =
          !value->array || (i < needed_.layers && needed_.isFull(static_cast<uint32_t>(i)));
      if (!counted || counts[i] == needed) continue;
      const std::string where = value->array ? "[" + std::to_string(i) + "]" : "";
      failKey(key + where, std::to_string(counts[i]), std::to_string(needed));
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
    } else if (name.starts_with(predictionPrefix_)) {
      ++source_.leftOut.prediction;
    } else if (name == kiv::tensorName(TensorRole::OutputHead)) {
      head_ = &tensor;
    } else if (isExpert(name)) {
      fail("tensor '" + cut(name) +
           "' belongs to a mixture of experts; needs one feed-forward block a layer");
    } else {
      const std::string stored = storedName(name);
      if (known_.count(stored) == 0) {
        source_.leftOut.others.push_back(name);
      } else if (!source_.tensors.emplace(stored, sourceTensor(tensor)).second) {
        fail("tensors '" + stored + "' and '" + name + "' are the same one");
      }
    }
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
  void checkHead() {
    const auto found = source_.tensors.find(kiv::tensorName(TensorRole::Embedding));
    if (head_ == nullptr || found == source_.tensors.end()) return;
    const SourceTensor& table = found->second;
    if (head_->type != table.type || head_->bytes != table.bytes || head_->bytes == 0 ||
        std::memcmp(head_->data, table.data, head_->bytes) != 0) {
      fail(
          "tensor 'output.weight' differs from 'token_embd.weight'; needs an output head that "
          "is tied to the embedding");
    }
    table.file->release(head_->data, head_->bytes);
    ++source_.leftOut.repeated;
  }

  static std::set<std::string> knownNames() {
    std::set<std::string> names;
    for (const kiv::ArchitectureTensor& tensor : kiv::tensorsOf({})) names.insert(tensor.name);
    return names;
  }

  const kiv::Architecture needed_;
  std::string path_;
  std::shared_ptr<kiv::GgufFile> gguf_;
  const std::set<std::string> known_ = knownNames();
  std::string predictionPrefix_;
  const kiv::GgufTensor* head_ = nullptr;
  ModelSource source_;
};

}  // namespace

ModelSource openGguf(const std::string& path) { return GgufReader(path).read(); }

}  // namespace zemtool
