// SPDX-License-Identifier: Apache-2.0
#include "support/published_model.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace zemtest {
namespace {

using nlohmann::json;

// How vocabularies of the supported architecture cut text.
constexpr const char* kPattern =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?[\p{L}\p{M}]+|\p{N}| ?[^\s\p{L}\p{M}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";

uint64_t elementBytes(const std::string& type) {
  if (type == "F32" || type == "I32") return 4;
  if (type == "BF16" || type == "F16") return 2;
  if (type == "F8_E4M3" || type == "U8") return 1;
  throw std::invalid_argument("no such element type: " + type);
}

void writeText(const std::string& path, const json& value) {
  if (!value.is_null()) std::ofstream(path, std::ios::binary) << value.dump();
}

std::string shardName(size_t shard, size_t shards) {
  if (shards == 1) return "model.safetensors";
  const auto five = [](size_t n) {
    const std::string digits = std::to_string(n);
    return std::string(5 - digits.size(), '0') + digits;
  };
  return "model-" + five(shard + 1) + "-of-" + five(shards) + ".safetensors";
}

// Counts up through the vocabulary of `layers.N.` tensors.
class ZeroCheckpoint {
 public:
  ZeroCheckpoint(const CheckpointOptions& options, PublishedTensors& tensors)
      : options_(options), tensors_(tensors) {}

  void fill() {
    const uint64_t width = options_.width;
    add("embed_tokens.weight", {options_.vocabulary, width});
    add("norm.weight", {width});
    if (shape_.ownHead) {
      tensors_["lm_head.weight"] = {options_.type, {options_.vocabulary, width}, {}};
    }
    for (uint32_t i = 0; i < shape_.layers; ++i) {
      prefix_ = "layers." + std::to_string(i) + ".";
      add("input_layernorm.weight", {width});
      add("post_attention_layernorm.weight", {width});
      add("mlp.gate_proj.weight", {options_.feedForward, width});
      add("mlp.up_proj.weight", {options_.feedForward, width});
      add("mlp.down_proj.weight", {width, options_.feedForward});
      if (shape_.isFull(i)) {
        addFull();
      } else {
        addLinear();
      }
    }
  }

 private:
  void add(const std::string& name, std::vector<uint64_t> shape) {
    tensors_[options_.prefix + prefix_ + name] = {options_.type, std::move(shape), {}};
  }

  void addFull() {
    const uint64_t width = options_.width;
    const uint64_t rows = shape_.heads * shape_.headSize;
    const uint64_t kvRows = shape_.kvHeads * shape_.headSize;
    add("self_attn.q_proj.weight", {2 * rows, width});
    add("self_attn.k_proj.weight", {kvRows, width});
    add("self_attn.v_proj.weight", {kvRows, width});
    add("self_attn.o_proj.weight", {width, rows});
    add("self_attn.q_norm.weight", {shape_.headSize});
    add("self_attn.k_norm.weight", {shape_.headSize});
  }

  void addLinear() {
    const uint64_t width = options_.width;
    const uint64_t heads = shape_.valueHeads;
    const uint64_t values = heads * shape_.stateSize;
    const uint64_t channels = 2 * shape_.keyHeads * shape_.stateSize + values;
    add("linear_attn.in_proj_qkv.weight", {channels, width});
    add("linear_attn.in_proj_z.weight", {values, width});
    add("linear_attn.in_proj_b.weight", {heads, width});
    add("linear_attn.in_proj_a.weight", {heads, width});
    add("linear_attn.dt_bias", {heads});
    add("linear_attn.A_log", {heads});
    add("linear_attn.conv1d.weight", {channels, 1, 4});
    add("linear_attn.norm.weight", {shape_.stateSize});
    add("linear_attn.out_proj.weight", {width, values});
  }

  const CheckpointOptions& options_;
  const kiv::Architecture& shape_ = options_.shape;
  PublishedTensors& tensors_;
  std::string prefix_;
};

void putText64(Bytes& out, std::string_view text) {
  putU64(out, text.size());
  putText(out, text);
}

}  // namespace

uint64_t PublishedTensor::bytes() const {
  uint64_t bytes = elementBytes(type);
  for (const uint64_t extent : shape) bytes *= extent;
  return bytes;
}

Bytes safetensorsBytes(std::string_view header, const Bytes& data) {
  Bytes out;
  putText64(out, header);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

void writeSafetensors(const std::string& path, const PublishedTensors& tensors) {
  json header = {{"__metadata__", {{"format", "pt"}}}};
  uint64_t end = 0;
  for (const auto& [name, tensor] : tensors) {
    header[name] = {{"dtype", tensor.type},
                    {"shape", tensor.shape},
                    {"data_offsets", {end, end + tensor.bytes()}}};
    end += tensor.bytes();
  }
  std::string text = header.dump();
  text.append((8 - text.size() % 8) % 8, ' ');
  const Bytes front = safetensorsBytes(text);
  {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(front.data()),
               static_cast<std::streamsize>(front.size()));
    uint64_t at = front.size();
    for (const auto& [name, tensor] : tensors) {
      if (!tensor.data.empty()) {
        file.seekp(static_cast<std::streamoff>(at));
        file.write(reinterpret_cast<const char*>(tensor.data.data()),
                   static_cast<std::streamsize>(tensor.data.size()));
      }
      at += tensor.bytes();
    }
  }
  std::filesystem::resize_file(path, front.size() + end);
}

CheckpointBuilder::CheckpointBuilder(const CheckpointOptions& options)
    : prefix_(options.prefix),
      config_(wrappedConfig(options)),
      tokenizer_(byteLevelTokenizer()),
      tokenizerConfig_({{"chat_template", "chatml"}, {"bos_token", nullptr}}) {
  ZeroCheckpoint(options, tensors_).fill();
}

void CheckpointBuilder::write(const std::string& folder, size_t shards) const {
  writeText(folder + "/config.json", config_);
  writeText(folder + "/tokenizer.json", tokenizer_);
  writeText(folder + "/tokenizer_config.json", tokenizerConfig_);
  writeText(folder + "/generation_config.json", generationConfig_);
  std::vector<PublishedTensors> files(shards);
  json map = json::object();
  size_t next = 0;
  for (const auto& [name, tensor] : tensors_) {
    const size_t shard = next++ % shards;
    files[shard].emplace(name, tensor);
    map[name] = shardName(shard, shards);
  }
  for (size_t i = 0; i < shards; ++i) {
    writeSafetensors(folder + "/" + shardName(i, shards), files[i]);
  }
  if (shards > 1) writeText(folder + "/model.safetensors.index.json", {{"weight_map", map}});
}

json wrappedConfig(const CheckpointOptions& options) {
  const kiv::Architecture& shape = options.shape;
  json layers = json::array();
  for (uint32_t i = 0; i < shape.layers; ++i) {
    layers.push_back(shape.isFull(i) ? "full_attention" : "linear_attention");
  }
  return {{"architectures", {"Qwen3_5ForConditionalGeneration"}},
          {"model_type", "qwen3_5"},
          {"tie_word_embeddings", !shape.ownHead},
          {"text_config",
           {{"model_type", "qwen3_5_text"},
            {"hidden_size", options.width},
            {"intermediate_size", options.feedForward},
            {"vocab_size", options.vocabulary},
            {"num_hidden_layers", shape.layers},
            {"num_attention_heads", shape.heads},
            {"num_key_value_heads", shape.kvHeads},
            {"head_dim", shape.headSize},
            {"linear_num_key_heads", shape.keyHeads},
            {"linear_num_value_heads", shape.valueHeads},
            {"linear_key_head_dim", shape.stateSize},
            {"linear_value_head_dim", shape.stateSize},
            {"linear_conv_kernel_dim", 4},
            {"full_attention_interval", shape.fullEvery},
            {"layer_types", layers},
            {"hidden_act", "silu"},
            {"attn_output_gate", true},
            {"max_position_embeddings", 262144},
            {"rms_norm_eps", 1e-6},
            {"rope_parameters",
             {{"rope_type", "default"},
              {"rope_theta", 10000000},
              {"partial_rotary_factor",
               static_cast<double>(shape.rotarySize) / static_cast<double>(shape.headSize)},
              {"mrope_section", {11, 11, 10}}}}}},
          {"vision_config", {{"depth", 24}}}};
}

json byteLevelTokenizer() {
  json vocab = json::object();
  for (unsigned byte = 0; byte < 256; ++byte) vocab[spelledByte(static_cast<uint8_t>(byte))] = byte;
  json merges = json::array();
  unsigned id = 256;
  const auto merge = [&](const std::string& left, const std::string& right) {
    merges.push_back(spelled(left) + " " + spelled(right));
    vocab[spelled(left + right)] = id++;
  };
  merge(" ", "t");
  merge("h", "e");
  merge(" t", "he");
  merge("\n", "\n");
  merge("\xC3", "\xA9");          // e with acute, from its two bytes
  merge("\xC3\xA9", "t");         // both sides are text
  merge("\xE4\xB8", "\xAD");      // a Chinese character, from parts of it
  merge(" ", "\xE4\xB8");         // no whole text
  merge("\xE4\xB8\xAD", "\xE5");  // likewise, on one side
  return {
      {"version", "1.0"},
      {"added_tokens",
       {{{"id", 270}, {"content", "<|endoftext|>"}, {"special", true}},
        {{"id", 271}, {"content", "<|im_start|>"}, {"special", true}},
        {{"id", 272}, {"content", "<|im_end|>"}, {"special", true}},
        {{"id", 273}, {"content", "<think>"}, {"special", false}}}},
      {"pre_tokenizer",
       {{"type", "Sequence"}, {"pretokenizers", {{{"type", "Split"}}, {{"type", "ByteLevel"}}}}}},
      {"decoder", {{"type", "ByteLevel"}}},
      {"model", {{"type", "BPE"}, {"vocab", vocab}, {"merges", merges}}}};
}

json completeTokenizer() {
  json tokenizer = byteLevelTokenizer();
  json& merges = tokenizer["model"]["merges"];
  while (merges.size() > 6) merges.erase(6);
  tokenizer["normalizer"] = {{"type", "NFC"}};
  tokenizer["pre_tokenizer"]["pretokenizers"] = {
      {{"type", "Split"}, {"pattern", {{"Regex", kPattern}}}, {"behavior", "Isolated"}},
      {{"type", "ByteLevel"}, {"add_prefix_space", false}, {"use_regex", false}}};
  return tokenizer;
}

std::string spelledByte(uint8_t byte) {
  const auto printable = [](unsigned b) {
    return (b >= '!' && b <= '~') || (b >= 0xA1 && b <= 0xAC) || (b >= 0xAE && b <= 0xFF);
  };
  unsigned number = byte;
  if (!printable(byte)) {
    number = 256;
    for (unsigned b = 0; b < byte; ++b) number += printable(b) ? 0 : 1;
  }
  if (number < 0x80) return std::string(1, static_cast<char>(number));
  return {static_cast<char>(0xC0 | number >> 6), static_cast<char>(0x80 | (number & 0x3F))};
}

std::string spelled(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) out += spelledByte(static_cast<uint8_t>(c));
  return out;
}

