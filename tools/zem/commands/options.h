// SPDX-License-Identifier: Apache-2.0
// Options that several subcommands share.
#pragma once

#include <cstdint>
#include <string>

#include "commands/arguments.h"
#include "host/session_options.h"

namespace zemtool {

struct PromptOptions {
  std::string text;
  std::string file;
  bool hasText = false;      // a text was given, perhaps an empty one
  bool keepNewline = false;  // keep the line feed at the end of a file or a pipe
};

// Most threads that an option can ask for.
inline constexpr int kMaxThreads = 1024;

void addModelOption(Command& command, std::string& model);
void addPluginOption(Command& command, std::string& plugin);
void addThreadsOption(Command& command, int& threads, const std::string& description);
Option addSeedOption(Command& command, const std::string& names, uint64_t& seed,
                     const std::string& description);
// --model, --plugin, and --plan or --no-gpu.
void addRuntimeOptions(Command& command, SessionOptions& options);
// The options of addRuntimeOptions(), and --threads.
void addSessionOptions(Command& command, SessionOptions& options);
void addContextOption(Command& command, SessionOptions& options);
void addSamplingOptions(Command& command, SamplingOptions& options);
// --prompt and --file; readPrompt() reads standard input where neither is given.
void addPromptOptions(Command& command, PromptOptions& options);

// The prompt that the options name, else standard input, unless that is a terminal. A line feed at
// the very end of a file or a pipe is dropped, unless it is to be kept. Throws Failure when
// the prompt cannot be read or holds a NUL byte, and UsageError when there is none.
std::string readPrompt(const PromptOptions& options);

// All of the file, which is of a kind such as "prompt file", or of standard input for "-".
// Throws Failure when it cannot be read.
std::string readWhole(const std::string& path, const std::string& kind);

}  // namespace zemtool
