// SPDX-License-Identifier: Apache-2.0
// zem plugin bench: how fast prompts are processed and tokens decoded, as a table to
// paste into a report.
#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include "bench/exact_prompt.h"
#include "bench/measure.h"
#include "bench/read_speed.h"
#include "bench/report.h"
#include "commands/number_list.h"
#include "commands/options.h"
#include "commands/plugin/plugin.h"
#include "commands/report_options.h"
#include "console/progress_line.h"
#include "console/terminal.h"
#include "host/gpu_choice.h"
#include "host/model_file.h"
#include "host/plugin_host.h"

namespace zemtool {
namespace {

constexpr int kMaxSteps = 4095;  // steps that the runtime's benchmark takes at most
constexpr int kDefaultTokens = 64;

struct BenchOptions {
  SessionOptions session;
  std::vector<int> prompts;
  std::vector<int> tokens;
  std::vector<int> depths = {0};
  std::vector<int> threads;
  ReportOptions report;
};

// In the order of the report.
std::vector<BenchTest> testsOf(const BenchOptions& options) {
  std::vector<int> tokens = options.tokens;
  if (tokens.empty() && options.prompts.empty()) tokens = {kDefaultTokens};
  std::vector<BenchTest> tests;
  for (const int depth : options.depths) {
    for (const int n : options.prompts) tests.push_back({BenchTest::Kind::Prompt, n, depth});
    for (const int n : tokens) tests.push_back({BenchTest::Kind::Decode, n, depth});
  }
  return tests;
}

std::vector<PreparedTest> prepareAll(const std::vector<BenchTest>& tests,
                                     const std::string& model) {
  std::optional<ExactPrompt> maker;
  if (std::any_of(tests.begin(), tests.end(), needsTexts)) maker.emplace(openTokenizer(model));
  std::vector<PreparedTest> prepared;
  prepared.reserve(tests.size());
  for (const BenchTest& test : tests) prepared.push_back(prepare(test, maker ? &*maker : nullptr));
  return prepared;
}

BenchSubject describe(const BenchOptions& options) {
  BenchSubject subject;
  kiv::ZEM2Reader reader;
  openContainer(reader, options.session.model);
  subject.model = modelName(reader, options.session.model);
  subject.weights = weightTotals(reader);
  subject.plan = options.session.plan;
  subject.backend = backendName(usableDevice(), subject.plan);
  subject.roofline = options.report.roofline;
  return subject;
}

void warnOfOtherMemory(const BenchSubject& subject) {
  if (!subject.roofline || subject.backend == "CPU") return;
  complain("warning: --roofline reads the processor's memory, which " + subject.backend +
           " does not compute from: no share is given");
}

void bench(BenchOptions options) {
  const std::vector<BenchTest> tests = testsOf(options);
  for (const BenchTest& test : tests) requireRoom(test);
  if (!options.threads.empty()) options.session.threads = options.threads.front();
  applyThreads(options.session.threads);
  settleGpu(options.session);
  const PluginHost host(findPlugin(options.session.plugin));
  const std::vector<PreparedTest> prepared = prepareAll(tests, options.session.model);
  const bool several = options.threads.size() > 1;
  if (options.threads.empty()) options.threads = {effectiveThreads()};

  const ProgressLine progress;
  BenchReport report(options.report.format);
  std::optional<BenchSubject> subject;
  for (const int threads : options.threads) {
    if (several) host.setThreads(threads);
    std::optional<double> readSpeed;
    if (options.report.roofline) {
      progress.show("memory, " + std::to_string(threads) + " threads");
      readSpeed = measureReadSpeed(threads);
      progress.clear();
    }
    Session session(host, options.session);
    if (!subject) {
      subject = describe(options);
      warnOfOtherMemory(*subject);
    }
    BenchRunner runner(session, progress);
    for (PreparedTest test : prepared) {
      const std::vector<double> rates = runner.run(test, options.report.repetitions);
      report.add(*subject, {test.test, threads, rates, readSpeed});
    }
  }
  report.finish();
}

void addTestOptions(Command& command, BenchOptions& options) {
  addNumberList(command, "-p,--prompt", "Prompts to process, of 1 to 8192 tokens", 1, kPositions,
                options.prompts);
  addNumberList(command, "-n,--tokens",
                "Tokens to decode, 1 to 4095 (default: 64, but not with -p)", 1, kMaxSteps,
                options.tokens);
  addNumberList(command, "-d,--depth", "Positions to fill before, 0 to 8191 (default: 0)", 0,
                kPositions - 1, options.depths);
  addNumberList(command, "-t,--threads", "CPU threads (default: one a processor)", 1, kMaxThreads,
                options.threads);
  addReportOptions(command, options.report);
}

constexpr const char* kBenchFooter =
    "Lists are separated by commas; every depth is measured with every prompt and every number\n"
    "of tokens, and all of that with every number of threads. t/s is the mean over the\n"
    "repetitions, with its standard deviation. What a row measures:\n"
    "  tg64            64 tokens decoded greedily after the prompt \"Hi\", by the runtime's own\n"
    "                  benchmark. Before it, up to 96 tokens are generated, to warm up and to see\n"
    "                  whether the model ends its text early.\n"
    "  pp512           a prompt of 512 tokens: the runtime's time in steps, without encoding the\n"
    "                  text. One of up to 64 tokens is processed before, untimed.\n"
    "  tg64 @ d4096    64 tokens decoded after a chat turn of 4096, which is not timed: by the\n"
    "                  clock, from the first token's arrival to the last's, choosing them\n"
    "                  included. After 95 tokens, or where the model ends a reply, an empty turn\n"
    "                  is put in, whose prompt is not timed.\n"
    "  pp512 @ d4096   a chat turn of 512 tokens after one of 4096: the runtime's time in steps\n"
    "                  for the second. Turns have no fewer tokens than their frame.\n"
    "Every repetition fills its depth anew. Prompts are frequent words of the vocabulary.\n"
    "GB/s counts the bytes of all weights that one token needs; prompts, whose tokens may share\n"
    "a reading, have none. read GB/s is the best of several passes over a buffer that no cache\n"
    "holds, on as many threads, and share is GB/s of it. The backend is the device that computes:\n"
    "CPU, or a Vulkan device by its name, with the plan when both compute. Ctrl-C ends at once;\n"
    "rows that are printed stay (JSON is printed at the end).\n"
    "\nExamples:\n"
    "  zem plugin bench -m model.zem -t 8 -n 128\n"
    "  zem plugin bench -m model.zem -p 128,512 -n 64 -d 0,4096 -t 1,2,4 --roofline";

}  // namespace

void addPluginBench(Command& program, int& status) {
  auto options = std::make_shared<BenchOptions>();
  Command command = program.command("bench", "Measure the speed of prompts and of decoding");
  addRuntimeOptions(command, options->session);
  addTestOptions(command, *options);
  command.footer(kBenchFooter);
  command.action([options, &status] { status = guarded([&] { bench(*options); }); });
}

}  // namespace zemtool
