// SPDX-License-Identifier: Apache-2.0
// zem bench: how fast the engine processes prompts and decodes, as a table to paste into a report.
#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "bench/engine_measure.h"
#include "bench/read_speed.h"
#include "bench/report.h"
#include "commands/commands.h"
#include "commands/number_list.h"
#include "commands/options.h"
#include "commands/report_options.h"
#include "console/program.h"
#include "console/progress_line.h"
#include "console/terminal.h"
#include "host/model_file.h"

namespace zemtool {
namespace {

constexpr int kMostTokens = 262144;
constexpr int kMostSequences = 64;
constexpr int kDefaultPrompt = 512;
constexpr int kDefaultTokens = 64;

struct EngineBenchOptions {
  std::string model;
  std::vector<int> prompts;
  std::vector<int> tokens;
  std::vector<int> depths = {0};
  std::vector<int> sequences = {1};
  std::vector<int> threads;
  std::vector<std::string> maths = {"exact"};
  std::string cache = "f16";
  ReportOptions report;
};

// In the order of the report.
std::vector<BenchTest> engineTestsOf(EngineBenchOptions options) {
  if (options.tokens.empty() && options.prompts.empty()) {
    options.prompts = {kDefaultPrompt};
    options.tokens = {kDefaultTokens};
  }
  std::vector<BenchTest> tests;
  for (const int depth : options.depths) {
    for (const int together : options.sequences) {
      for (const int n : options.prompts) {
        tests.push_back({BenchTest::Kind::Prompt, n, depth, together});
      }
      for (const int n : options.tokens) {
        tests.push_back({BenchTest::Kind::Decode, n, depth, together});
      }
    }
  }
  return tests;
}

EngineSubject subjectOf(const EngineBenchOptions& options, const std::vector<BenchTest>& tests,
                        int threads, const std::string& math) {
  EngineSubject subject;
  subject.model = options.model;
  subject.math = math == "fast" ? zem::Math::Fast : zem::Math::Exact;
  subject.cache = options.cache == "f32" ? zem::CacheNumbers::Float : zem::CacheNumbers::Half;
  subject.threads = threads;
  for (const BenchTest& test : tests) {
    subject.sequences = std::max(subject.sequences, test.sequences);
    subject.positions = std::max(subject.positions, test.depth + test.tokens + 2);
  }
  return subject;
}

BenchSubject engineSubject(const EngineBenchOptions& options) {
  BenchSubject subject;
  kiv::ZEM2Reader reader;
  openContainer(reader, options.model);
  subject.model = modelName(reader, options.model);
  subject.weights = weightTotals(reader);
  subject.backend = "CPU";
  subject.plan = "cpu:all";
  subject.engine = true;
  subject.roofline = options.report.roofline;
  return subject;
}

// One engine for each arithmetic. Their repetitions alternate: what slows the machine for a while
// slows all of them.
class Comparison {
 public:
  Comparison(const EngineBenchOptions& options, const std::vector<BenchTest>& tests, int threads,
             const ProgressLine& progress)
      : maths_(options.maths), repetitions_(options.report.repetitions), progress_(progress) {
    for (const std::string& math : maths_) {
      progress_.show("opening the model");
      engines_.push_back(std::make_unique<EngineRunner>(subjectOf(options, tests, threads, math)));
      progress_.show("reading the weights");
      engines_.back()->warmUp();
    }
  }

  // Of each arithmetic, the rates of all repetitions.
  std::vector<std::vector<double>> run(const BenchTest& test) {
    std::vector<std::vector<double>> rates(maths_.size());
    for (int repetition = 0; repetition < repetitions_; ++repetition) {
      for (size_t i = 0; i < maths_.size(); ++i) {
        progress_.show(test.name() + ", " + maths_[i] + ", repetition " +
                       std::to_string(repetition + 1) + " of " + std::to_string(repetitions_));
        rates[i].push_back(engines_[i]->run(test, static_cast<uint32_t>(repetition)));
      }
    }
    progress_.clear();
    return rates;
  }

