// Options that several subcommands share.
#pragma once

#include <cstdint>
#include <string>

#include "zem/plugin.h"

namespace CLI {
class App;
}

namespace zemtool {

struct SessionOptions {
  std::string model;
  std::string plugin;
  std::string plan;
  bool hasPlan = false;  // even an empty one
  bool noGpu = false;
  int ctx = 0;      // 0: the runtime's own
  int threads = 0;  // 0: one a processor
};

struct SamplingOptions {
  float temperature = -1;  // negative: the runtime's own
  int32_t topK = 0;
  float topP = 0;
  uint64_t seed = 0;
};

struct PromptOptions {
  std::string text;
  std::string file;
  bool hasText = false;
};

void addModelOption(CLI::App& command, std::string& model);
void addPluginOption(CLI::App& command, std::string& plugin);
// Model, plug-in, plan or no GPU.
void addRuntimeOptions(CLI::App& command, SessionOptions& options);
// These, and threads.
void addSessionOptions(CLI::App& command, SessionOptions& options);
void addContextOption(CLI::App& command, SessionOptions& options);
void addSamplingOptions(CLI::App& command, SamplingOptions& options);
// -p, -f, or a pipe on stdin.
void addPromptOptions(CLI::App& command, PromptOptions& options);

// The text that the options name. Of a file or a pipe one line feed at the very
// end is dropped: it belongs to the file, not to the prompt. Throws Failure for
// what cannot be read or holds a NUL byte, UsageError when nothing was given.
std::string readPrompt(const PromptOptions& options);

// Throws Failure when `text`, which came from `where`, holds a NUL byte.
void requireText(const std::string& text, const std::string& where);

// The create hint: "zem;ctx=N;plan=TEXT" with the fields that were given.
std::string createHint(const SessionOptions& options);

// A full-size record; what was not given keeps the session's setting.
ZEMSessionOptions sessionRecord(const SamplingOptions& options);

// Takes effect on plug-ins that are loaded afterwards.
void applyThreads(const SessionOptions& options);
// Threads that a plug-in loaded now will use.
int effectiveThreads();

}  // namespace zemtool
