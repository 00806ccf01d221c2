// SPDX-License-Identifier: Apache-2.0
// zem compare: how far two model files are apart, weight by weight and in what
// they say.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>

#include "commands/commands.h"
#include "commands/options.h"
#include "console/program.h"
#include "console/terminal.h"
#include "console/text.h"
#include "convert/ordered_work.h"
#include "host/model_file.h"
#include "kiv/quant/row_codec.h"
#include "kiv/tokenizer.h"
#include "kiv/zem_loader.h"
#include "logits/logits_reader.h"

namespace zemtool {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMostCompared = 8192;

struct CompareOptions {
  std::string first;
  std::string second;
  PromptOptions prompt;
  int threads = 0;  // 0: one a processor
  bool all = false;
  bool json = false;
};

struct TensorDifference {
  std::string name;
  std::string firstType;  // empty: the tensor is not there
  std::string secondType;
  std::string problem;  // why the weights were not compared; empty when they were
  bool same = false;    // byte by byte
  double relative = 0;  // root of mean squares, relative to the first's
  double largest = 0;   // of one weight
};

struct TextDifference {
  size_t tokens = 0;
  double divergence = 0;  // mean of KL(first || second), in nats
  double worst = 0;
  double sameBest = 0;  // share of positions
};

void openModel(kiv::ZEMLoader& loader, const std::string& path) {
  requireReadable(path);
  if (const kiv::Status s = loader.open(path.c_str()); !s.ok()) {
    throw Failure(path + " is not a model file: " + s.message());
  }
}

uint64_t rowsOf(const kiv::TensorView& view) {
  uint64_t rows = 1;
  for (uint16_t i = 1; i < view.ndim; ++i) {
    if (__builtin_mul_overflow(rows, view.shape[i], &rows)) return 0;
  }
  return rows;
}

// Why the weights of this tensor cannot be read; empty when they can be.
std::string unreadable(const kiv::ZEMLoader& loader, const kiv::TensorView& view) {
  if (!kiv::hasRowCodec(view.dtype)) {
    return std::string("weights of type ") + kiv::dtypeName(view.dtype) + " cannot be read";
  }
  const uint64_t rows = rowsOf(view);
  const uint64_t rowBytes = kiv::dtypeBytes(view.dtype, view.ndim == 0 ? 1 : view.shape[0]);
  uint64_t bytes = 0;
  if (rows == 0 || rowBytes == 0 || __builtin_mul_overflow(rows, rowBytes, &bytes) ||
      view.size < bytes || !loader.holdsBytes(view, bytes)) {
    return "its weights lie outside the file";
  }
  return {};
}

void measure(const kiv::TensorView& a, const kiv::TensorView& b, TensorDifference& difference) {
  const uint64_t cols = a.ndim == 0 ? 1 : a.shape[0];
  const uint64_t rows = rowsOf(a);
  const uint64_t aBytes = kiv::dtypeBytes(a.dtype, cols);
  const uint64_t bBytes = kiv::dtypeBytes(b.dtype, cols);
  difference.same = a.dtype == b.dtype && std::memcmp(a.data, b.data, rows * aBytes) == 0;
  if (difference.same) return;
  std::vector<float> x(cols);
  std::vector<float> y(cols);
  double errors = 0;
  double norms = 0;
  for (uint64_t row = 0; row < rows; ++row) {
    kiv::decodeRow(a.dtype, static_cast<const uint8_t*>(a.data) + row * aBytes, cols, x.data());
    kiv::decodeRow(b.dtype, static_cast<const uint8_t*>(b.data) + row * bBytes, cols, y.data());
    for (uint64_t i = 0; i < cols; ++i) {
      const double error = std::fabs(static_cast<double>(x[i]) - static_cast<double>(y[i]));
      errors += error * error;
      norms += static_cast<double>(x[i]) * static_cast<double>(x[i]);
      difference.largest = std::max(difference.largest, error);
    }
  }
  difference.relative = norms > 0 ? std::sqrt(errors / norms) : std::sqrt(errors);
}

void compareTensor(const kiv::ZEMLoader& first, const kiv::ZEMLoader& second,
                   TensorDifference& difference) {
  const kiv::TensorView* a = first.findTensor(difference.name);
  const kiv::TensorView* b = second.findTensor(difference.name);
  if (a != nullptr) difference.firstType = kiv::dtypeName(a->dtype);
  if (b != nullptr) difference.secondType = kiv::dtypeName(b->dtype);
  if (a == nullptr || b == nullptr) {
    difference.problem = "only in one of the files";
    return;
  }
  if (a->ndim != b->ndim || a->shape != b->shape) {
    difference.problem = "the shapes differ";
    return;
  }
  difference.problem = unreadable(first, *a);
  if (difference.problem.empty()) difference.problem = unreadable(second, *b);
  if (difference.problem.empty()) measure(*a, *b, difference);
}

std::vector<TensorDifference> compareTensors(const kiv::ZEMLoader& first,
                                             const kiv::ZEMLoader& second, size_t threads) {
  std::vector<std::string> names;
  for (size_t i = 0; i < first.tensorCount(); ++i) names.push_back(first.tensorView(i).name);
  for (size_t i = 0; i < second.tensorCount(); ++i) names.push_back(second.tensorView(i).name);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  std::vector<TensorDifference> differences(names.size());
  runOrdered(
      names.size(), threads,
      [&](size_t i, std::vector<uint8_t>&) {
        differences[i].name = names[i];
        compareTensor(first, second, differences[i]);
      },
      [](size_t, const std::vector<uint8_t>&) {});
  return differences;
}

std::vector<uint32_t> tokensOf(const kiv::ZEMLoader& first, const kiv::ZEMLoader& second,
                               const std::string& text) {
  if (first.tokenizer().tokens != second.tokenizer().tokens) {
    throw Failure("the vocabularies differ, so that the logits cannot be compared");
  }
  kiv::Tokenizer tokenizer;
  std::vector<int32_t> ids;
  kiv::Status status = tokenizer.load(first.tokenizer());
  if (status.ok()) status = tokenizer.encode(text, ids, true);
  if (!status.ok()) throw Failure(status.message());
  if (ids.empty()) throw Failure("the text has no tokens");
  if (ids.size() > kMostCompared) {
    throw Failure("the text has " + std::to_string(ids.size()) + " tokens, at most " +
                  std::to_string(kMostCompared) + " can be compared");
  }
  return {ids.begin(), ids.end()};
}

TextDifference compareText(const CompareOptions& options, const std::vector<uint32_t>& ids,
                           size_t threads) {
  LogitsReader first(options.first, {.threads = threads});
  LogitsReader second(options.second, {.threads = threads});
  const size_t row = first.vocabulary();
  if (row != second.vocabulary()) {
    throw Failure("the embeddings have " + std::to_string(row) + " and " +
                  std::to_string(second.vocabulary()) + " rows");
  }
  TextDifference result;
  result.tokens = ids.size();
  size_t sameBest = 0;
  for (size_t at = 0; at < ids.size(); at += zem::kBatchTokens) {
    const auto batch = std::span(ids).subspan(at, std::min(zem::kBatchTokens, ids.size() - at));
    const std::span<const float> a = first.feed(batch);
    const std::span<const float> b = second.feed(batch);
    for (size_t i = 0; i < batch.size(); ++i) {
      const Divergence token = divergenceOf(a.subspan(i * row, row), b.subspan(i * row, row));
      result.divergence += token.nats;
      result.worst = std::max(result.worst, token.nats);
      sameBest += token.sameBest ? 1 : 0;
    }
  }
  result.divergence /= static_cast<double>(ids.size());
  result.sameBest = static_cast<double>(sameBest) / static_cast<double>(ids.size());
  return result;
}

std::string typesText(const TensorDifference& tensor) {
  if (tensor.firstType == tensor.secondType) return tensor.firstType;
  const auto shown = [](const std::string& type) { return type.empty() ? "none" : type; };
  return shown(tensor.firstType) + " and " + shown(tensor.secondType);
}

void printTensorErrors(const std::vector<TensorDifference>& tensors, bool all) {
  std::vector<std::vector<std::string>> rows = {
      {"tensor", "type", "relative difference", "largest", ""}};
  size_t same = 0;
  for (const TensorDifference& tensor : tensors) {
    same += tensor.same ? 1 : 0;
    if (tensor.same && !all) continue;
    if (tensor.problem.empty()) {
      rows.push_back({escapeControls(tensor.name), typesText(tensor),
                      formatNumber(tensor.relative, 6), formatNumber(tensor.largest, 6),
                      tensor.same ? "the same bytes" : ""});
    } else {
      rows.push_back({escapeControls(tensor.name), typesText(tensor), "", "", tensor.problem});
    }
  }
  if (rows.size() > 1) writeOut(formatTable(rows, {2, 3}));
  writeOut("  " + std::to_string(same) + " of " + std::to_string(tensors.size()) +
           " tensors have the same bytes\n");
}

void printComparison(const TextDifference& text) {
  writeOut("  over " + std::to_string(text.tokens) + " tokens: mean KL divergence " +
           formatNumber(text.divergence, 6) + ", worst " + formatNumber(text.worst, 6) +
           ", the same best token in " + formatNumber(100 * text.sameBest, 1) + " %\n");
}

void printComparisonJson(const CompareOptions& options,
                         const std::vector<TensorDifference>& tensors,
                         const std::optional<TextDifference>& text) {
  Json list = Json::array();
  for (const TensorDifference& tensor : tensors) {
    Json entry = {{"name", tensor.name}, {"same", tensor.same}};
    entry["types"] = {tensor.firstType.empty() ? Json() : Json(tensor.firstType),
                      tensor.secondType.empty() ? Json() : Json(tensor.secondType)};
    if (tensor.problem.empty()) {
      entry["relative_difference"] = tensor.relative;
      entry["largest_difference"] = tensor.largest;
    } else {
      entry["problem"] = tensor.problem;
    }
    list.push_back(std::move(entry));
  }
  Json value = {{"first", options.first}, {"second", options.second}, {"tensors", list}};
  if (text) {
    value["text"] = {{"tokens", text->tokens},
                     {"mean_kl_divergence", text->divergence},
                     {"worst_kl_divergence", text->worst},
                     {"same_best", text->sameBest}};
  }
  writeJson(value);
}

void compare(const CompareOptions& options) {
  kiv::ZEMLoader first;
  kiv::ZEMLoader second;
  openModel(first, options.first);
  openModel(second, options.second);
  std::vector<uint32_t> ids;
  if (options.prompt.hasText || !options.prompt.file.empty()) {
    ids = tokensOf(first, second, readPrompt(options.prompt));
  }
  const size_t threads = options.threads > 0 ? static_cast<size_t>(options.threads)
                                             : static_cast<size_t>(usableProcessors());
  const std::vector<TensorDifference> tensors = compareTensors(first, second, threads);
  std::optional<TextDifference> text;
  if (!ids.empty()) text = compareText(options, ids, threads);
  if (options.json) return printComparisonJson(options, tensors, text);
  printTensorErrors(tensors, options.all);
  if (text) printComparison(*text);
}

}  // namespace

void addCompare(Command& program, int& status) {
  auto options = std::make_shared<CompareOptions>();
  Command command =
      program.command("compare", "Show how far two model files are apart", "Examine models");
  command.option("first", options->first, "Model file (.zem); the reference")
      .valueName("A")
      .required();
  command.option("second", options->second, "Model file (.zem)").valueName("B").required();
  addPromptOptions(command, options->prompt);
  addThreadsOption(command, options->threads, "Threads (default: one a processor)");
  command.flag("--all", options->all, "List tensors with the same bytes too");
  command.flag("--json", options->json, "Print JSON");
  command.footer(
      "Prints for every tensor the root mean square of the differences, relative to A's weights,\n"
      "and the largest difference. With a text, both models read it on the CPU, and the logits\n"
      "behind each token are compared: the mean KL divergence of B's from A's, in nats, and how\n"
      "often both rate the same token highest.\n"
      "\nExample:\n  zem compare f32.zem q4.zem -f page.txt");
  command.action([options, &status] { status = guarded([&] { compare(*options); }); });
}

}  // namespace zemtool
