#include "commands/options.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "compat/environment.h"
#include "compat/files.h"
#include "console/program.h"
#include "console/streams.h"
#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr int kMaxContext = 8192;

// CLI::Range lets a NaN pass.
CLI::Validator inRange(float low, float high, const std::string& description) {
  return {[=](std::string& text) -> std::string {
            float value = 0;
            if (CLI::detail::lexical_cast(text, value) && value >= low && value <= high) return {};
            return "\"" + text + "\" is not " + description;
          },
          ""};
}

// CLI11 wraps a negative number around.
CLI::Validator withoutSign() {
  return {[](std::string& text) -> std::string {
            if (!text.starts_with('-')) return {};
            return "\"" + text + "\" is not a seed: a whole number from 0";
          },
          ""};
}

CLI::Validator withoutSemicolon() {
  return {[](std::string& text) -> std::string {
            if (text.find(';') == std::string::npos) return {};
            return "a plan cannot hold ';', which separates the fields of the option text";
          },
          ""};
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

std::string readFile(const std::string& path) {
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  const File file(compat::openStream(path.c_str(), "rb"), &std::fclose);
  if (!file) throw Failure("cannot open the prompt file " + path + ": " + std::strerror(errno));
  return readAll(file.get(), path);
}

std::string readStandardInput() {
  std::string text;
  if (!compat::readInput(text)) {
    throw Failure(std::string("cannot read standard input: ") + std::strerror(errno));
  }
  return text;
}

std::string withoutLastLineFeed(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return text;
}

// By default libgomp's threads spin for milliseconds before they sleep, and where
// other programs want the processors, each barrier of a token waits that long for
// a thread that is not running. So many rounds outlast the gaps between products
// and no more.
void limitSpinning() {
  if (compat::environmentVariable("OMP_WAIT_POLICY")) return;
  if (compat::environmentVariable("GOMP_SPINCOUNT")) return;
  compat::setEnvironmentVariable("GOMP_SPINCOUNT", "10000");
}

}  // namespace

void addModelOption(CLI::App& command, std::string& model) {
  command.add_option("-m,--model", model, "Model file (.zem)")->required()->type_name("FILE");
}

void addPluginOption(CLI::App& command, std::string& plugin) {
  command
      .add_option("--plugin", plugin,
                  "Runtime plug-in (else $ZEM_PLUGIN, else the one that came with this program)")
      ->type_name("FILE");
}

void addRuntimeOptions(CLI::App& command, SessionOptions& options) {
  addModelOption(command, options.model);
  addPluginOption(command, options.plugin);
  CLI::Option* plan = command
                          .add_option("--plan", options.plan,
                                      "Which layers the GPU computes: gpu:all (default), cpu:all, "
                                      "gpu:8,cpu:all, ...")
                          ->check(withoutSemicolon())
                          ->type_name("TEXT");
  plan->each([&options](const std::string&) { options.hasPlan = true; });
  command.add_flag("--no-gpu", options.noGpu, "Compute on the CPU, without ever loading Vulkan")
      ->excludes(plan);
}

void addSessionOptions(CLI::App& command, SessionOptions& options) {
  addRuntimeOptions(command, options);
  command.add_option("-t,--threads", options.threads, "CPU threads (default: one a processor)")
      ->check(CLI::Range(1, 1024).description(""))
      ->type_name("N");
}

void addContextOption(CLI::App& command, SessionOptions& options) {
  command
      .add_option("-c,--ctx-size", options.ctx,
                  "Positions a conversation may reach, 1 to 8192 (default: 8192)")
      ->check(CLI::Range(1, kMaxContext).description(""))
      ->type_name("N");
}

void addSamplingOptions(CLI::App& command, SamplingOptions& options) {
  constexpr float kHuge = 1e30F;
  command
      .add_option("--temp", options.temperature,
                  "Temperature; 0 takes the likeliest token (default: 0)")
      ->check(inRange(0, kHuge, "a temperature: a number from 0"))
      ->type_name("X");
  command.add_option("--top-k", options.topK, "Choose among the K likeliest; 0: no cut (default)")
      ->check(CLI::Range(0, std::numeric_limits<int>::max()).description(""))
      ->type_name("K");
  command
      .add_option("--top-p", options.topP,
                  "Choose among the likeliest up to probability P; 0: no cut (default)")
      ->check(inRange(0, 1, "a probability: a number from 0 to 1"))
      ->type_name("P");
  command
      .add_option(
          "-s,--seed", options.seed,
          "Seed of the random numbers, its low 32 bits; 0 keeps the runtime's own (default)")
      ->check(withoutSign())
      ->type_name("N");
}

void addPromptOptions(CLI::App& command, PromptOptions& options) {
  CLI::Option* text =
      command.add_option("-p,--prompt", options.text, "Prompt text")->type_name("TEXT");
  text->each([&options](const std::string&) { options.hasText = true; });
  command
      .add_option("-f,--file", options.file,
                  "Prompt file, - for standard input; without -p and -f a pipe is read")
      ->excludes(text)
      ->type_name("FILE");
}

std::string readPrompt(const PromptOptions& options) {
  if (options.hasText) return options.text;
  const bool fromFile = !options.file.empty() && options.file != "-";
  if (options.file.empty() && stdinIsTerminal()) {
    throw UsageError("a prompt is needed: -p TEXT, -f FILE, or a pipe on standard input");
  }
  const std::string where = fromFile ? options.file : "standard input";
  std::string text = withoutLastLineFeed(fromFile ? readFile(options.file) : readStandardInput());
  requireText(text, where);
  return text;
}

void requireText(const std::string& text, const std::string& where) {
  const size_t at = text.find('\0');
  if (at == std::string::npos) return;
  throw Failure("the prompt from " + where + " holds a NUL byte at offset " + std::to_string(at) +
                "; a prompt is text");
}

std::string createHint(const SessionOptions& options) {
  std::string hint = "zem";
  if (options.ctx > 0) hint += ";ctx=" + std::to_string(options.ctx);
  if (!options.plan.empty()) hint += ";plan=" + options.plan;
  return hint;
}

ZEMSessionOptions sessionRecord(const SamplingOptions& options) {
  ZEMSessionOptions record{};
  record.struct_size = sizeof record;
  record.temperature = options.temperature;
  record.top_k = options.topK;
  record.top_p = options.topP;
  record.seed = options.seed;
  return record;
}

void applyThreads(const SessionOptions& options) {
  limitSpinning();
  if (options.threads <= 0) return;
  compat::setEnvironmentVariable("OMP_NUM_THREADS", std::to_string(options.threads));
}

int effectiveThreads() {
  if (const char* given = std::getenv("OMP_NUM_THREADS")) {
    const int threads = std::atoi(given);
    if (threads > 0) return threads;
  }
  return compat::usableProcessors();
}

}  // namespace zemtool
