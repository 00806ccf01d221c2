// SPDX-License-Identifier: Apache-2.0
// zem convert: a published model becomes a container.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "commands/commands.h"
#include "commands/options.h"
#include "console/long_work.h"
#include "console/terminal.h"
#include "console/text.h"
#include "convert/conversion.h"

namespace zemtool {
namespace {

using Json = nlohmann::ordered_json;

struct ConvertOptions {
  ConversionOptions conversion;
  std::string type = kiv::weightMixName(WeightMix::Q4_K_M);
  int threads = 0;  // 0: one a processor
  bool json = false;
};

std::vector<std::string> mixNames() {
  std::vector<std::string> names(kiv::kWeightMixes.size());
  std::transform(kiv::kWeightMixes.begin(), kiv::kWeightMixes.end(), names.begin(),
                 kiv::weightMixName);
  return names;
}

WeightMix mixNamed(const std::string& name) {
  return *std::find_if(kiv::kWeightMixes.begin(), kiv::kWeightMixes.end(),
                       [&](WeightMix mix) { return name == kiv::weightMixName(mix); });
}

std::string shownError(double error) { return error == 0 ? "0" : formatNumber(error, 6); }

Json convertedTypesJson(const WeightReport& report, bool verified) {
  Json list = Json::array();
  for (const auto& [name, type] : report.types) {
    Json entry = {{"type", name},
                  {"tensors", type.tensors},
                  {"copied", type.copied},
                  {"elements", type.elements},
                  {"bytes", type.bytes}};
    if (verified) {
      entry["relative_error"] = type.relativeError();
      entry["worst_error"] = type.worstError;
      entry["worst_tensor"] = type.worstTensor;
    }
    list.push_back(std::move(entry));
  }
  return list;
}

Json fallbacksJson(const std::vector<Fallback>& fallbacks) {
  Json list = Json::array();
  for (const Fallback& fallback : fallbacks) {
    list.push_back({{"tensor", fallback.name},
                    {"wanted", kiv::dtypeName(fallback.wanted)},
                    {"type", kiv::dtypeName(fallback.type)},
                    {"reason", fallback.reason}});
  }
  return list;
}

void printConversionJson(const ConvertOptions& options, const ConversionReport& report) {
  const TokenizerCounts& tokens = report.tokenizer;
  writeJson({{"input", options.conversion.input},
             {"output", options.conversion.output},
             {"format", report.format},
             {"files", report.files},
             {"type", options.type},
             {"embedding_length", report.architecture.width},
             {"feed_forward_length", report.architecture.feedForward},
             {"vocabulary_size", report.architecture.vocabulary},
             {"left_out",
              {{"vision", report.leftOut.vision},
               {"prediction", report.leftOut.prediction},
               {"repeated", report.leftOut.repeated},
               {"others", report.leftOut.others}}},
             {"types", convertedTypesJson(report.weights, options.conversion.verify)},
             {"fallbacks", fallbacksJson(report.fallbacks)},
             {"tokenizer",
              {{"tokens", tokens.tokens},
               {"added", tokens.added},
               {"as_bytes", tokens.asBytes},
               {"filled", tokens.filled},
               {"merges", tokens.merges},
               {"dropped_merges", tokens.droppedMerges}}},
             {"bytes_read", report.weights.bytesRead},
             {"bytes_written", report.weights.bytesWritten},
             {"seconds", report.seconds},
             {"warnings", report.weights.warnings}});
}

void printConvertedTypes(const WeightReport& report, bool verified) {
  std::vector<std::vector<std::string>> rows = {
      {"type", "tensors", "copied", "weights", "bytes", "relative error", "worst"}};
  for (const auto& [name, type] : report.types) {
    rows.push_back(
        {name, std::to_string(type.tensors), std::to_string(type.copied),
         std::to_string(type.elements), formatBytes(type.bytes),
         verified ? shownError(type.relativeError()) : "not measured",
         type.worstError == 0 ? "" : shownError(type.worstError) + " in " + type.worstTensor});
  }
  writeOut(formatTable(rows, {1, 2, 3, 4, 5}));
}

// One line a reason: layers are alike.
void printFallbacks(const std::vector<Fallback>& fallbacks) {
  std::map<std::string, std::vector<const Fallback*>> byReason;
  for (const Fallback& fallback : fallbacks) {
    std::string reason = kiv::dtypeName(fallback.type);
    reason.append(" instead of ").append(kiv::dtypeName(fallback.wanted)).append(": ");
    byReason[reason.append(fallback.reason)].push_back(&fallback);
  }
  for (const auto& [reason, list] : byReason) {
    const bool one = list.size() == 1;
    const std::string more =
        one ? " is " : " and " + std::to_string(list.size() - 1) + " more are ";
    std::string line = "  " + list[0]->name;
    writeOut(line.append(more).append(reason).append("\n"));
  }
}

void printLeftOut(const LeftOut& leftOut) {
  std::string text;
  const auto add = [&](size_t count, const std::string& what) {
    if (count == 0) return;
    text += (text.empty() ? "  left out: " : ", ") + std::to_string(count) + " " + what;
  };
  add(leftOut.vision, "vision tensors");
  add(leftOut.prediction, "tensors of prediction layers");
  add(leftOut.repeated, "output head that repeats the embedding");
  if (!text.empty()) writeOut(text + "\n");
}

void printConvertedTokenizer(const TokenizerCounts& counts) {
  writeOut("  vocabulary: " + std::to_string(counts.tokens) + " tokens, of them " +
           std::to_string(counts.added) + " added and " + std::to_string(counts.asBytes) +
           " stored as bytes; " + std::to_string(counts.filled) + " rows without a token\n");
  writeOut("  merges: " + std::to_string(counts.merges) + ", of them " +
           std::to_string(counts.droppedMerges) + " dropped, which join parts of characters\n");
}

void printConversion(const ConvertOptions& options, const ConversionReport& report) {
  const double rate =
      report.seconds > 0 ? static_cast<double>(report.weights.bytesRead) / report.seconds : 0;
  writeOut(escapeControls(options.conversion.output) + ": " +
           formatBytes(report.weights.bytesWritten) + " of weights from " +
           formatBytes(report.weights.bytesRead) + " in " + formatNumber(report.seconds, 1) +
           " s (" + formatBytes(static_cast<uint64_t>(rate)) + "/s read)\n");
  printConvertedTypes(report.weights, options.conversion.verify);
  printFallbacks(report.fallbacks);
  printLeftOut(report.leftOut);
  printConvertedTokenizer(report.tokenizer);
}

void warn(const ConversionReport& report) {
  for (const std::string& warning : report.weights.warnings) complain("warning: " + warning);
  const std::vector<std::string>& others = report.leftOut.others;
  if (others.empty()) return;
  const std::string more =
      others.size() == 1 ? "" : " and " + std::to_string(others.size() - 1) + " more";
  complain("warning: left out, for the model has no place for it: " + others[0] + more);
}

void convert(ConvertOptions options) {
  ConversionOptions& conversion = options.conversion;
  conversion.mix = mixNamed(options.type);
  conversion.threads = options.threads > 0 ? static_cast<size_t>(options.threads)
                                           : std::max(1U, std::thread::hardware_concurrency());
  conversion.generator = "zem " ZEM_VERSION;
  const StopGuard guard;
  std::optional<ProgressBar> bar;
  conversion.progress = [&](uint64_t done, uint64_t total) {
    if (StopGuard::stopped()) {
      throw Failure("interrupted; " + conversion.output + " was not written");
    }
    if (!bar) bar.emplace(total, ProgressBar::Lines::EveryFiveSeconds);
    bar->update(done);
  };
  const ConversionReport report = convertModel(conversion);
  bar.reset();
  if (options.json) {
    printConversionJson(options, report);
  } else {
    printConversion(options, report);
  }
  warn(report);
}

}  // namespace

void addConvert(Command& program, int& status) {
  auto options = std::make_shared<ConvertOptions>();
  ConversionOptions& conversion = options->conversion;
  Command command = program.command(
      "convert", "Turn a published checkpoint or a GGUF file into a model file", "Make models");
  command.option("input", conversion.input, "Folder of a checkpoint, or GGUF file")
      .valueName("INPUT")
      .required();
  command.option("-o,--output", conversion.output, "The model file to write (.zem)")
      .valueName("FILE")
      .required();
  command.option("--type", options->type, "Type of the matrices, see below")
      .valueName("TYPE")
      .oneOf(mixNames())
      .showDefault();
  addThreadsOption(command, options->threads, "Threads (default: one a processor)");
  command.flag("--requantize", conversion.recode,
               "Encode a GGUF file's matrices to --type, also those that could be copied");
  command.flag("--verify,!--no-verify", conversion.verify,
               "Measure the error of what was encoded (the default)");
  command.flag("--force", conversion.force, "Replace a file that exists");
  command.flag("--json", options->json, "Print the report as JSON");
  command.footer(
      "INPUT is a folder with config.json, tokenizer.json and safetensors files, or a GGUF file "
      "of\n"
      "the architecture qwen35. Vision and prediction tensors are left out. Of a GGUF file, "
      "blocks\n"
      "of Q4_K, Q5_K, Q6_K, Q8_0, BF16 and F32 are copied as they are; --type is for the others.\n"
      "\n"
      "Types: f32, bf16, q8_0, q4_k, q5_k, q6_k, and the mixes q4_k_m and q5_k_m, which store the\n"
      "embedding, an output head, attn_v and ffn_down as q6_k. ssm_alpha and ssm_beta are q8_0 or\n"
      "better. Vectors and the convolution are f32.\n"
      "\n"
      "Example:\n  zem convert ~/models/Qwen3.5-4B -o qwen.zem\n  zem chat -m qwen.zem");
  command.action([options, &status] { status = guarded([&] { convert(*options); }); });
}

}  // namespace zemtool