GgufBuilder& GgufBuilder::version(uint32_t value) {
  version_ = value;
  return *this;
}

GgufBuilder& GgufBuilder::alignment(uint32_t value) {
  alignment_ = value;
  return addU32("general.alignment", value);
}

GgufBuilder& GgufBuilder::addRaw(const std::string& key, uint32_t type, const Bytes& value) {
  values_.push_back({key, type, value});
  return *this;
}

GgufBuilder& GgufBuilder::addU32(const std::string& key, uint32_t value) {
  Bytes bytes;
  putU32(bytes, value);
  return addRaw(key, gguf::u32, bytes);
}

GgufBuilder& GgufBuilder::addF32(const std::string& key, float value) {
  Bytes bytes;
  putF32(bytes, value);
  return addRaw(key, gguf::f32, bytes);
}

GgufBuilder& GgufBuilder::addBool(const std::string& key, bool value) {
  return addRaw(key, gguf::boolean, {static_cast<uint8_t>(value ? 1 : 0)});
}

GgufBuilder& GgufBuilder::addText(const std::string& key, const std::string& value) {
  Bytes bytes;
  putText64(bytes, value);
  return addRaw(key, gguf::text, bytes);
}

GgufBuilder& GgufBuilder::addTexts(const std::string& key, const std::vector<std::string>& values) {
  Bytes bytes;
  putU32(bytes, gguf::text);
  putU64(bytes, values.size());
  for (const std::string& value : values) putText64(bytes, value);
  return addRaw(key, gguf::array, bytes);
}

