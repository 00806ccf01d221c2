// SPDX-License-Identifier: Apache-2.0
// zem plugin run: one completion.
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/options.h"
#include "commands/plugin/plugin.h"
#include "console/terminal.h"
#include "console/text.h"
#include "host/gpu_choice.h"
#include "host/plugin_host.h"

namespace zemtool {
namespace {

struct PluginRunOptions {
  SessionOptions session;
  SamplingOptions sampling;
  PromptOptions prompt;
  bool json = false;
};

void printCompletion(const std::string& text) {
  Utf8Joiner joiner;
  std::string shown = joiner.push(text);
  shown += joiner.finish();
  if (stdoutIsTerminal()) shown = escapeControls(shown, "\n\t");
  if (shown.empty() || shown.back() != '\n') shown += '\n';
  writeOut(shown);
}

void printCompletionJson(const std::string& text, const ZEMRuntimeStats& stats) {
  writeJson({{"text", text},
             {"tokens", stats.tokens},
             {"generation_ms", stats.generation_ms},
             {"last_step_ms", stats.last_step_ms},
             {"tokens_per_second", tokensPerSecond(stats)}});
}

void run(PluginRunOptions options) {
  applyThreads(options.session.threads);
  const std::string prompt = readPrompt(options.prompt);
  settleGpu(options.session);
  const PluginHost host(findPlugin(options.session.plugin));
  Session session(host, options.session);
  const std::string text = session.generate(prompt, sessionRecord(options.sampling));
  const ZEMRuntimeStats stats = session.stats();
  if (options.json) {
    printCompletionJson(text, stats);
    return;
  }
  printCompletion(text);
  remark(describeStats(stats));
}

}  // namespace

void addPluginRun(Command& program, int& status) {
  auto options = std::make_shared<PluginRunOptions>();
  Command command = program.command("run", "Complete a prompt");
  addSessionOptions(command, options->session);
  addContextOption(command, options->session);
  addPromptOptions(command, options->prompt);
  addSamplingOptions(command, options->sampling);
  command.flag("--json", options->json, "Print the text and the timings as JSON");
  command.footer(
      "The completion, of up to 96 tokens, goes to standard output and the timings to standard\n"
      "error. The prompt is completed as it stands; `zem plugin chat` frames it as a conversation. "
      "One\n"
      "line feed at the end of a file or pipe is not part of the prompt.\n"
      "\nExamples:\n"
      "  zem plugin run -m model.zem -p \"The capital of France is\"\n"
      "  zem plugin run -m model.zem -f prompt.txt --temp 0.8 --top-k 40 -s 7");
  command.action([options, &status] { status = guarded([&] { run(*options); }); });
}

}  // namespace zemtool
