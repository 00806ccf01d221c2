// SPDX-License-Identifier: Apache-2.0
#include "commands/options.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "compat/files.h"
#include "console/streams.h"
#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr int kMaxContext = 8192;

// A negative number would be read as a large one.
std::string complaintOfSeed(const std::string& text) {
  if (!text.starts_with('-')) return {};
  return "\"" + text + "\" is not a seed: a whole number from 0";
}

std::string complaintOfPlan(const std::string& text) {
  if (text.find(';') == std::string::npos) return {};
  return "a plan cannot hold ';', which separates the fields of the option text";
}

std::string readAll(std::FILE* file, const std::string& where) {
  std::string text;
  char chunk[65536];
  size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, got);
  if (std::ferror(file) != 0) {
    throw Failure("cannot read " + where + ": " + std::strerror(errno));
  }
  return text;
}

std::string readFile(const std::string& path, const std::string& kind) {
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  const File file(compat::openStream(path.c_str(), "rb"), &std::fclose);
  if (!file) {
    throw Failure("cannot open the " + kind + " " + path + ": " + std::strerror(errno));
  }
  return readAll(file.get(), path);
}

std::string readStandardInput() {
  std::string text;
  if (!readInput(text)) {
    throw Failure(std::string("cannot read standard input: ") + std::strerror(errno));
  }
  return text;
}

std::string withoutLastLineFeed(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return text;
}

}  // namespace

void addModelOption(Command& command, std::string& model) {
  command.option("-m,--model", model, "Model file (.zem)").required().valueName("FILE");
}

void addPluginOption(Command& command, std::string& plugin) {
  command
      .option("--plugin", plugin,
              "Runtime plug-in (else $ZEM_PLUGIN, else the one that came with this program)")
      .valueName("FILE");
}

void addRuntimeOptions(Command& command, SessionOptions& options) {
  addModelOption(command, options.model);
  addPluginOption(command, options.plugin);
  const Option plan =
      command
          .option("--plan", options.plan,
                  "Which layers the GPU computes: gpu:all (default), cpu:all, gpu:8,cpu:all, ...")
          .check(complaintOfPlan)
          .valueName("TEXT")
          .noteIn(options.hasPlan);
  command.flag("--no-gpu", options.noGpu, "Compute on the CPU, without ever loading Vulkan")
      .excludes(plan);
}

void addThreadsOption(Command& command, int& threads, const std::string& description) {
  command.option("-t,--threads", threads, description).wholeNumber(1, kMaxThreads).valueName("N");
}

void addSessionOptions(Command& command, SessionOptions& options) {
  addRuntimeOptions(command, options);
  addThreadsOption(command, options.threads, "CPU threads (default: one a processor)");
}

void addContextOption(Command& command, SessionOptions& options) {
  command
      .option("-c,--ctx-size", options.ctx,
              "Positions a conversation may reach, 1 to 8192 (default: 8192)")
      .wholeNumber(1, kMaxContext)
      .valueName("N");
}

Option addSeedOption(Command& command, const std::string& names, uint64_t& seed,
                     const std::string& description) {
  return command.option(names, seed, description).check(complaintOfSeed).valueName("N");
}

void addSamplingOptions(Command& command, SamplingOptions& options) {
  constexpr float kHuge = 1e30F;
  command
      .option("--temp", options.temperature,
              "Temperature; 0 takes the likeliest token (default: 0)")
      .number(0, kHuge, "a temperature: a number from 0")
      .valueName("X");
  command.option("--top-k", options.topK, "Choose among the K likeliest; 0: no cut (default)")
      .wholeNumber(0, std::numeric_limits<int>::max())
      .valueName("K");
  command
      .option("--top-p", options.topP,
              "Choose among the likeliest up to probability P; 0: no cut (default)")
      .number(0, 1, "a probability: a number from 0 to 1")
      .valueName("P");
  addSeedOption(command, "-s,--seed", options.seed,
                "Seed of the random numbers, its low 32 bits; 0 keeps the runtime's own (default)");
}

void addPromptOptions(Command& command, PromptOptions& options) {
  const Option text = command.option("-p,--prompt", options.text, "Prompt text")
                          .valueName("TEXT")
                          .noteIn(options.hasText);
  command
      .option("-f,--file", options.file,
              "Prompt file, - for standard input; without -p and -f a pipe is read")
      .excludes(text)
      .valueName("FILE");
}

std::string readWhole(const std::string& path, const std::string& kind) {
  return path == "-" ? readStandardInput() : readFile(path, kind);
}

std::string readPrompt(const PromptOptions& options) {
  if (options.hasText) return options.text;
  if (options.file.empty() && stdinIsTerminal()) {
    throw UsageError("a prompt is needed: -p TEXT, -f FILE, or a pipe on standard input");
  }
  const std::string file = options.file.empty() ? "-" : options.file;
  std::string text = readWhole(file, "prompt file");
  if (!options.keepNewline) text = withoutLastLineFeed(std::move(text));
  requireText(text, file == "-" ? "standard input" : file);
  return text;
}

}  // namespace zemtool