GgufBuilder& GgufBuilder::addI32s(const std::string& key, const std::vector<int32_t>& values) {
  Bytes bytes;
  putU32(bytes, gguf::i32);
  putU64(bytes, values.size());
  for (const int32_t value : values) putI32(bytes, value);
  return addRaw(key, gguf::array, bytes);
}

void GgufBuilder::erase(const std::string& key) {
  std::erase_if(values_, [&](const Value& value) { return value.key == key; });
}

GgufBuilder& GgufBuilder::addTensor(const std::string& name, uint32_t type,
                                    std::vector<uint64_t> shape, Bytes data) {
  tensors_.push_back({name, type, std::move(shape), std::move(data)});
  return *this;
}

Bytes GgufBuilder::build() const {
  Bytes out;
  putText(out, "GGUF");
  putU32(out, version_);
  putU64(out, tensors_.size());
  putU64(out, values_.size());
  for (const Value& value : values_) {
    putText64(out, value.key);
    putU32(out, value.type);
    out.insert(out.end(), value.bytes.begin(), value.bytes.end());
  }
  const auto aligned = [this](uint64_t n) {
    return (n + alignment_ - 1) / alignment_ * alignment_;
  };
  uint64_t offset = 0;
  for (const Tensor& tensor : tensors_) {
    putText64(out, tensor.name);
    putU32(out, static_cast<uint32_t>(tensor.shape.size()));
    for (const uint64_t extent : tensor.shape) putU64(out, extent);
    putU32(out, tensor.type);
    putU64(out, tensor.offset != ~uint64_t{0} ? tensor.offset : offset);
    offset += aligned(tensor.data.size());
  }
  for (const Tensor& tensor : tensors_) {
    out.resize(aligned(out.size()));
    out.insert(out.end(), tensor.data.begin(), tensor.data.end());
  }
  return out;
}

