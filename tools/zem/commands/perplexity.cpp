// SPDX-License-Identifier: Apache-2.0
// zem perplexity: how well a model predicts a text, and how far it is from another one.
#include <algorithm>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <utility>

#include "commands/commands.h"
#include "commands/options.h"
#include "console/program.h"
#include "console/progress_line.h"
#include "console/terminal.h"
#include "console/text.h"
#include "engine/vocabulary.h"
#include "host/model_file.h"
#include "logits/logits_reader.h"

namespace zemtool {
namespace {

constexpr int kMostWindow = 1 << 20;

struct PerplexityOptions {
  std::string model;
  std::string reference;
  std::string file;
  std::string cache = "f32";
  std::string math = "exact";
  int32_t window = 512;
  int32_t stride = 0;  // 0: half a window
  int32_t threads = 0;
  bool json = false;
};

// Mean of values as they come, with the standard error of the mean.
class Mean {
 public:
  void add(double value) {
    ++count_;
    const double before = value - mean_;
    mean_ += before / static_cast<double>(count_);
    squares_ += before * (value - mean_);
  }
  size_t count() const { return count_; }
  double value() const { return mean_; }
  double error() const {
    if (count_ < 2) return 0;
    const auto n = static_cast<double>(count_);
    return std::sqrt(squares_ / (n - 1) / n);
  }

 private:
  size_t count_ = 0;
  double mean_ = 0;
  double squares_ = 0;  // of the differences from the mean
};

struct Measured {
  size_t tokens = 0;
  size_t windows = 0;
  Mean surprise;   // -log of a token's probability, in nats
  Mean reference;  // of the reference
  Mean divergence;
  double worst = 0;
  size_t sameBest = 0;
};

// Tokens of the text that a window holds, and the first one of them that is scored.
struct Window {
  size_t begin;
  size_t end;
  size_t firstScored;
};

std::vector<Window> windowsOf(size_t tokens, size_t size, size_t stride) {
  std::vector<Window> windows = {{0, std::min(size, tokens), 1}};
  while (windows.back().end < tokens) {
    const Window& last = windows.back();
    const size_t end = std::min(last.end + stride, tokens);
    windows.push_back({end - size, end, last.end});
  }
  return windows;
}

std::vector<uint32_t> idsOf(const LogitsReader& model, const std::string& text,
                            const std::string& path) {
  zem::Vocabulary vocabulary;
  std::vector<uint32_t> ids;
  kiv::Status status = zem::Vocabulary::load(model.loader(), vocabulary);
  if (status.ok()) status = vocabulary.encode(text, zem::text::AddedTokens::AsText, ids);
  if (!status.ok()) throw Failure(path + ": " + status.message());
  return ids;
}

class Measurement {
 public:
  Measurement(const PerplexityOptions& options, const std::string& text)
      : model_(options.model, settingsOf(options)), ids_(idsOf(model_, text, options.model)) {
    if (ids_.size() < 2) {
      throw Failure("the text has " + std::to_string(ids_.size()) +
                    (ids_.size() == 1 ? " token" : " tokens") +
                    ", needs two: each is foreseen from those before it");
    }
    if (!options.reference.empty()) openReference(options, text);
  }

  Measured run(size_t window, size_t stride) {
    const std::vector<Window> windows = windowsOf(ids_.size(), window, stride);
    result_.tokens = ids_.size();
    result_.windows = windows.size();
    const ProgressLine progress;
    for (size_t i = 0; i < windows.size(); ++i) {
      progress.show("window " + std::to_string(i + 1) + " of " + std::to_string(windows.size()));
      read(windows[i]);
    }
    return result_;
  }

 private:
  static LogitsOptions settingsOf(const PerplexityOptions& options) {
    const int threads = options.threads > 0 ? options.threads : usableProcessors();
    return {static_cast<size_t>(threads),
            options.cache == "f16" ? zem::CacheType::F16 : zem::CacheType::F32,
            options.math == "fast" ? zem::Arithmetic::Fast : zem::Arithmetic::Exact};
  }

  void openReference(const PerplexityOptions& options, const std::string& text) {
    reference_ = std::make_unique<LogitsReader>(options.reference, settingsOf(options));
    if (reference_->vocabulary() != model_.vocabulary() ||
        idsOf(*reference_, text, options.reference) != ids_) {
      throw Failure("the vocabularies of " + options.model + " and " + options.reference +
                    " differ, so that the models cannot be compared");
    }
  }

  void read(const Window& window) {
    model_.beginText();
    if (reference_) reference_->beginText();
    const auto all = std::span(ids_).first(window.end);
    // The logits behind the last token predict nothing of this window.
    for (size_t at = window.begin; at + 1 < window.end; at += zem::kBatchTokens) {
      const auto batch = all.subspan(at, std::min(zem::kBatchTokens, window.end - 1 - at));
      const std::span<const float> logits = model_.feed(batch);
      const std::span<const float> expected =
          reference_ ? reference_->feed(batch) : std::span<const float>();
      for (size_t i = 0; i < batch.size(); ++i) {
        if (at + i + 1 >= window.firstScored) score(at + i + 1, i, logits, expected);
      }
    }
  }

  // The token at `position`, foreseen by row `row`.
  void score(size_t position, size_t row, std::span<const float> logits,
             std::span<const float> expected) {
    const size_t width = model_.vocabulary();
    const auto own = logits.subspan(row * width, width);
    result_.surprise.add(surpriseOf(own, ids_[position]));
    if (expected.empty()) return;
    const auto other = expected.subspan(row * width, width);
    result_.reference.add(surpriseOf(other, ids_[position]));
    const Divergence difference = divergenceOf(other, own);
    result_.divergence.add(difference.nats);
    result_.worst = std::max(result_.worst, difference.nats);
    result_.sameBest += difference.sameBest ? 1 : 0;
  }

