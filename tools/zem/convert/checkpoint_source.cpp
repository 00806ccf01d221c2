// SPDX-License-Identifier: Apache-2.0
#include "convert/checkpoint_source.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "compat/files.h"
#include "console/terminal.h"
#include "console/text.h"
#include "convert/checkpoint_config.h"
#include "convert/checkpoint_layout.h"
#include "convert/json_file.h"
#include "convert/json_tokenizer.h"
#include "convert/model_sizes.h"
#include "convert/safetensors.h"

namespace zemtool {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kMaxIndexBytes = uint64_t{16} << 20;
constexpr char kIndexName[] = "model.safetensors.index.json";
constexpr char kSingleName[] = "model.safetensors";

// Longest first: each begins with the next.
constexpr std::array<std::string_view, 2> kPrefixes = {"model.language_model.", "model."};

bool startsWithAny(std::string_view text, std::initializer_list<std::string_view> prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(),
                     [&](std::string_view prefix) { return text.starts_with(prefix); });
}

kiv::GgufType typeNamed(const std::string& name) {
  if (name == "F32") return kiv::GgufType::F32;
  if (name == "BF16") return kiv::GgufType::BF16;
  if (name == "F16") return kiv::GgufType::F16;
  return static_cast<kiv::GgufType>(~uint32_t{0});
}

SourceTensor sourceTensor(const SafetensorsEntry& entry, const kiv::MappedFile& file) {
  SourceTensor tensor;
  tensor.name = entry.name;
  tensor.type = typeNamed(entry.type);
  tensor.typeName = entry.type;
  tensor.shape.assign(entry.shape.rbegin(), entry.shape.rend());
  tensor.data = entry.data;
  tensor.bytes = entry.bytes;
  tensor.file = &file;
  return tensor;
}

class FolderReader {
 public:
  explicit FolderReader(const std::string& folder) : folder_(folder) {}

  ModelSource read() {
    const CheckpointConfig config = readCheckpointConfig(folder_);
    source_.format = "checkpoint";
    source_.checkpointLayout = true;
    source_.name = folderName();
    source_.contextLength = config.contextLength;
    source_.sampling = readSampling(folder_);
    for (const std::string& name : shardNames()) readShard(name);
    checkIndex();
    checkLanguage();
    placeHead(config);
    source_.architecture = settleSizes(source_, config.sizes);
    source_.tokenizer = readJsonTokenizer(folder_, source_.architecture.vocabulary);
    chooseStop(config);
    return std::move(source_);
  }

 private:
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  std::string folderName() const {
    std::error_code error;
    const fs::path whole = fs::canonical(compat::pathOf(folder_), error);
    const std::string name = compat::nameOf(whole.filename());
    return error || name.empty() ? "checkpoint" : name;
  }

  std::vector<std::string> shardNames() {
    std::string text;
    if (readFileIfAny(path(kIndexName), kMaxIndexBytes, text)) return indexedShards(text);
    std::error_code error;
    if (fs::exists(compat::pathOf(path(kSingleName)), error)) return {kSingleName};
    throw Failure(folder_ + ": has neither " + kIndexName + " nor " + kSingleName);
  }

  std::vector<std::string> indexedShards(const std::string& text) {
    const std::string where = path(kIndexName);
    const json root = parseJson(text, where);
    const json* map = member(root, "weight_map");
    if (map == nullptr || !map->is_object() || map->empty()) {
      throw Failure(where + ": has no weight_map");
    }
    std::set<std::string> shards;
    for (const auto& [tensor, file] : map->items()) {
      if (!file.is_string())
        throw Failure(where + ": \"" + escapeControls(tensor) + "\" names no file");
      const auto& name = file.get_ref<const std::string&>();
      // A plain name, on every system: nothing outside the folder is read.
      if (name.empty() || name == "." || name == ".." ||
          name.find_first_of(std::string_view("/\\:\0", 4)) != std::string::npos) {
        throw Failure(where + ": \"" + escapeControls(tensor) + "\" lies in \"" +
                      escapeControls(name) + "\", needs the name of a file in this folder");
      }
      indexed_.emplace(tensor, name);
      shards.insert(name);
    }
    return {shards.begin(), shards.end()};
  }

