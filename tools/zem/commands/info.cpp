// SPDX-License-Identifier: Apache-2.0
// zem info: what a container file holds, whether or not a runtime would open it.
#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "compat/files.h"
#include "console/terminal.h"
#include "console/text.h"
#include "engine/text/chat_format.h"
#include "host/model_file.h"
#include "host/text_source.h"
#include "kiv/model/architecture.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_reader.h"

namespace zemtool {
namespace {

using Json = nlohmann::ordered_json;
using Rows = std::vector<std::vector<std::string>>;
using MetaEntry = kiv::ZEM2Reader::MetaEntryView;
using kiv::zem2::MetaType;

constexpr size_t kShownBytes = 120;    // of a text value
constexpr size_t kShownElements = 12;  // of an array

struct InfoOptions {
  std::string file;
  bool tensors = false;
  bool json = false;
};

struct TypeTotals {
  uint64_t count = 0;
  uint64_t elements = 0;
  uint64_t bytes = 0;
};

std::string sectionName(uint32_t type) {
  constexpr std::array<const char*, 15> kNames = {
      "Meta",      "Tokenizer",    "Graph",          "TensorIndex", "WeightData",
      "QuantInfo", "ChatTemplate", "PluginManifest", "PluginBlob",  "Asset",
      "Signature", "RepoManifest", "AppManifest",    "AppPayload",  "AppIndex"};
  return type >= 1 && type <= kNames.size() ? kNames[type - 1] : "type " + std::to_string(type);
}

const char* metaTypeName(uint16_t type) {
  constexpr std::array<const char*, 6> kNames = {"u32", "i32", "f32", "u64", "str", "u32[]"};
  return type < kNames.size() ? kNames[type] : "?";
}

Json metaValue(const MetaEntry& entry) {
  switch (static_cast<MetaType>(entry.type)) {
    case MetaType::U32:
      return entry.u32;
    case MetaType::I32:
      return entry.i32;
    case MetaType::F32:
      return entry.f32;
    case MetaType::U64:
      return entry.u64;
    case MetaType::Str:
      return entry.str;
    case MetaType::U32Array:
      return entry.arr;
  }
  return nullptr;
}

std::string shortText(const std::string& text) {
  if (text.size() <= kShownBytes) return "\"" + escapeControls(text) + "\"";
  Utf8Joiner joiner;  // leaves a character out that the cut would split
  return "\"" + escapeControls(joiner.push(std::string_view(text).substr(0, kShownBytes))) +
         "\"... (" + std::to_string(text.size()) + " bytes)";
}

std::string shortArray(const std::vector<uint32_t>& values) {
  std::string text = "[";
  for (size_t i = 0; i < values.size() && i < kShownElements; ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(values[i]);
  }
  if (values.size() > kShownElements) {
    text += ", ... (" + std::to_string(values.size()) + " values)";
  }
  return text + "]";
}

std::string metaText(const MetaEntry& entry) {
  switch (static_cast<MetaType>(entry.type)) {
    case MetaType::Str:
      return shortText(entry.str);
    case MetaType::U32Array:
      return shortArray(entry.arr);
    case MetaType::F32: {
      std::array<char, 32> text{};
      std::snprintf(text.data(), text.size(), "%.9g", static_cast<double>(entry.f32));
      return text.data();
    }
    default:
      return metaValue(entry).dump();
  }
}

// "64 x 512"
std::string shapeText(const std::vector<uint64_t>& shape) {
  std::string text;
  for (const uint64_t extent : shape) {
    text += (text.empty() ? "" : " x ") + std::to_string(extent);
  }
  return text;
}

std::vector<MetaEntry> readMeta(const kiv::ZEM2Reader& reader) {
  std::vector<MetaEntry> entries(reader.metaCount());
  for (size_t i = 0; i < entries.size(); ++i) reader.metaAt(i, entries[i]);
  return entries;
}

std::vector<TensorFacts> readTensors(const kiv::ZEM2Reader& reader) {
  std::vector<TensorFacts> tensors;
  tensors.reserve(reader.tensorCount());
  for (uint32_t i = 0; i < reader.tensorCount(); ++i) tensors.push_back(tensorFacts(reader, i));
  return tensors;
}

uint64_t saturatingSum(uint64_t a, uint64_t b) {
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  return a > kMax - b ? kMax : a + b;
}

std::map<std::string, TypeTotals> sumByType(const std::vector<TensorFacts>& tensors) {
  std::map<std::string, TypeTotals> sums;
  for (const TensorFacts& tensor : tensors) {
    TypeTotals& sum = sums[tensor.type];
    ++sum.count;
    sum.elements = saturatingSum(sum.elements, tensor.elements);
    sum.bytes = saturatingSum(sum.bytes, tensor.bytes);
  }
  return sums;
}

Json headerJson(const kiv::zem2::Header& header) {
  // Copies, for the record is packed.
  return {
      {"version", uint32_t{header.version}},        {"model_type", uint32_t{header.modelType}},
      {"hidden_size", uint64_t{header.hiddenSize}}, {"layer_count", uint32_t{header.layerCount}},
      {"vocab_size", uint32_t{header.vocabSize}},   {"tensor_count", uint32_t{header.tensorCount}}};
}

Json sectionsJson(const kiv::ZEM2Reader& reader) {
  Json list = Json::array();
  for (size_t i = 0; const auto* section = reader.sectionAt(i); ++i) {
    list.push_back({{"type", sectionName(section->type)},
                    {"flags", uint32_t{section->flags}},
                    {"offset", uint64_t{section->offset}},
                    {"bytes", uint64_t{section->size}}});
  }
  return list;
}

Json metaJson(const kiv::ZEM2Reader& reader) {
  Json list = Json::array();
  for (const MetaEntry& entry : readMeta(reader)) {
    list.push_back(
        {{"key", entry.key}, {"type", metaTypeName(entry.type)}, {"value", metaValue(entry)}});
  }
  return list;
}

Json tokenizerJson(const kiv::ZEM2Reader& reader) {
  kiv::TokenizerData data;
  if (!reader.readTokenizer(data)) return nullptr;
  return {{"tokens", data.tokens.size()},
          {"scores", data.scores.size()},
          {"token_types", data.tokenTypes.size()},
          {"merges", data.merges.size()},
          {"bos_id", data.bosId},
          {"eos_id", data.eosId},
          {"unk_id", data.unkId},
          {"pad_id", data.padId},
          {"add_bos", data.addBos},
          {"chat_template_bytes", data.chatTemplate.size()}};
}

// What goes into a model and comes out of it as text.
struct TextFacts {
  std::string tokenizer;   // "exact, of tokenizer.json", "the plug-in's"; empty: none
  std::string problem;     // why the source's tokenizer is not used
  std::string chatFormat;  // "qwen3.5", "none of the known revisions (...)"; empty: no template
  bool knownFormat = false;
  bool exact = false;
};

// As the engine chooses it: a name goes before a template.
void readChatFormat(const kiv::ZEM2Reader& reader, const std::string& chatTemplate,
                    TextFacts& facts) {
  std::string name;
  const bool named = reader.getMetaStr("chat.format", name);
  if (!named && chatTemplate.empty()) return;
  const zem::text::ChatFormat* format =
      named ? zem::text::chatFormatByName(name) : zem::text::chatFormatOfTemplate(chatTemplate);
  facts.knownFormat = format != nullptr;
  if (facts.knownFormat) {
    facts.chatFormat = format->name;
  } else if (named) {
    facts.chatFormat = "\"" + name + "\", none of the known revisions";
  } else {
    facts.chatFormat = zem::text::describeUnknownTemplate(chatTemplate);
  }
}

TextFacts readTextFacts(const kiv::ZEM2Reader& reader) {
  TextFacts facts;
  kiv::TokenizerData data;
  const bool hasVocabulary = reader.readTokenizer(data);
  if (hasVocabulary) facts.tokenizer = "the plug-in's";
  try {
    if (const auto exact = exactTokenizerOf(reader)) {
      facts.tokenizer = exact->description();
      facts.exact = true;
    }
  } catch (const Failure& failure) {
    facts.problem = failure.what();
  }
  readChatFormat(reader, data.chatTemplate, facts);
  return facts;
}

Json textJson(const TextFacts& facts) {
  const auto orNull = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
  return {{"tokenizer", orNull(facts.tokenizer)},
          {"exact", facts.exact},
          {"problem", orNull(facts.problem)},
          {"chat_format", facts.knownFormat ? Json(facts.chatFormat) : Json()}};
}

Json typesJson(const std::vector<TensorFacts>& tensors) {
  Json list = Json::array();
  for (const auto& [type, sum] : sumByType(tensors)) {
    list.push_back(
        {{"type", type}, {"tensors", sum.count}, {"elements", sum.elements}, {"bytes", sum.bytes}});
  }
  return list;
}

Json tensorsJson(const std::vector<TensorFacts>& tensors) {
  Json list = Json::array();
  for (const TensorFacts& tensor : tensors) {
    list.push_back({{"name", tensor.name},
                    {"type", tensor.type},
                    {"shape", tensor.shape},
                    {"offset", tensor.offset},
                    {"bytes", tensor.bytes},
                    {"outside", tensor.outside}});
  }
  return list;
}

void printInfoJson(const kiv::ZEM2Reader& reader, const InfoOptions& options) {
  const std::vector<TensorFacts> tensors = readTensors(reader);
  Json value = {{"file", options.file},
                {"header", headerJson(reader.header())},
                {"sections", sectionsJson(reader)},
                {"metadata", metaJson(reader)},
                {"tokenizer", tokenizerJson(reader)},
                {"text", textJson(readTextFacts(reader))},
                {"types", typesJson(tensors)}};
  if (options.tensors) value["tensors"] = tensorsJson(tensors);
  writeJson(value);
}

void printBlock(const std::string& title, const Rows& rows, const std::vector<size_t>& right = {}) {
  writeOut("\n" + title + "\n" + formatTable(rows, right));
}

// Not a second name of the embedding.
bool hasOwnHead(const std::vector<TensorFacts>& tensors) {
  const auto named = [&](const std::string& name) {
    return std::find_if(tensors.begin(), tensors.end(),
                        [&](const TensorFacts& tensor) { return tensor.name == name; });
  };
  const auto head = named(kiv::tensorName(kiv::TensorRole::OutputHead));
  const auto embedding = named(kiv::tensorName(kiv::TensorRole::Embedding));
  if (head == tensors.end()) return false;
  return embedding == tensors.end() || embedding->offset != head->offset;
}

void printHeader(const kiv::ZEM2Reader& reader, const std::string& path,
                 const std::vector<TensorFacts>& tensors) {
  const kiv::zem2::Header& header = reader.header();
  std::error_code error;
  Rows rows = {{"format", "container version " + std::to_string(header.version)},
               {"file size", formatBytes(std::filesystem::file_size(compat::pathOf(path), error))},
               {"model type", std::to_string(header.modelType)},
               {"hidden size", std::to_string(header.hiddenSize)},
               {"layers", std::to_string(header.layerCount)},
               {"vocabulary", std::to_string(header.vocabSize)},
               {"tensors", std::to_string(header.tensorCount)},
               {"weights", std::to_string(weightTotals(reader).elements)}};
  if (hasOwnHead(tensors)) rows.push_back({"output head", "its own, output.weight"});
  writeOut(escapeControls(path) + "\n" + formatTable(rows));
}

void printSections(const kiv::ZEM2Reader& reader) {
  Rows rows = {{"section", "offset", "bytes"}};
  for (size_t i = 0; const auto* section = reader.sectionAt(i); ++i) {
    rows.push_back({sectionName(section->type), std::to_string(section->offset),
                    std::to_string(section->size)});
  }
  printBlock("sections", rows, {1, 2});
}

void printMeta(const kiv::ZEM2Reader& reader) {
  Rows rows;
  for (const MetaEntry& entry : readMeta(reader)) {
    rows.push_back({escapeControls(entry.key), metaTypeName(entry.type), metaText(entry)});
  }
  printBlock("metadata", rows);
}

void printTokenizer(const kiv::ZEM2Reader& reader) {
  kiv::TokenizerData data;
  if (!reader.readTokenizer(data)) {
    writeOut("\ntokenizer\n  none that can be read\n");
    return;
  }
  printBlock("tokenizer",
             {{"tokens", std::to_string(data.tokens.size())},
              {"scores", std::to_string(data.scores.size())},
              {"token types", std::to_string(data.tokenTypes.size())},
              {"merges", std::to_string(data.merges.size())},
              {"bos, eos", std::to_string(data.bosId) + ", " + std::to_string(data.eosId)},
              {"unk, pad", std::to_string(data.unkId) + ", " + std::to_string(data.padId)},
              {"adds bos", data.addBos ? "yes" : "no"},
              {"chat template", formatBytes(data.chatTemplate.size())}});
}

void printText(const kiv::ZEM2Reader& reader) {
  const TextFacts facts = readTextFacts(reader);
  const auto orNone = [](const std::string& text) { return text.empty() ? "none" : text; };
  Rows rows = {{"tokenizer", orNone(facts.tokenizer)}};
  if (!facts.problem.empty()) {
    rows.push_back({"", "the source's is not usable: " + escapeControls(facts.problem)});
  }
  rows.push_back({"chat format", orNone(facts.chatFormat)});
  printBlock("text", rows);
}

void printTypes(const std::vector<TensorFacts>& tensors) {
  Rows rows = {{"type", "tensors", "elements", "bytes"}};
  for (const auto& [type, sum] : sumByType(tensors)) {
    rows.push_back(
        {type, std::to_string(sum.count), std::to_string(sum.elements), formatBytes(sum.bytes)});
  }
  printBlock("types", rows, {1, 2, 3});
}

void printTensors(const std::vector<TensorFacts>& tensors) {
  Rows rows = {{"tensor", "type", "shape", "offset", "bytes", ""}};
  for (const TensorFacts& tensor : tensors) {
    rows.push_back({escapeControls(tensor.name), tensor.type, shapeText(tensor.shape),
                    std::to_string(tensor.offset), std::to_string(tensor.bytes),
                    tensor.outside ? "outside the file" : ""});
  }
  printBlock("tensors", rows, {3, 4});
}

void warnOfOutside(const std::vector<TensorFacts>& tensors) {
  size_t outside = 0;
  for (const TensorFacts& tensor : tensors) outside += tensor.outside ? 1 : 0;
  if (outside == 0) return;
  complain("warning: " + std::to_string(outside) + " of " + std::to_string(tensors.size()) +
           " tensors lie outside the file's weight data; no session can compute with it");
}

void info(const InfoOptions& options) {
  kiv::ZEM2Reader reader;
  openContainer(reader, options.file);
  const std::vector<TensorFacts> tensors = readTensors(reader);
  if (options.json) {
    printInfoJson(reader, options);
  } else {
    printHeader(reader, options.file, tensors);
    printSections(reader);
    printMeta(reader);
    printTokenizer(reader);
    printText(reader);
    printTypes(tensors);
    if (options.tensors) printTensors(tensors);
  }
  warnOfOutside(tensors);
}

}  // namespace

void addInfo(Command& program, int& status) {
  auto options = std::make_shared<InfoOptions>();
  Command command = program.command("info", "Show what a model file holds", "Examine models");
  command.option("file", options->file, "Model file (.zem)").required().valueName("FILE");
  command.flag("--tensors", options->tensors, "List every tensor");
  command.flag("--json", options->json, "Print JSON");
  command.footer(
      "Reads the file only, so it works on files that a runtime refuses. Extents of a shape are\n"
      "given from the innermost, contiguous one; offsets of tensors count from the start of the\n"
      "weight data. `text` says which tokenizer `zem tokenize` uses, and the revision of the chat\n"
      "template.\n"
      "\nExample:\n  zem info model.zem --tensors");
  command.action([options, &status] { status = guarded([&] { info(*options); }); });
}

}  // namespace zemtool
