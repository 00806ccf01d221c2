// SPDX-License-Identifier: Apache-2.0
#include "convert/checkpoint_config.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "console/terminal.h"
#include "kiv/model/architecture.h"

namespace zemtool {
namespace {

constexpr uint64_t kMaxConfigBytes = uint64_t{1} << 20;
constexpr size_t kShownBytes = 80;

// A value for a message, cut: it may be anything.
std::string shown(const json& value) {
  const std::string text = value.is_structured()
                               ? (value.is_array() ? "a list" : "an object")
                               : value.dump(-1, ' ', true, json::error_handler_t::replace);
  return text.size() > kShownBytes ? text.substr(0, kShownBytes) + "..." : text;
}

class ConfigReader {
 public:
  ConfigReader(const json& root, const std::string& path) : root_(root), text_(root), path_(path) {
    if (const json* text = member(root, "text_config")) {
      text_ = *text;
      prefix_ = "text_config.";
    }
  }

  CheckpointConfig read() {
    checkModelType();
    checkWhole("linear_conv_kernel_dim", needed_.taps);
    checkWhole("num_experts", 0);
    checkText("hidden_act", "silu");
    checkNumber(text_, prefix_, "rms_norm_eps", needed_.normEpsilon);
    checkRotary();
    checkTrue("attn_output_gate");
    checkUnpacked();
    readSizes();
    readTied();
    readFacts();
    return std::move(config_);
  }

 private:
  [[noreturn]] void fail(const std::string& key, const json& found, const std::string& needed,
                         const std::string& prefix) const {
    throw Failure(path_ + ": " + prefix + key + " is " + shown(found) + ", needs " + needed);
  }
  [[noreturn]] void fail(const std::string& key, const json& found,
                         const std::string& needed) const {
    fail(key, found, needed, prefix_);
  }

  // Wrappers state both; the inner one may be left out.
  void checkModelType() const {
    const std::string needed = "\"qwen3_5\" or \"qwen3_5_text\"";
    const json* outer = member(root_, "model_type");
    const json* inner = prefix_.empty() ? nullptr : member(text_, "model_type");
    if (outer == nullptr && inner == nullptr) {
      throw Failure(path_ + ": has no model_type, needs " + needed);
    }
    if (outer != nullptr) checkFamily(*outer, "", needed);
    if (inner != nullptr) checkFamily(*inner, prefix_, needed);
  }

  void checkFamily(const json& type, const std::string& prefix, const std::string& needed) const {
    if (type == "qwen3_5" || type == "qwen3_5_text") return;
    const bool experts =
        type.is_string() && type.get_ref<const std::string&>().find("moe") != std::string::npos;
    fail("model_type", type, needed + (experts ? ": not a mixture of experts" : ""), prefix);
  }

  void checkWhole(const char* key, uint64_t needed) const {
    const json* value = member(text_, key);
    if (value != nullptr && *value != needed) fail(key, *value, std::to_string(needed));
  }

  void checkText(const char* key, const std::string& needed) const {
    const json* value = member(text_, key);
    if (value != nullptr && *value != needed) fail(key, *value, "\"" + needed + "\"");
  }

  void checkTrue(const char* key) const {
    const json* value = member(text_, key);
    if (value != nullptr && *value != true) fail(key, *value, "true");
  }

  void checkNumber(const json& object, const std::string& prefix, const char* key,
                   double needed) const {
    const json* value = member(object, key);
    if (value == nullptr) return;
    if (value->is_number() && std::fabs(value->get<double>() - needed) <= 1e-6 * needed) return;
    fail(key, *value, shown(needed), prefix);
  }

  // In a block of their own, under its older name, or among the other values.
  void checkRotary() {
    for (const char* name : {"rope_parameters", "rope_scaling"}) {
      if (const json* block = member(text_, name)) {
        checkRotaryValues(*block, prefix_ + name + ".");
        for (const char* key : {"rope_type", "type"}) {
          const json* type = member(*block, key);
          if (type != nullptr && *type != "default" && *type != "mrope") {
            fail(key, *type, "\"default\"", prefix_ + name + ".");
          }
        }
      }
    }
    checkRotaryValues(text_, prefix_);
  }

  void checkRotaryValues(const json& object, const std::string& prefix) {
    checkNumber(object, prefix, "rope_theta", needed_.rotaryBase);
    readRotaryPart(object, prefix);
  }

  void readRotaryPart(const json& object, const std::string& prefix) {
    const json* part = member(object, "partial_rotary_factor");
    if (part == nullptr) return;
    StatedSizes& sizes = config_.sizes;
    if (!part->is_number()) fail("partial_rotary_factor", *part, "a number", prefix);
    if (sizes.rotaryPart && *sizes.rotaryPart != part->get<double>()) {
      fail("partial_rotary_factor", *part,
           shown(*sizes.rotaryPart) + ", as " + sizes.key(Size::RotarySize) + " is", prefix);
    }
    sizes.rotaryPart = part->get<double>();
    sizes.key(Size::RotarySize) = prefix + "partial_rotary_factor";
  }

  void readSizes() {
    const auto read = [&](Size size, const char* key) {
      config_.sizes.key(size) = prefix_ + key;
      config_.sizes.value(size) = whole(key);
    };
    config_.sizes.path = path_;
    read(Size::Width, "hidden_size");
    read(Size::FeedForward, "intermediate_size");
    read(Size::Vocabulary, "vocab_size");
    read(Size::Layers, "num_hidden_layers");
    read(Size::FullEvery, "full_attention_interval");
    read(Size::Heads, "num_attention_heads");
    read(Size::KvHeads, "num_key_value_heads");
    read(Size::HeadSize, "head_dim");
    read(Size::KeyHeads, "linear_num_key_heads");
    read(Size::ValueHeads, "linear_num_value_heads");
    read(Size::StateSize, "linear_key_head_dim");
    readValueSize();
    readLayerTypes();
  }