  void readShard(const std::string& name) {
    auto file = std::make_shared<kiv::MappedFile>();
    std::error_code error;
    if (!fs::exists(compat::pathOf(path(name)), error)) {
      throw Failure(path(name) + " is missing; " + kIndexName + " names it");
    }
    if (const kiv::Status s = file->open(path(name)); !s.ok()) throw Failure(s.message());
    for (const SafetensorsEntry& entry : readSafetensors(*file)) {
      if (!where_.emplace(entry.name, name).second) {
        throw Failure("tensor '" + entry.name + "' occurs in " + where_[entry.name] + " and in " +
                      name);
      }
      place(sourceTensor(entry, *file));
    }
    source_.files.push_back(name);
    source_.owners.push_back(std::move(file));
  }

  void place(SourceTensor tensor) {
    const std::string& name = tensor.name;
    if (startsWithAny(name, {"model.visual.", "visual."})) {
      ++source_.leftOut.vision;
      return;
    }
    if (startsWithAny(name, {"mtp.", "model.mtp."})) {
      ++source_.leftOut.prediction;
      return;
    }
    if (name.ends_with(checkpointName(kiv::TensorRole::OutputHead, 0))) {
      head_ = std::move(tensor);
      return;
    }
    const std::optional<TensorPlace> known = names_.find(withoutPrefix(name));
    if (!known) {
      refuseExperts(name);
      source_.leftOut.others.push_back(name);
      return;
    }
    const auto [found, added] =
        source_.tensors.try_emplace(kiv::tensorName(known->role, known->layer), std::move(tensor));
    if (!added) {
      throw Failure("tensors '" + found->second.name + "' and '" + name + "' are the same one");
    }
  }

  static std::string_view withoutPrefix(std::string_view name) {
    for (const std::string_view prefix : kPrefixes) {
      if (name.starts_with(prefix)) return name.substr(prefix.size());
    }
    return {};
  }

  static void refuseExperts(const std::string& name) {
    if (name.find(".mlp.experts.") == std::string::npos &&
        name.find(".mlp.shared_expert") == std::string::npos) {
      return;
    }
    throw Failure("tensor '" + name +
                  "' belongs to a mixture of experts; needs one feed-forward block a layer");
  }

  void checkIndex() const {
    for (const auto& [tensor, file] : indexed_) {
      const auto found = where_.find(tensor);
      if (found != where_.end() && found->second == file) continue;
      throw Failure(path(kIndexName) + ": \"" + escapeControls(tensor) + "\" is not in " + file);
    }
  }

  void checkLanguage() const {
    if (!source_.tensors.empty() || source_.leftOut.vision == 0) return;
    throw Failure(folder_ + ": has vision tensors only, needs those of the language model");
  }

  // Some checkpoints store a tied head all the same.
  void placeHead(const CheckpointConfig& config) {
    if (head_.name.empty()) {
      if (config.tied.value_or(true)) return;
      throw Failure(config.tiedKey + " is false, but the tensor '" +
                    checkpointName(kiv::TensorRole::OutputHead, 0) + "' is missing");
    }
    const auto embedding = source_.tensors.find(kiv::tensorName(kiv::TensorRole::Embedding));
    if (embedding == source_.tensors.end()) return;
    const SourceTensor& table = embedding->second;
    if (head_.type == table.type && head_.bytes == table.bytes &&
        std::memcmp(head_.data, table.data, head_.bytes) == 0) {
      head_.file->release(head_.data, head_.bytes);
      ++source_.leftOut.repeated;
      return;
    }
    if (config.tied.value_or(false)) {
      throw Failure("tensor '" + head_.name + "' differs from '" + table.name + "', but " +
                    config.tiedKey + " is true");
    }
    source_.tensors.emplace(kiv::tensorName(kiv::TensorRole::OutputHead), std::move(head_));
  }

  // The tokenizer's own statement is the weakest.
  void chooseStop(const CheckpointConfig& config) {
    std::vector<uint32_t>& stop = source_.sampling.stopIds;
    const auto known = [&](int64_t id) {
      return id >= 0 && static_cast<uint64_t>(id) < source_.tokenizer.tokens.size();
    };
    std::erase_if(stop, [&](uint32_t id) { return !known(id); });
    if (known(config.eosId)) source_.tokenizer.eosId = config.eosId;
    if (!stop.empty()) source_.tokenizer.eosId = static_cast<int32_t>(stop.front());
  }

  std::string folder_;
  const TensorNames names_{checkpointName};
  std::map<std::string, std::string> indexed_;  // tensor to file, as the index has it
  std::map<std::string, std::string> where_;    // tensor to file, as found
  SourceTensor head_;
  ModelSource source_;
};

}  // namespace

ModelSource openCheckpoint(const std::string& folder) { return FolderReader(folder).read(); }

}  // namespace zemtool
