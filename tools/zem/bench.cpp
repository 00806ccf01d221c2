// zem bench: decoding speed, as a table to paste into a report.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <vector>

#include "commands.h"
#include "gpu_choice.h"
#include "kiv/zem2_reader.h"
#include "model_file.h"
#include "options.h"
#include "plugin_host.h"
#include "stderr_tap.h"
#include "terminal.h"
#include "text.h"

namespace zemtool {
namespace {

constexpr int kMaxTokens = 4095;  // the runtime's loop ends there
// A benchmark's prompt is "Hi": at most two tokens and a beginning of sequence.
constexpr int kPromptTokens = 3;
constexpr uint32_t kWholeContext = 8192;

struct BenchOptions {
  SessionOptions session;
  int tokens = 64;
  int repetitions = 5;
  std::string format = "md";
};

struct Report {
  std::string model;
  WeightTotals weights;
  std::string backend;
  std::string plan;
  int threads = 0;
  int tokens = 0;
  std::vector<double> rates;  // tokens a second, one a repetition

  double mean() const {
    return std::accumulate(rates.begin(), rates.end(), 0.0) / static_cast<double>(rates.size());
  }
  double deviation() const {
    if (rates.size() < 2) return 0;
    double squares = 0;
    for (const double rate : rates) squares += (rate - mean()) * (rate - mean());
    return std::sqrt(squares / static_cast<double>(rates.size() - 1));
  }
  double gigabytesPerSecond() const {
    return mean() * static_cast<double>(weights.bytesPerToken) / 1e9;
  }
  std::string test() const { return "tg" + std::to_string(tokens); }
};

class Progress {
 public:
  ~Progress() { show(""); }
  void show(const std::string& text) const {
    if (stderrIsTerminal()) std::fprintf(stderr, "\r%-40s\r%s", "", text.c_str());
  }
};

// The runtime divides by the tokens asked for, however early the model ended
// its text. So the same greedy text is generated first, which also warms up:
// returns how many of `tokens` the model is known to produce.
int usableTokens(Session& session, int tokens) {
  ZEMSessionOptions settings = sessionRecord({});
  const auto enough = static_cast<uint64_t>(tokens) + 1;
  settings.ctx_len = static_cast<uint32_t>(enough + kPromptTokens);
  session.configure(settings);
  settings.temperature = 0;
  session.generate("Hi", settings);
  const uint64_t sampled = session.stats().tokens;
  settings.ctx_len = kWholeContext;
  settings.temperature = -1;
  session.configure(settings);
  if (sampled >= enough || sampled >= kTokenBudget) return tokens;
  return static_cast<int>(sampled) - 1;  // the last one ended the text
}

int chooseTokens(Session& session, int asked) {
  const int usable = usableTokens(session, asked);
  if (usable < 1) {
    throw Failure("the model ends its text at once on the benchmark's prompt; nothing to measure");
  }
  if (usable < asked) {
    complain("warning: the model ends its text after " + std::to_string(usable) +
             " tokens; measuring these instead of " + std::to_string(asked));
  }
  return usable;
}

// A run that ended early shows a mean far below its own last step; noise does
// not do that in every repetition.
void warnIfCutShort(const std::vector<double>& ratios) {
  if (*std::max_element(ratios.begin(), ratios.end()) < 0.5) {
    complain("warning: the model seems to end its text early; the speed is overstated (try -n 64)");
  }
}

void measure(Session& session, int repetitions, Report& report) {
  ZEMBenchParams params{};
  params.struct_size = sizeof params;
  params.tokens = report.tokens;
  params.warmup = 1;  // tokens + warmup - 1 steps are timed and divided by tokens
  std::vector<double> ratios;
  const Progress progress;
  for (int i = 1; i <= repetitions; ++i) {
    progress.show(report.test() + ": " + std::to_string(i) + " of " + std::to_string(repetitions));
    const ZEMBenchResult result = session.bench(params);
    report.rates.push_back(result.tokens_per_sec);
    ratios.push_back(result.ms_per_token / session.stats().last_step_ms);
  }
  if (!std::isfinite(report.mean())) {
    complain("warning: the runtime measured no finite speed");
  }
  warnIfCutShort(ratios);
}

std::string gibibytes(uint64_t bytes) {
  return formatNumber(static_cast<double>(bytes) / (1024.0 * 1024 * 1024), 3);
}

// "4.21 B", "35.2 M", "1290"
std::string formatCount(uint64_t count) {
  const auto value = static_cast<double>(count);
  if (value >= 1e9) return formatNumber(value / 1e9, 2) + " B";
  if (value >= 1e6) return formatNumber(value / 1e6, 2) + " M";
  return std::to_string(count);
}

std::string markdownCell(const std::string& text) {
  std::string cell;
  for (const char c : escapeControls(text))
    cell += c == '|' ? std::string("\\|") : std::string(1, c);
  return cell;
}

void printMarkdown(const Report& report) {
  writeOut(
      "| model | size | params | backend | threads | test | t/s | GB/s |\n"
      "|---|---:|---:|---|---:|---|---:|---:|\n");
  writeOut("| " + markdownCell(report.model) + " | " + gibibytes(report.weights.bytes) + " GiB | " +
           formatCount(report.weights.elements) + " | " + markdownCell(report.backend) + " | " +
           std::to_string(report.threads) + " | " + report.test() + " | " +
           formatNumber(report.mean(), 2) + " ± " + formatNumber(report.deviation(), 2) + " | " +
           formatNumber(report.gigabytesPerSecond(), 2) + " |\n");
}

std::string csvCell(const std::string& text) {
  std::string cell = "\"";
  for (const char c : text) cell += c == '"' ? std::string("\"\"") : std::string(1, c);
  return cell + "\"";
}

void printCsv(const Report& report) {
  writeOut(
      "model,weight_bytes,params,backend,threads,test,tokens_per_second,deviation,"
      "gigabytes_per_second\n");
  writeOut(csvCell(report.model) + "," + std::to_string(report.weights.bytes) + "," +
           std::to_string(report.weights.elements) + "," + csvCell(report.backend) + "," +
           std::to_string(report.threads) + "," + report.test() + "," +
           formatNumber(report.mean(), 6) + "," + formatNumber(report.deviation(), 6) + "," +
           formatNumber(report.gigabytesPerSecond(), 6) + "\n");
}

void printJson(const Report& report) {
  writeJson({{"model", report.model},
             {"weight_bytes", report.weights.bytes},
             {"weight_bytes_per_token", report.weights.bytesPerToken},
             {"params", report.weights.elements},
             {"backend", report.backend},
             {"plan", report.plan},
             {"threads", report.threads},
             {"test", report.test()},
             {"tokens_per_second", report.mean()},
             {"deviation", report.deviation()},
             {"repetitions", report.rates},
             {"gigabytes_per_second", report.gigabytesPerSecond()}});
}

void bench(BenchOptions options) {
  applyThreads(options.session);
  settleGpu(options.session);
  const PluginHost host(findPlugin(options.session.plugin));
  StderrTap tap;
  Session session(host, options.session);
  const std::string printed = tap.finish();
  Report report;
  {
    kiv::ZEM2Reader reader;
    openContainer(reader, options.session.model);
    report.model = modelName(reader, options.session.model);
    report.weights = weightTotals(reader);
  }
  report.plan = options.session.plan;
  report.backend = backendName(automaticDevice(), report.plan, printed);
  report.threads = effectiveThreads();
  report.tokens = chooseTokens(session, options.tokens);
  measure(session, options.repetitions, report);
  if (options.format == "json") {
    printJson(report);
  } else if (options.format == "csv") {
    printCsv(report);
  } else {
    printMarkdown(report);
  }
}

}  // namespace

void addBench(CLI::App& app, int& status) {
  auto options = std::make_shared<BenchOptions>();
  CLI::App* command = app.add_subcommand("bench", "Measure decoding speed");
  addSessionOptions(*command, options->session);
  command->add_option("-n,--tokens", options->tokens, "Tokens to decode, 1 to 4095 (default: 64)")
      ->check(CLI::Range(1, kMaxTokens).description(""))
      ->type_name("N");
  command->add_option("-r,--repetitions", options->repetitions, "Repetitions (default: 5)")
      ->check(CLI::Range(1, 1000).description(""))
      ->type_name("N");
  command->add_option("-o,--output", options->format, "md, json or csv (default: md)")
      ->check(CLI::IsMember({"md", "json", "csv"}).description(""))
      ->type_name("FORMAT");
  command->footer(
      "t/s is the mean over the repetitions, with its standard deviation. GB/s counts the bytes\n"
      "of all weights that one token needs. The backend is the device that computes: CPU, or a\n"
      "Vulkan device by its name, with the plan when both compute. Before the first repetition up\n"
      "to 96 tokens are generated, to warm up and to see whether the model ends its text early.\n"
      "\nExample:\n  zem bench -m model.zem -t 8 -n 128");
  command->callback([options, &status] { status = guarded([&] { bench(*options); }); });
}

}  // namespace zemtool