  void readValueSize() {
    const std::optional<uint64_t> size = whole("linear_value_head_dim");
    std::optional<uint64_t>& known = config_.sizes.value(Size::StateSize);
    if (!size) return;
    if (known && *size != *known) {
      fail("linear_value_head_dim", *size,
           std::to_string(*known) + ", as " + config_.sizes.key(Size::StateSize) + " is");
    }
    known = size;
  }

  // Given as a list of names, by the interval, or by both.
  void readLayerTypes() {
    const json* types = member(text_, "layer_types");
    if (types == nullptr) return;
    std::optional<uint64_t>& layers = config_.sizes.value(Size::Layers);
    if (!types->is_array() || types->empty() || (layers && types->size() != *layers)) {
      fail("layer_types", *types,
           layers ? "a list of " + std::to_string(*layers) : "a list of the layers' types");
    }
    layers = types->size();
    std::optional<uint64_t>& interval = config_.sizes.value(Size::FullEvery);
    if (!interval) {
      const auto full = std::find(types->begin(), types->end(), "full_attention");
      interval = static_cast<uint64_t>(full - types->begin()) + 1;
    }
    if (*interval == 0) fail("full_attention_interval", *interval, "1 or more");
    for (size_t i = 0; i < types->size(); ++i) {
      const bool full = i % *interval == *interval - 1;
      const char* needed = full ? "full_attention" : "linear_attention";
      if ((*types)[i] != needed) {
        fail("layer_types[" + std::to_string(i) + "]", (*types)[i],
             "\"" + std::string(needed) + "\" by an interval of " + std::to_string(*interval));
      }
    }
  }

  void readTied() {
    const json* inner = member(text_, "tie_word_embeddings");
    const json* outer = member(root_, "tie_word_embeddings");
    const bool isInner = inner != nullptr && (outer == nullptr || *outer != true);
    const json* tied = isInner ? inner : outer;
    if (tied == nullptr) return;
    const std::string prefix = isInner ? prefix_ : "";
    if (!tied->is_boolean()) fail("tie_word_embeddings", *tied, "true or false", prefix);
    config_.tied = tied->get<bool>();
    config_.tiedKey = path_ + ": " + prefix + "tie_word_embeddings";
  }

  void checkUnpacked() const {
    for (const json* object : {&root_, &text_}) {
      const json* packed = member(*object, "quantization_config");
      if (packed == nullptr) continue;
      const json* method = member(*packed, "quant_method");
      throw Failure(path_ + ": has quantization_config" +
                    (method == nullptr ? std::string() : " (" + shown(*method) + ")") +
                    ", needs weights that are F32, BF16 or F16");
    }
  }

  std::optional<uint64_t> whole(const char* key) const {
    const json* value = member(text_, key);
    if (value == nullptr) return {};
    if (!value->is_number_unsigned()) fail(key, *value, "a whole number");
    return value->get<uint64_t>();
  }

  void readFacts() {
    const uint64_t context = whole("max_position_embeddings").value_or(0);
    config_.contextLength =
        static_cast<uint32_t>(std::min<uint64_t>(context, std::numeric_limits<uint32_t>::max()));
    config_.eosId = tokenIdOf(member(text_, "eos_token_id"));
    if (config_.eosId < 0) config_.eosId = tokenIdOf(member(root_, "eos_token_id"));
  }

  const kiv::Architecture needed_;
  const json& root_;
  json text_;  // the object with the values
  std::string path_;
  std::string prefix_;  // in front of their keys
  CheckpointConfig config_;
};

std::optional<float> number(const json& object, const char* key) {
  const json* value = member(object, key);
  if (value == nullptr || !value->is_number()) return {};
  const auto result = value->get<float>();
  return std::isfinite(result) && result >= 0 ? std::optional(result) : std::nullopt;
}

}  // namespace

CheckpointConfig readCheckpointConfig(const std::string& folder) {
  const std::string path = folder + "/config.json";
  std::string text;
  if (!readFileIfAny(path, kMaxConfigBytes, text)) {
    throw Failure(folder + ": has no config.json; is it the folder of a checkpoint?");
  }
  const json root = parseJson(text, path);
  return ConfigReader(root, path).read();
}

Sampling readSampling(const std::string& folder) {
  const std::string path = folder + "/generation_config.json";
  std::string text;
  Sampling sampling;
  if (!readFileIfAny(path, kMaxConfigBytes, text)) return sampling;
  const json root = parseJson(text, path);
  sampling.temperature = number(root, "temperature");
  sampling.topP = number(root, "top_p");
  sampling.presencePenalty = number(root, "presence_penalty");
  if (const auto topK = number(root, "top_k")) {
    sampling.topK = static_cast<uint32_t>(std::min(*topK, 1e9F));
  }
  const json* stop = member(root, "eos_token_id");
  if (stop == nullptr) return sampling;
  const json list = stop->is_array() ? *stop : json::array({*stop});
  for (const json& id : list) {
    if (tokenIdOf(&id) >= 0) sampling.stopIds.push_back(static_cast<uint32_t>(tokenIdOf(&id)));
  }
  return sampling;
}

int32_t tokenIdOf(const json* value) {
  if (value == nullptr) return -1;
  if (value->is_array()) return value->empty() ? -1 : tokenIdOf(&value->front());
  if (!value->is_number_unsigned()) return -1;
  const auto id = value->get<uint64_t>();
  return id <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max()) ? static_cast<int32_t>(id)
                                                                          : -1;
}

}  // namespace zemtool