GgufBuilder supportedGguf(uint64_t width, uint64_t feedForward, const kiv::Architecture& shape) {
  GgufBuilder builder;
  builder.addText("general.architecture", "qwen35").addText("general.name", "small");
  const auto u32 = [&](const std::string& key, uint64_t value) {
    builder.addU32("qwen35." + key, static_cast<uint32_t>(value));
  };
  u32("block_count", shape.layers);
  u32("context_length", 262144);
  u32("embedding_length", width);
  u32("feed_forward_length", feedForward);
  u32("attention.head_count", shape.heads);
  u32("attention.head_count_kv", shape.kvHeads);
  u32("attention.key_length", shape.headSize);
  u32("attention.value_length", shape.headSize);
  u32("rope.dimension_count", shape.rotarySize);
  builder.addI32s("qwen35.rope.dimension_sections", {11, 11, 10, 0});
  builder.addF32("qwen35.rope.freq_base", 1e7F);
  builder.addF32("qwen35.attention.layer_norm_rms_epsilon", 1e-6F);
  u32("ssm.conv_kernel", 4);
  u32("ssm.state_size", shape.stateSize);
  u32("ssm.group_count", shape.keyHeads);
  u32("ssm.time_step_rank", shape.valueHeads);
  u32("ssm.inner_size", shape.valueRows());
  u32("full_attention_interval", shape.fullEvery);

  const json tokenizer = byteLevelTokenizer();
  std::vector<std::string> tokens(274);
  std::vector<int32_t> types(274, 5);
  for (const auto& [text, id] : tokenizer["model"]["vocab"].items()) {
    tokens[id.get<size_t>()] = text;
    types[id.get<size_t>()] = 1;
  }
  for (const json& added : tokenizer["added_tokens"]) {
    const auto id = added["id"].get<size_t>();
    tokens[id] = added["content"];
    types[id] = added["special"].get<bool>() ? 3 : 4;
  }
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (tokens[i].empty()) tokens[i] = "[PAD" + std::to_string(i) + "]";
  }
  builder.addText("tokenizer.ggml.model", "gpt2").addText("tokenizer.ggml.pre", "qwen35");
  builder.addTexts("tokenizer.ggml.tokens", tokens);
  builder.addI32s("tokenizer.ggml.token_type", types);
  builder.addTexts("tokenizer.ggml.merges", tokenizer["model"]["merges"]);
  builder.addU32("tokenizer.ggml.eos_token_id", 272);
  builder.addU32("tokenizer.ggml.padding_token_id", 270);
  builder.addBool("tokenizer.ggml.add_bos_token", false);
  builder.addText("tokenizer.chat_template", "chatml");
  return builder;
}

}  // namespace zemtest