  LogitsReader model_;
  std::unique_ptr<LogitsReader> reference_;
  std::vector<uint32_t> ids_;
  Measured result_;
};

// Of the perplexity, from that of the mean of the logarithms.
double perplexityError(const Mean& surprise) {
  return std::exp(surprise.value()) * surprise.error();
}

std::string withError(double value, double error, int decimals) {
  return formatNumber(value, decimals) + " ± " + formatNumber(error, decimals);
}

std::string perplexityText(const Mean& surprise) {
  return withError(std::exp(surprise.value()), perplexityError(surprise), 4);
}

double shareOfBest(const Measured& measured) {
  return static_cast<double>(measured.sameBest) / static_cast<double>(measured.divergence.count());
}

void printPerplexity(const PerplexityOptions& options, const Measured& measured) {
  std::vector<std::vector<std::string>> rows = {
      {"tokens", std::to_string(measured.tokens) + ", " +
                     std::to_string(measured.surprise.count()) + " of them scored"},
      {"windows", std::to_string(measured.windows) + " of " + std::to_string(options.window) +
                      " tokens, each " + std::to_string(options.stride) + " further"},
      {"perplexity", perplexityText(measured.surprise)}};
  if (!options.reference.empty()) {
    rows.push_back({"reference", perplexityText(measured.reference)});
    rows.push_back(
        {"KL divergence", withError(measured.divergence.value(), measured.divergence.error(), 6) +
                              ", worst " + formatNumber(measured.worst, 6)});
    rows.push_back({"same best token", formatNumber(100 * shareOfBest(measured), 2) + " %"});
  }
  writeOut(formatTable(rows));
}

void printPerplexityJson(const PerplexityOptions& options, const Measured& measured) {
  const auto facts = [](const Mean& surprise) -> nlohmann::ordered_json {
    return {{"perplexity", std::exp(surprise.value())},
            {"error", perplexityError(surprise)},
            {"mean_nats", surprise.value()},
            {"mean_nats_error", surprise.error()}};
  };
  nlohmann::ordered_json value = {{"model", options.model},
                                  {"tokens", measured.tokens},
                                  {"scored", measured.surprise.count()},
                                  {"windows", measured.windows},
                                  {"window", options.window},
                                  {"stride", options.stride}};
  value.update(facts(measured.surprise));
  if (!options.reference.empty()) {
    value["reference"] = {{"model", options.reference}};
    value["reference"].update(facts(measured.reference));
    value["mean_kl_divergence"] = measured.divergence.value();
    value["mean_kl_divergence_error"] = measured.divergence.error();
    value["worst_kl_divergence"] = measured.worst;
    value["same_best"] = shareOfBest(measured);
  }
  writeJson(value);
}

void measurePerplexity(PerplexityOptions options) {
  if (options.stride == 0) options.stride = std::max(1, options.window / 2);
  if (options.stride >= options.window) {
    throw UsageError("--stride must be less than --window, which is " +
                     std::to_string(options.window));
  }
  const std::string text = readWhole(options.file, "text file");
  requireReadable(options.model);
  if (!options.reference.empty()) requireReadable(options.reference);
  const Measured measured =
      Measurement(options, text)
          .run(static_cast<size_t>(options.window), static_cast<size_t>(options.stride));
  if (options.json) return printPerplexityJson(options, measured);
  printPerplexity(options, measured);
}

void addPerplexityOptions(Command& command, PerplexityOptions& options) {
  addModelOption(command, options.model);
  command.option("-f,--file", options.file, "The text, - for standard input")
      .required()
      .valueName("FILE");
  command
      .option("--reference", options.reference,
              "Another model file, with which the model is compared token by token")
      .valueName("FILE");
  command.option("--window", options.window, "Tokens that are read together (default: 512)")
      .wholeNumber(2, kMostWindow)
      .valueName("N");
  command
      .option("--stride", options.stride,
              "Tokens from one window to the next (default: half a window)")
      .wholeNumber(1, kMostWindow)
      .valueName("N");
  addThreadsOption(command, options.threads, "CPU threads (default: one a processor)");
  command.option("--cache", options.cache, "Keys and values: f32 (default) or f16")
      .oneOf({"f16", "f32"})
      .valueName("TYPE");
  command.option("--math", options.math, "exact (default) or fast")
      .oneOf({"exact", "fast"})
      .valueName("KIND");
  command.flag("--json", options.json, "Print JSON");
}

}  // namespace

void addPerplexity(Command& program, int& status) {
  auto options = std::make_shared<PerplexityOptions>();
  Command command =
      program.command("perplexity", "Measure how well a model predicts a text", "Examine models");
  addPerplexityOptions(command, *options);
  command.footer(
      "The text is read in windows. In the first one every token but the first is scored, in\n"
      "each later one the tokens that are new. So each token is scored once. In the later\n"
      "windows at least window minus stride tokens stand before it. The perplexity is the\n"
      "exponential of the mean of -log p, in nats; its error is the standard error of that mean,\n"
      "times the perplexity. Only figures of the same text, vocabulary, window and stride can be\n"
      "compared. With a reference: the mean of KL(reference || model), and how often both rate\n"
      "the same token highest.\n"
      "\nExample:\n  zem perplexity -m q4.zem -f page.txt --reference bf16.zem");
  command.action([options, &status] { status = guarded([&] { measurePerplexity(*options); }); });
}

}  // namespace zemtool
