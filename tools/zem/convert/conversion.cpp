// SPDX-License-Identifier: Apache-2.0
#include "convert/conversion.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <utility>

#include "compat/files.h"
#include "console/terminal.h"
#include "console/text.h"
#include "convert/checkpoint_source.h"
#include "convert/gguf/gguf_source.h"
#include "kiv/container/mapped_file.h"
#include "kiv/zem2_writer.h"

namespace zemtool {
namespace {

namespace fs = std::filesystem;

// Header, tables and metadata beside tokenizer and weights.
constexpr uint64_t kFrameBytes = uint64_t{1} << 20;

void require(const kiv::Status& status) {
  if (!status.ok()) throw Failure(status.message());
}

ModelSource openSource(const std::string& input) {
  std::error_code error;
  if (fs::is_directory(compat::pathOf(input), error)) {
    std::string folder = input;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return openCheckpoint(folder);
  }
  kiv::MappedFile file;
  require(file.open(input));
  const auto begins = [&](const char* magic) {
    return file.size() >= 4 && std::memcmp(file.data(), magic, 4) == 0;
  };
  if (begins("ZEM2")) throw Failure(input + " is a container already");
  if (!begins("GGUF")) {
    throw Failure(input + " is neither the folder of a checkpoint nor a GGUF file");
  }
  file.close();
  return openGguf(input);
}

// The folder or file of the source, for the comparison with the output.
std::vector<fs::path> sourcePaths(const std::string& input, const ModelSource& source) {
  std::error_code error;
  if (!fs::is_directory(compat::pathOf(input), error)) return {compat::pathOf(input)};
  const fs::path folder = compat::pathOf(input);
  std::vector<fs::path> paths;
  for (const std::string& file : source.files) paths.push_back(folder / compat::pathOf(file));
  for (const char* file : {"config.json", "tokenizer.json", "tokenizer_config.json"}) {
    paths.push_back(folder / file);
  }
  return paths;
}

void checkOutput(const ConversionOptions& options, const ModelSource& source) {
  std::error_code error;
  for (const fs::path& path : sourcePaths(options.input, source)) {
    if (fs::equivalent(path, compat::pathOf(options.output), error)) {
      throw Failure(options.output + " is part of the model that is to be converted");
    }
  }
}

void checkSpace(const std::string& output, uint64_t needed) {
  std::error_code error;
  const fs::path folder = fs::absolute(compat::pathOf(output), error).parent_path();
  const fs::space_info space = fs::space(folder, error);
  if (error || space.available >= needed) return;
  throw Failure(compat::nameOf(folder) + " has " + formatBytes(space.available) + " left, " +
                output + " needs " + formatBytes(needed));
}

void addSampling(const Sampling& sampling, kiv::ZEM2Writer& writer) {
  if (sampling.temperature) writer.addMetaF32("sampling.temperature", *sampling.temperature);
  if (sampling.topK) writer.addMetaU32("sampling.top_k", *sampling.topK);
  if (sampling.topP) writer.addMetaF32("sampling.top_p", *sampling.topP);
  if (sampling.presencePenalty) {
    writer.addMetaF32("sampling.presence_penalty", *sampling.presencePenalty);
  }
  if (!sampling.stopIds.empty()) writer.addMetaU32Array("sampling.stop_ids", sampling.stopIds);
}

// What the matrices were stored as: the mix, or "copied" where all bytes are the
// source's.
std::string quantisationName(const ConversionPlan& plan, WeightMix mix) {
  size_t copied = 0;
  for (const PlannedTensor& tensor : plan.tensors) copied += tensor.copied ? 1 : 0;
  if (copied == plan.tensors.size()) return "copied";
  return std::string(kiv::weightMixName(mix)) + (copied == 0 ? "" : ", partly copied");
}

void declare(const ConversionOptions& options, ModelSource& source, const ConversionPlan& plan,
             const kiv::TokenizerData& tokenizer, kiv::ZEM2Writer& writer) {
  kiv::ZEM2ModelHeader header;
  header.hiddenSize = plan.architecture.width;
  header.layerCount = plan.architecture.layers;
  header.vocabSize = static_cast<uint32_t>(plan.architecture.vocabulary);
  writer.setModel(header);
  writer.addMetaStr("general.architecture", kiv::kArchitectureName);
  writer.addMetaStr("general.name", source.name);
  writer.addMetaStr("general.generator", options.generator);
  std::string files;
  for (const std::string& file : source.files) files += (files.empty() ? "" : ", ") + file;
  writer.addMetaStr("general.source.format", source.format);
  writer.addMetaStr("general.source.files", files);
  writer.addMetaStr("general.quantisation", quantisationName(plan, options.mix));
  kiv::addMetadata(plan.architecture, writer);
  addSampling(source.sampling, writer);
  writer.addMetaStr("tokenizer.source.section", "Asset");
  writer.addMetaStr("tokenizer.source.name", source.tokenizer.assetName);
  writer.addMetaU64("tokenizer.source.bytes", source.tokenizer.asset.size());
  writer.setTokenizer(tokenizer);
  writer.addSection(kiv::zem2::SectionType::Asset, std::move(source.tokenizer.asset));
  for (const PlannedTensor& tensor : plan.tensors) {
    writer.addTensor(tensor.name, tensor.type, tensor.shape);
  }
}

uint64_t tokenizerBytes(const kiv::TokenizerData& data) {
  uint64_t bytes = data.chatTemplate.size() + 4 * data.tokenTypes.size();
  for (const std::string& token : data.tokens) bytes += token.size() + 4;
  for (const std::string& merge : data.merges) bytes += merge.size() + 4;
  return bytes;
}

}  // namespace

ConversionReport convertModel(const ConversionOptions& options) {
  const auto start = std::chrono::steady_clock::now();
  std::error_code error;
  if (!options.force && fs::exists(fs::symlink_status(compat::pathOf(options.output), error))) {
    throw Failure(options.output + " exists; use --force to replace it");
  }
  ModelSource source = openSource(options.input);
  checkOutput(options, source);
  const ConversionPlan plan = planConversion(source, options.mix, options.recode);
  ConversionReport report;
  kiv::ZEM2Writer writer;
  {
    const kiv::TokenizerData tokenizer =
        convertTokenizer(source.tokenizer, plan.architecture.vocabulary, report.tokenizer);
    checkSpace(options.output, plan.bytes() + tokenizerBytes(tokenizer) +
                                   source.tokenizer.asset.size() + kFrameBytes);
    declare(options, source, plan, tokenizer, writer);
  }
  require(writer.begin(options.output));
  const uint64_t total = writer.totalBytes();
  WriteOptions write;
  write.threads = options.threads;
  write.measure = options.verify;
  if (options.progress) {
    options.progress(0, total);
    write.progress = [&](uint64_t done) { options.progress(done, total); };
  }
  report.weights = writeWeights(plan, writer, write);
  report.format = source.format;
  report.files = source.files;
  report.architecture = plan.architecture;
  report.leftOut = source.leftOut;
  report.fallbacks = plan.fallbacks;
  require(writer.finish());  // nothing may fail once the output is there
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return report;
}

}  // namespace zemtool