 private:
  const std::vector<std::string>& maths_;
  int repetitions_;
  const ProgressLine& progress_;
  std::vector<std::unique_ptr<EngineRunner>> engines_;
};

void benchEngine(EngineBenchOptions options) {
  requireReadable(options.model);
  const std::vector<BenchTest> tests = engineTestsOf(options);
  if (options.threads.empty()) options.threads = {usableProcessors()};
  const ProgressLine progress;
  BenchReport report(options.report.format);
  const BenchSubject subject = engineSubject(options);
  for (const int threads : options.threads) {
    std::optional<double> readSpeed;
    if (options.report.roofline) {
      progress.show("memory, " + std::to_string(threads) + " threads");
      readSpeed = measureReadSpeed(threads);
    }
    Comparison comparison(options, tests, threads, progress);
    for (const BenchTest& test : tests) {
      const auto rates = comparison.run(test);
      for (size_t i = 0; i < rates.size(); ++i) {
        report.add(subject, {test, threads, rates[i], readSpeed, options.maths[i]});
      }
    }
  }
  report.finish();
}

std::string readMaths(const std::string& value, std::vector<std::string>& maths) {
  std::vector<std::string> names;
  std::istringstream list(value);
  for (std::string name; std::getline(list, name, ',');) {
    if (name != "exact" && name != "fast") {
      return "\"" + name + "\" is none of exact and fast";
    }
    names.push_back(name);
  }
  if (names.empty()) return "needs exact, fast or exact,fast";
  maths = std::move(names);
  return {};
}

void addEngineTests(Command& command, EngineBenchOptions& options) {
  addNumberList(command, "-p,--prompt", "Prompts to process, in tokens (default: 512)", 1,
                kMostTokens, options.prompts);
  addNumberList(command, "-n,--tokens", "Tokens to decode (default: 64)", 1, kMostTokens,
                options.tokens);
  addNumberList(command, "-d,--depth", "Positions to fill before (default: 0)", 0, kMostTokens,
                options.depths);
  addNumberList(command, "--np,--sequences", "Conversations together (default: 1); -np for short",
                1, kMostSequences, options.sequences);
  addNumberList(command, "-t,--threads", "CPU threads (default: one a processor)", 1, kMaxThreads,
                options.threads);
  command
      .option(
          "--math",
          [&options](const std::string& value) { return readMaths(value, options.maths); },
          "exact, fast, or both: exact,fast (default: exact)")
      .valueName("LIST");
  command.option("--cache", options.cache, "Keys and values as f16 or f32 (default: f16)")
      .oneOf({"f16", "f32"})
      .valueName("TYPE");
  addReportOptions(command, options.report);
}

constexpr const char* kBenchFooter =
    "Lists are separated by commas; every depth is measured with every number of conversations,\n"
    "every prompt and every number of tokens, and all of that with every number of threads. t/s\n"
    "is the mean over the repetitions, with its standard deviation: of all conversations\n"
    "together; \"each\" is the share of one. What a row measures:\n"
    "  pp512           a prompt of 512 tokens, from the request to the first token of the reply\n"
    "  tg64            64 tokens decoded, from the first token of the reply to the last\n"
    "  tg64 @ d4096    the same behind 4096 positions, whose computation is not timed\n"
    "  tg64 x 8        eight conversations together, while all of them run\n"
    "Prompts are random tokens, replies are greedy and do not end early. With several kinds of\n"
    "--math the repetitions alternate, so that ratios hold on a busy machine too. GB/s counts the\n"
    "bytes of all weights that one step needs; prompts, whose tokens share a reading, have none.\n"
    "read GB/s is the best of several passes over a buffer that no cache holds, on as many\n"
    "threads, and share is GB/s of it. Ctrl-C ends at once; rows that are printed stay (JSON is\n"
    "printed at the end).\n"
    "\nExamples:\n"
    "  zem bench -m model.zem\n"
    "  zem bench -m model.zem -n 64 -np 1,2,4,8 --math exact,fast\n"
    "  zem bench -m model.zem -p 512 -n 64 -d 0,4096 -t 1,2,4 --roofline";

}  // namespace

void addBench(Command& program, int& status) {
  auto options = std::make_shared<EngineBenchOptions>();
  Command command =
      program.command("bench", "Measure the speed of prompts and of replies", "Examine models");
  command.option("-m,--model", options->model, "Model file (.zem)").valueName("FILE").required();
  addEngineTests(command, *options);
  command.footer(kBenchFooter);
  command.action([options, &status] { status = guarded([&] { benchEngine(*options); }); });
}

}  // namespace zemtool
